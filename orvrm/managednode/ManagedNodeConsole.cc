// The nodes' power status on the hardware service console: the partition
// monitor holds one entry per node (its partition identifier: LParID "*"
// HWModel "*" HWSerialNum), polled at start, two minutes later and every
// five minutes after ("NodePowerStatusUpdate"); its changes are reported as
// the nodes' PowerStatus, and a node whose partition is gone leaves the
// class unless it still answers.
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {

std::string partitionIdOf(const char* lparId, const char* hwModel, const char* hwSerial) {
    auto s = [](const char* p) { return std::string(p != nullptr ? p : ""); };
    return s(lparId) + "*" + s(hwModel) + "*" + s(hwSerial);
}

void ManagedNodeRccp::startConsole() {
    partitions_ = std::make_unique<PartitionStatus>();
    partitions_->setCallbacks(&PartitionStatusChangeCB, this, &PartitionDeleteCB, this);
    powerSchedule_ = std::make_unique<tarn_rmf2v::RMSchedule>();
    PartitionEntry* initial = nullptr;
    getPartitionInfo(&initial);
    partitions_->addInitialHosts(initial);
    PartitionStatus::freePartitionEntLst(initial);
    partitions_->updateStatus();
    powerInterval_ = 2;
    schedulePowerStatusUpdates();
    powerInterval_ = 5;  // every later poll is 5 minutes after the one before
}

void ManagedNodeRccp::getPartitionInfo(PartitionEntry** out) {
    orvrminfo_trace("YSU: Before getMetadata");
    tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
    orvrminfo_trace("YSU:after getMetadata");
    orvrminfo_trace("YSU:pMetaData is NOT null");
    orvrminfo_trace("YSU:number of rows is %d", static_cast<int>(rows.getRowCount()));
    PartitionEntry* tail = nullptr;
    static const char* const names[] = {"Hostname", "HWModel", "HWSerialNum", "LParID"};
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        orvrminfo_trace("YSU:before getFieldsByIndexV");
        zn_value_t v[4] = {};
        rows.getFieldsByIndexV(r, names, 4, v);
        for (const zn_value_t& x : v) {
            orvrminfo_trace("%s", x.ptr_char != nullptr ? x.ptr_char : "");
        }
        std::string partition = partitionIdOf(v[3].ptr_char, v[1].ptr_char, v[2].ptr_char);
        auto* e = static_cast<PartitionEntry*>(std::calloc(1, sizeof(PartitionEntry)));
        if (e != nullptr) {
            e->hostname = strdup(v[0].ptr_char != nullptr ? v[0].ptr_char : "");
            e->partition = strdup(partition.c_str());
            e->status = 127;
        }
        for (zn_value_t& x : v) {
            std::free(x.ptr_char);
        }
        if (e == nullptr || e->hostname == nullptr || e->partition == nullptr) {
            PartitionStatus::freePartitionEnt(e);
            return;  // out of memory: what was made so far stands
        }
        orvrminfo_trace("YSU:after setting info");
        orvrminfo_trace("LPARInfo is %s", e->partition);
        (tail == nullptr ? *out : tail->next) = e;
        tail = e;
    }
}

int ManagedNodeRccp::getNodePowerStatus(const char* hostname) {
    if (hostname == nullptr || !onConsole_ || partitions_ == nullptr) {
        return 127;
    }
    return partitions_->getHostStatus(const_cast<char*>(hostname));
}

void ManagedNodeRccp::schedulePowerStatusUpdates() {
    powerSchedule_->addOperation("NodePowerStatusUpdate", &ManagedNodeRccp::nodePowerStatusUpdate,
                                 this, powerInterval_ * 60);
}

void ManagedNodeRccp::nodePowerStatusUpdate(void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    if (self->onConsole_) {
        self->partitions_->updateStatus();
    }
    self->schedulePowerStatusUpdates();
}

void ManagedNodeRccp::PartitionStatusChangeCB(void* rccp, strent* hosts) {
    orvrminfo_trace("YSU:In PartitionStatusChangeCB");
    PowerStatusChangeCBStub(rccp, hosts);
    orvrminfo_trace(
        "YSU:In PartitionStatusChangeCB, after calling                    PowerStatusChnageCB");
}

void ManagedNodeRccp::PowerStatusChangeCBStub(void* rccp, strent* hosts) {
    auto* self = static_cast<ManagedNodeRccp*>(rccp);
    tarn_rmf2v::lockRccp guard(self);
    tarn_rmf::RMRowSet rows = self->resourceTable()->getMetadata();
    int col = rows.getColumnIndex("Hostname");
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        std::string host(rows.viewField(r, static_cast<unsigned>(col)).text());
        if (checkstrinlist(host.c_str(), hosts) != 1) {
            continue;
        }
        if (ManagedNodeRcp* node = self->getRcpByHostname(host.c_str())) {
            node->reportDynamicId(kMnPowerStatus);
            node->unreserve();
        }
    }
}

void ManagedNodeRccp::PartitionDeleteCB(void* rccp, char* hostname) {
    auto* self = static_cast<ManagedNodeRccp*>(rccp);
    orvrminfo_trace("YSU In PartitionDeleteCB, changedHost is %s",
                    hostname != nullptr ? hostname : "");
    {
        tarn_rmf2v::lockRccp guard(self);
        if (ManagedNodeRcp* node = self->getRcpByHostname(hostname)) {
            // A node that still answers stays, its partition gone or not.
            bool answers = node->getStatus() == 1;
            zn_resource_handle handle = *node->getResourceHandle();
            node->unreserve();
            if (!answers) {
                cu_rel_error_1(self->removeResource(handle, 0));
            }
        }
    }
    orvrminfo_trace("YSU Leaving PartitionDeleteCB");
}

}  // namespace orvrm
