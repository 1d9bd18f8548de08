// The nodes' reachability and heartbeat: the host list the poller watches,
// the poll "NodeStatusUpdate" and its rescheduling, heartbeat reports by
// node id and by host name, and power status by host name.
#include <chrono>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "platform/clock.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

// The poll's interval when the domain settings cannot be read.
constexpr unsigned int kDefaultFrequency = 12;

}  // namespace

void ManagedNodeRccp::readHostList(strent** out, unsigned int minManagedOnly) {
    *out = nullptr;
    tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
    int hostCol = rows.getColumnIndex("Hostname");
    int modeCol = rows.getColumnIndex("Mode");
    strent* tail = nullptr;
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        tarn_rmf::RMValueView host = rows.viewField(r, static_cast<unsigned>(hostCol));
        if (host.isNull || host.data == nullptr) {
            continue;
        }
        if (minManagedOnly != 0) {
            tarn_rmf::RMValueView mode = rows.viewField(r, static_cast<unsigned>(modeCol));
            if (mode.isNull || !isModeMinManaged(reinterpret_cast<const char*>(mode.data))) {
                continue;
            }
        }
        strent* node = createstrent(reinterpret_cast<const char*>(host.data));
        if (node == nullptr) {
            freestrlst(*out);
            *out = nullptr;
            throw tarn_rmf::RMOperError("ManagedNodeRccp::readHostList", __LINE__, __FILE__,
                                        "malloc", 0);
        }
        (tail == nullptr ? *out : tail->next) = node;
        tail = node;
    }
}

void ManagedNodeRccp::sendStatusChanges(strent* hosts) {
    for (strent* h = hosts; h != nullptr; h = h->next) {
        ManagedNodeRcp* node = getRcpByHostname(h->str);
        if (node == nullptr) {
            continue;
        }
        node->reportDynamicId(kMnStatus);
        node->unreserve();
    }
}

void ManagedNodeRccp::nodeStatusUpdate(void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    auto started = zn::processClock().monoNow();
    strent* changed = self->poller_->updateStatusAndRetChanges();
    int64_t took =
        std::chrono::duration_cast<std::chrono::nanoseconds>(zn::processClock().monoNow() - started)
            .count();
    self->lastPollNanos_.store(took);
    self->pollNanosTotal_.fetch_add(took);
    if (changed != nullptr) {
        self->sendStatusChanges(changed);
        freestrlst(changed);
    }
    self->statusPolls_.fetch_add(1);
    self->scheduleStatusUpdate();
}

void ManagedNodeRccp::scheduleStatusUpdate() {
    OrvCtrlRccp* settings = domainControl();
    int frequency = settings != nullptr ? settings->getHbFrequency() : 0;
    statusSchedule_->addOperation(
        "NodeStatusUpdate", &ManagedNodeRccp::nodeStatusUpdate, this,
        frequency > 0 ? static_cast<unsigned int>(frequency) : kDefaultFrequency);
}

void ManagedNodeRccp::pexHearbeatMsgCB(uint64_t nodeId, int heartbeat) {
    tarn_rmf2v::lockRccp guard(this);
    orvrminfo_trace("Entered pexHearbeatMsgCB");
    heartbeatReports_.fetch_add(1);
    if (nodeId == 0) {
        orvrminfo_trace("setHeartbeat: NodeId - 0");
        return;
    }
    ManagedNodeRcp* node = getRcpByUniversalId(nodeId);
    if (node == nullptr) {
        orvrminfo_trace("setHeartbeat: No ManagedNode resource with this nodeid");
        return;
    }
    node->setHeartbeat(static_cast<uint32_t>(heartbeat));
    // On the console a node whose partition is not active and which stopped
    // beating leaves the cluster by itself.
    if (onConsole_ && heartbeat == 0 && node->getPowerStatus() == 0) {
        zn_resource_handle handle = *node->getResourceHandle();
        node->unreserve();
        cu_rel_error_1(removeResource(handle, 0));
        return;
    }
    node->unreserve();
}

void ManagedNodeRccp::setHeartbeat(const char* hostname, unsigned int heartbeat) {
    if (hostname == nullptr) {
        orvrminfo_trace("setHeartbeat: hostname NULL");
        return;
    }
    orvrminfo_trace("setHeartbeat: %s %d", hostname, static_cast<int>(heartbeat));
    ManagedNodeRcp* node = getRcpByHostname(hostname);
    if (node == nullptr) {
        return;
    }
    node->setHeartbeat(heartbeat);
    node->unreserve();
}

void ManagedNodeRccp::setPowerStatus(const char* hostname, unsigned int powerStatus) {
    if (hostname == nullptr) {
        orvrminfo_trace("setPowerStatus: hostname NULL");
        return;
    }
    ManagedNodeRcp* node = getRcpByHostname(hostname);
    if (node == nullptr) {
        return;
    }
    node->setPowerStatus(powerStatus);
    node->unreserve();
    orvrminfo_trace("setPowerStatus: %s %d", hostname, static_cast<int>(powerStatus));
}

}  // namespace orvrm
