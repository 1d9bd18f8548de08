#include "orvrm/managednode/ManagedNodeRccp.h"

#include <cstring>

#include "orvrm/ClassList.h"
#include "orvrm/NodeGroupHooks.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/managednode/PEXCBThread.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

using tarn_rmf::RMSelParams;

constexpr char kByHostname[] = "Hostname == $H";
constexpr char kByUniversalId[] = "UniversalId == $U";

tarn_rmf2v::RMTableRccp::Options options() {
    tarn_rmf2v::RMTableRccp::Options o;
    // The server keeps every node it was given; each change is written at
    // once, so a node the daemon acknowledged survives its death.
    o.ownRowsOnly = false;
    o.writeThrough = true;
    o.classCode = findClass(kManagedNodeClass)->handleCode;
    o.rcpName = "ManagedNodeRcp";
    o.defineFunction = "ManagedNodeRccp::DefineResource";
    return o;
}

}  // namespace

ManagedNodeRccp::ManagedNodeRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp)
    : OrvTableRccp(className, type, rmcp, managedNodeSpec(), options()),
      poller_(std::make_unique<FpingClass>()),
      orvrmcp_(rmcp),
      onConsole_(PartitionStatus::runningOnYSU()),
      statusSchedule_(std::make_unique<tarn_rmf2v::RMSchedule>()),
      syncSchedule_(std::make_unique<tarn_rmf2v::RMSchedule>()) {
    loadResources();
    reconcileInterfaces();
    scheduleDPEXUpdate();
    if (!onConsole_) {
        scheduleLocalPEXEventReg(15);
    }
    strent* hosts = nullptr;
    readHostList(&hosts, 1);
    if (hosts != nullptr) {
        poller_->addHosts(hosts);
        freestrlst(hosts);
    }
    // The first poll runs now and schedules the next ones.
    nodeStatusUpdate(this);
    if (onConsole_) {
        startConsole();
    }
}

ManagedNodeRccp::~ManagedNodeRccp() {
    // The event sessions end first (their callbacks use the class; a
    // registration still to come finds the class going), then the
    // schedules: a poll or write-back in progress is waited for while
    // everything it uses still stands.
    endEventSessions();
    // Stopped before any goes: a running poll schedules its successor
    // through the pointer.
    if (powerSchedule_) {
        powerSchedule_->stop();
    }
    syncSchedule_->stop();
    statusSchedule_->stop();
    powerSchedule_.reset();
    syncSchedule_.reset();
    statusSchedule_.reset();
}

tarn_rmf2v::RMTableRcp* ManagedNodeRccp::makeRcp(const zn_resource_handle& handle,
                                                 unsigned int variety) {
    return new ManagedNodeRcp(&handle, this, variety);
}

MNNetworkInterfaceRccp* ManagedNodeRccp::interfaces() {
    return dynamic_cast<MNNetworkInterfaceRccp*>(getRmcp()->findRccpByName(kNetworkInterfaceClass));
}

NodeGroupHooks* ManagedNodeRccp::nodeGroups() {
    return dynamic_cast<NodeGroupHooks*>(getRmcp()->findRccpByName(kNodeGroupClass));
}

OrvCtrlRccp* ManagedNodeRccp::domainControl() {
    return dynamic_cast<OrvCtrlRccp*>(getRmcp()->findRccpByName(kOrvCtrlClass));
}

void ManagedNodeRccp::coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp) {
    rsp->done(nullptr);
}

ManagedNodeRcp* ManagedNodeRccp::reserveFirst(const char* selection, const RMSelParams* params) {
    std::vector<zn_resource_handle> handles = handlesOf(selection, params);
    for (zn_resource_handle& h : handles) {
        tarn_rmf2v::RMRcp* rcp = findAndReserveRcp(&h);
        if (rcp == nullptr) {
            continue;  // its row is being removed
        }
        if (auto* node = dynamic_cast<ManagedNodeRcp*>(rcp)) {
            return node;
        }
        rcp->unreserve();
    }
    return nullptr;
}

ManagedNodeRcp* ManagedNodeRccp::getRcpByHostname(const char* hostname) {
    if (hostname == nullptr) {
        return nullptr;
    }
    try {
        RMSelParams p;
        p.setString("H", hostname);
        return reserveFirst(kByHostname, &p);
    } catch (const std::exception& e) {
        orvrminfo_trace("getRcpByHostname: %s", e.what());
        return nullptr;
    }
}

ManagedNodeRcp* ManagedNodeRccp::getRcpByUniversalId(uint64_t universalId) {
    try {
        RMSelParams p;
        p.setUint64("U", universalId);
        return reserveFirst(kByUniversalId, &p);
    } catch (const std::exception& e) {
        orvrminfo_trace("getRcpByUniversalId: %s", e.what());
        return nullptr;
    }
}

ManagedNodeRcp* ManagedNodeRccp::getFirstRcpMatchSlctStr(const char* selectString) {
    orvrminfo_trace("getFirstRcpMatchSlctStr: Select String %s",
                    selectString != nullptr ? selectString : "(null)");
    try {
        return reserveFirst(selectString, nullptr);
    } catch (const std::exception& e) {
        orvrminfo_trace("getFirstRcpMatchSlctStr: %s", e.what());
        return nullptr;
    }
}

int ManagedNodeRccp::exists(const char* selection, const RMSelParams& params, cu_error_t** err,
                            const char* op) {
    try {
        return handlesOf(selection, &params).empty() ? 0 : 1;
    } catch (std::exception& e) {
        cu_error_t* mapped = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error(op, mapped);
        if (err != nullptr) {
            *err = mapped;
        } else {
            cu_rel_error_1(mapped);
        }
        return -1;
    }
}

int ManagedNodeRccp::hostnameExists(const char* hostname, cu_error_t** err) {
    if (hostname == nullptr) {
        return 0;
    }
    RMSelParams p;
    p.setString("H", hostname);
    return exists(kByHostname, p, err, "ManagedNodeRccp::hostnameExists");
}

int ManagedNodeRccp::universalIdExists(uint64_t universalId, cu_error_t** err) {
    RMSelParams p;
    p.setUint64("U", universalId);
    return exists(kByUniversalId, p, err, "ManagedNodeRccp::universalIdExists");
}

int ManagedNodeRccp::mNodeExists(const char* hostname, cu_error_t** err) {
    return hostnameExists(hostname, err);
}

ManagedNodeRcp* ManagedNodeRccp::hostExists(const char* hostname, uint64_t universalId,
                                            cu_error_t** err) {
    ManagedNodeRcp* byId = getRcpByUniversalId(universalId);
    ManagedNodeRcp* byName = getRcpByHostname(hostname);
    if (byId == nullptr) {
        return byName;
    }
    if (byName == byId) {
        byName->unreserve();  // reserved twice: keep one
        return byId;
    }
    char* idName = byId->getHostName();
    bool sameName = idName != nullptr && hostname != nullptr && std::strcmp(idName, hostname) == 0;
    std::free(idName);
    if (sameName) {
        if (byName != nullptr) {
            byName->unreserve();
        }
        return byId;
    }
    if (byName != nullptr) {
        // The id and the name point at two different nodes.
        byName->unreserve();
        byId->unreserve();
        cu_error_t* e = pkg_error(268, 33, "ManagedNodeRccp::hostExists", 0);
        if (err != nullptr) {
            *err = e;
        } else {
            cu_rel_error_1(e);
        }
        return nullptr;
    }
    return byId;  // the node with the id takes the new host name
}

std::vector<std::string> ManagedNodeRccp::selectStrMembers(const char* selectString) {
    std::vector<std::string> out;
    tarn_rmf::RMRowSet rows = resourceTable()->select(selectString);
    int col = rows.getColumnIndex("Hostname");
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        out.emplace_back(rows.viewField(r, static_cast<unsigned>(col)).text());
    }
    return out;
}

int ManagedNodeRccp::isAllowMngReq(const char* hostname, uint64_t universalId, cu_error_t** err) {
    cu_error_t* e = nullptr;
    ManagedNodeRcp* node = hostExists(hostname, universalId, &e);
    if (node == nullptr) {
        if (e != nullptr) {
            if (err != nullptr) {
                *err = e;
            } else {
                cu_rel_error_1(e);
            }
            return 127;
        }
        return 0;
    }
    int allowed = node->getAllowManageReqFlag() == 1 ? 2 : 1;
    node->unreserve();
    return allowed;
}

int ManagedNodeRccp::isAllowStatusLogs(const char* hostname) {
    ManagedNodeRcp* node = getRcpByHostname(hostname);
    if (node == nullptr) {
        return 0;
    }
    int allowed = (node->getControlFlag() & kControlStatusLogs) != 0 ? 1 : 0;
    node->unreserve();
    return allowed;
}

namespace {

// Clears bits of one unsigned column of a node through the ordinary change path.
void clearFlag(ManagedNodeRccp* rccp, const char* hostname, int id, uint32_t keep, const char* op) {
    ManagedNodeRcp* node = rccp->getRcpByHostname(hostname);
    if (node == nullptr) {
        return;
    }
    uint32_t current =
        id == kMnControlFlag ? node->getControlFlag() : node->getAllowManageReqFlag();
    rm_attribute_value v{id, ZN_UINT32, {}};
    v.rm_value.val_uint32 = current & keep;
    cu_error_t* err = nullptr;
    if (v.rm_value.val_uint32 != current && node->updateAttributeValues(&v, 1, &err) != 0) {
        orvrmlog_error(op, err);
        cu_rel_error_1(err);
    }
    node->unreserve();
}

}  // namespace

void ManagedNodeRccp::resetAllowManageReqAttr(const char* hostname) {
    tarn_rmf2v::lockRccp guard(this);
    clearFlag(this, hostname, kMnAllowManageRequest, 0, "ManagedNodeRccp::resetAllowManageReqAttr");
}

void ManagedNodeRccp::stopStatusLogging(const char* hostname) {
    tarn_rmf2v::lockRccp guard(this);
    clearFlag(this, hostname, kMnControlFlag, ~kControlStatusLogs,
              "ManagedNodeRccp::stopStatusLogging");
}

}  // namespace orvrm
