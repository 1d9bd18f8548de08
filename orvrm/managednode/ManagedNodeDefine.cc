// Defining nodes: the define walk's node rules, the companions a new node
// gets (interfaces, poller, node groups), define-or-update for node
// authentication, and the mode change once a node's management request
// succeeded.
#include <cstdlib>
#include <cstring>

#include "orvrm/NodeGroupHooks.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMRmcp.h"

namespace orvrm {
namespace {

constexpr char kCreateOp[] = "ManagedNodeRccp::createResource";
// The value errors of a define or change.
constexpr int kExistsError = 0x18000;
constexpr int kRangeError = 267;

bool isText(const rm_attribute_value& v) {
    return v.rm_data_type == ZN_CHAR_PTR && v.rm_value.ptr_char != nullptr;
}

}  // namespace

cu_error_t* ManagedNodeRccp::checkDefineValue(const tarn_rmf2v::RMAttrSpec& attr,
                                              const rm_attribute_value& value) {
    switch (attr.id) {
        case kMnHostname: {
            if (!isText(value) || value.rm_value.ptr_char[0] == '\0') {
                // A node is found by its host name: an empty one names nothing.
                return pkg_error(0x18006, 5, kCreateOp, 0, attr.name);
            }
            cu_error_t* err = nullptr;
            int found = hostnameExists(value.rm_value.ptr_char, &err);
            if (found == 1) {
                return pkg_error(kExistsError, 6, kCreateOp, 0, value.rm_value.ptr_char);
            }
            return found < 0 ? err : nullptr;
        }
        case kMnUniversalId:
            // 0 stands for "no id yet": nodes without one do not clash.
            if (value.rm_value.val_uint64 != 0 &&
                universalIdExists(value.rm_value.val_uint64, nullptr) == 1) {
                return pkg_error(kExistsError, 32, kCreateOp, 0);
            }
            return nullptr;
        case kMnAllowManageRequest:
            return value.rm_value.val_uint32 > 1 ? pkg_error(kRangeError, 55, kCreateOp, 0)
                                                 : nullptr;
        case kMnConsoleSerialSpeed:
            return value.rm_value.val_uint32 < kMinSerialSpeed ||
                           value.rm_value.val_uint32 > kMaxSerialSpeed
                       ? pkg_error(kRangeError, 70, kCreateOp, 0)
                       : nullptr;
        default:
            return nullptr;
    }
}

cu_error_t* ManagedNodeRccp::checkDefineRow(DefineRow& row) {
    facts_ = DefineFacts{};
    int partition = 0;
    for (const rm_attribute_value& v : row.values) {
        switch (v.rm_attribute_id) {
            case kMnHostname:
                facts_.hostname = v.rm_value.ptr_char;
                break;
            case kMnUniversalId:
                facts_.universalId = v.rm_value.val_uint64;
                break;
            case kMnConnectivityIPAddrs:
                facts_.addresses = v.rm_value.ptr_array;
                break;
            case kMnHWModel:
            case kMnHWSerialNum:
            case kMnLParID:
                ++partition;
                break;
            default:
                break;
        }
        if (v.rm_attribute_id >= kMnManagementServer && v.rm_attribute_id <= kMnMode) {
            facts_.modeToExamine = v.rm_value.ptr_char;
        }
    }
    facts_.hasPartition = partition == 3;
    if (facts_.hostname != nullptr) {
        rm_attribute_value name{kMnName, ZN_CHAR_PTR, {}};
        name.rm_value.ptr_char = const_cast<char*>(facts_.hostname);
        row.values.push_back(name);
    }
    if (row.find(kMnMode) == nullptr) {
        rm_attribute_value mode{kMnMode, ZN_CHAR_PTR, {}};
        mode.rm_value.ptr_char = const_cast<char*>(kModePreManaged);
        row.values.push_back(mode);
    }
    return nullptr;
}

void ManagedNodeRccp::createInterfaces(const char* hostname, uint64_t universalId,
                                       const zn_array* addresses) {
    MNNetworkInterfaceRccp* netif = interfaces();
    if (netif == nullptr || hostname == nullptr || universalId == 0 || addresses == nullptr) {
        return;
    }
    orvrminfo_trace("About to call MNNetworkInterface::createResource");
    for (uint32_t i = 0; i < addresses->array_cnt; ++i) {
        const char* address = addresses->elements[i].ptr_char;
        if (address == nullptr) {
            continue;
        }
        orvrminfo_trace("Hostname %s, IP Address %s", hostname, address);
        netif->createResource(hostname, universalId, address);
        getRmcp()->sendPEXMessage(2, 0, nullptr, 0);
    }
}

zn_resource_handle* ManagedNodeRccp::createResource(zn_structured_data*, rm_attribute_value* values,
                                                    unsigned int count, cu_error_t** err) {
    tarn_rmf2v::lockRccp guard(this);
    DefineResult r;
    try {
        r = defineRow(values, count, "defineResource");
    } catch (std::exception& e) {
        r.error.reset(tarn_rmf::RMMapExceptionToError(e));
        orvrmlog_error(kCreateOp, r.error.get());
    }
    if (r.error) {
        if (err != nullptr) {
            *err = r.error.release();
        }
        return nullptr;
    }
    createInterfaces(facts_.hostname, facts_.universalId, facts_.addresses);
    if (partitions_ != nullptr && facts_.hasPartition) {
        if (auto* node = dynamic_cast<ManagedNodeRcp*>(r.rcp)) {
            node->addPartitionEntry();
        }
    }
    if (isModeMinManaged(facts_.modeToExamine)) {
        poller_->addHost(const_cast<char*>(facts_.hostname));
    }
    if (NodeGroupHooks* groups = nodeGroups()) {
        groups->nodeAdded(facts_.hostname);
    }
    if (facts_.hostname != nullptr) {
        addNodePEXD(facts_.hostname);
    }
    auto* copy = static_cast<zn_resource_handle*>(std::malloc(sizeof(zn_resource_handle)));
    if (copy != nullptr) {
        *copy = r.handle;
    }
    reportClassEvent("ResourceDefined");
    return copy;
}

void ManagedNodeRccp::defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp,
                                     zn_structured_data* options, rm_attribute_value* values,
                                     unsigned int count) {
    cu_error_t* err = nullptr;
    zn_resource_handle* handle = createResource(options, values, count, &err);
    rsp->done(handle, err);
    std::free(handle);
    cu_rel_error_1(err);
}

int ManagedNodeRccp::createOrUpdateResource(const char* hostname, uint64_t universalId,
                                            rm_attribute_value* values, unsigned int count,
                                            cu_error_t** err) {
    tarn_rmf2v::lockRccp guard(this);
    cu_error_t* found = nullptr;
    ManagedNodeRcp* node = hostExists(hostname, universalId, &found);
    if (found != nullptr) {
        orvrmlog_error("ManagedNodeRccp::createOrUpdateResource", found);
        if (err != nullptr) {
            *err = found;
        } else {
            cu_rel_error_1(found);
        }
        return -1;
    }
    if (node != nullptr) {
        int rc = node->updateAttributeValues(values, count, err);
        node->unreserve();
        return rc;
    }
    zn_resource_handle* handle = createResource(nullptr, values, count, err);
    std::free(handle);
    return handle != nullptr ? 0 : -1;
}

uint64_t ManagedNodeRccp::createOrUpdateResourceRetNodeId(const char* hostname,
                                                          uint64_t universalId,
                                                          rm_attribute_value* values,
                                                          unsigned int count, cu_error_t** err) {
    if (createOrUpdateResource(hostname, universalId, values, count, err) != 0) {
        return 0;
    }
    return getRmcp()->getNodeId();
}

void ManagedNodeRccp::reqNodeMgmtSuccCB(const char* hostname) {
    // Cancelled before the class lock is taken: a write-back that is running
    // holds that lock, and the cancel waits for it.
    syncSchedule_->removeOperation(this);
    tarn_rmf2v::lockRccp guard(this);
    orvrminfo_trace("reqNodeMgmtSuccCB: Entered for %s", hostname != nullptr ? hostname : "");
    ManagedNodeRcp* node = getRcpByHostname(hostname);
    if (node == nullptr) {
        orvrminfo_trace("reqNodeMgmtSuccCB: Leaving for %s", hostname != nullptr ? hostname : "");
        return;
    }
    try {
        char* oldMode = node->getMode();
        bool wasMinManaged = isModeMinManaged(oldMode);
        std::free(oldMode);
        orvrminfo_trace("reqNodeMgmtSuccCB: Current Mode");
        orvrminfo_trace("reqNodeMgmtSuccCB: Set Mode to Managed");
        rm_attribute_value mode{kMnMode, ZN_CHAR_PTR, {}};
        mode.rm_value.ptr_char = const_cast<char*>(kModeManaged);
        node->change({mode});
        node->attrValChngNotification(mode.rm_value, kMnMode);
        if (wasMinManaged) {
            poller_->removeHost(const_cast<char*>(hostname));
        }
        node->setHeartbeat(1);
        if (NodeGroupHooks* groups = nodeGroups()) {
            groups->nodeChanged(hostname);
        }
        scheduleTableSync();
    } catch (std::exception& e) {
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("ManagedNodeRccp::reqNodeMgmtSuccCB", err);
        orvrminfo_trace("reqNodeMgmtSuccCB: %s", cu_error_text(err).c_str());
        cu_rel_error_1(err);
    }
    node->unreserve();
    orvrminfo_trace("reqNodeMgmtSuccCB: Leaving for %s", hostname);
}

void ManagedNodeRccp::scheduleTableSync() {
    orvrminfo_trace("Entered ManagedNodeRccp::scheduleTableSync");
    OrvCtrlRccp* settings = domainControl();
    unsigned int delay = settings != nullptr ? settings->getRegSyncDelay() : 1;
    orvrminfo_trace("Delay Value %d", static_cast<int>(delay));
    syncSchedule_->addOperation("TableSync", &ManagedNodeRccp::tableSync, this, delay);
    orvrminfo_trace("Leaving ManagedNodeRccp::scheduleTableSync");
}

void ManagedNodeRccp::tableSync(void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    if (self == nullptr) {
        return;
    }
    tarn_rmf2v::lockRccp guard(self);
    try {
        self->resourceTable()->sync();
    } catch (std::exception& e) {
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("ManagedNodeRccp::tableSync", err);
        cu_rel_error_1(err);
    }
}

}  // namespace orvrm
