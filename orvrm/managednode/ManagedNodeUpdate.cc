// Changing a node: the checks of a change, the one write of its row, the
// cascade to the node's companions and the reports to watching clients; the
// set request and the node's action.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "common/HostNames.h"
#include "common/NameList.h"
#include "orvrm/NodeGroupHooks.h"
#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

constexpr char kUpdateOp[] = "ManagedNodeRcp::updateAttributeValues";

cu_error_t* common(int id, const char* a, const char* b = nullptr) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, a, b);
    return e;
}

// The names by which the node may know this server: the names it reaches
// this server by, then this server's primary names.
std::vector<std::string> namesOfThisServer(char* nodeHost) {
    std::vector<std::string> out;
    auto add = [&out](const zn_array* list) {
        for (uint32_t i = 0; list != nullptr && i < list->array_cnt; ++i) {
            const char* n = list->elements[i].ptr_char;
            if (n != nullptr && std::find(out.begin(), out.end(), n) == out.end()) {
                out.emplace_back(n);
            }
        }
    };
    zn_array* names = nullptr;
    if (nodeHost != nullptr) {
        int rc = WEX_COMMON::fetchConnectivityNames(nodeHost, &names,
                                                    WEX_COMMON::kConnectivityHostNames);
        if (rc != 0) {
            orvrminfo_trace("reqNodeMgmt::fetchConnectivityNames rc=%d", rc);
        }
        add(names);
        std::free(names);  // one allocation
    }
    names = nullptr;
    int rc = WEX_COMMON::fetchLocalHostPrimaryHostnames(&names, 0);
    if (rc != 0) {
        orvrminfo_trace("syncData::fetchLocalHostPrimaryHostnames rc=%d", rc);
    }
    add(names);
    std::free(names);
    return out;
}

// The domain's identity as the node is told it: machine type-model and serial.
zn::SdPtr domainIdentity(OrvCtrlRccp* settings) {
    zn::SdPtr sd(zn_sd_new(2));
    if (!sd) {
        return sd;
    }
    char* tm = settings != nullptr ? settings->getClusterTM() : nullptr;
    char* sn = settings != nullptr ? settings->getClusterSNum() : nullptr;
    sd->elements[0].data_type = ZN_CHAR_PTR;
    sd->elements[0].value.ptr_char = tm != nullptr ? tm : strdup("");
    sd->elements[1].data_type = ZN_CHAR_PTR;
    sd->elements[1].value.ptr_char = sn != nullptr ? sn : strdup("");
    return sd;
}

// What syncData applied: a count, then (attribute id, value) pairs.
zn::SdPtr syncResult(const std::vector<rm_attribute_value>& applied) {
    zn::SdPtr sd(zn_sd_new(static_cast<uint32_t>(1 + 2 * applied.size())));
    if (!sd) {
        throw std::bad_alloc();
    }
    sd->elements[0].data_type = ZN_UINT32;
    sd->elements[0].value.val_uint32 = static_cast<uint32_t>(applied.size());
    for (size_t i = 0; i < applied.size(); ++i) {
        zn_structured_data_element_t& id = sd->elements[1 + 2 * i];
        id.data_type = ZN_INT32;
        id.value.val_int32 = applied[i].rm_attribute_id;
        zn_structured_data_element_t& v = sd->elements[2 + 2 * i];
        v.data_type = applied[i].rm_data_type;
        if (!zn_value_dup(v.data_type, applied[i].rm_value, v.value)) {
            v.data_type = ZN_UNKNOWN;
            throw std::bad_alloc();
        }
    }
    return sd;
}

std::string textOf(const zn::OwnedValue& v) {
    return v.type() == ZN_CHAR_PTR && v.value().ptr_char != nullptr ? v.value().ptr_char : "";
}

}  // namespace

struct ManagedNodeRcp::Change {
    std::vector<rm_attribute_value> columns;  // what is written, borrowed from the request
    std::vector<rm_attribute_value> notify;   // columns whose change clients asked to hear
    std::vector<std::string> names;           // of the columns written
    std::string oldHost;
    std::string newHost;  // the old one unless a new one was given
    uint64_t oldId = 0;
    uint64_t newId = 0;
    zn::OwnedValue oldAddresses;
    const zn_array* newAddresses = nullptr;  // null: not given
    bool hostChanged = false;
    bool modeChanged = false;
    bool partitionChanged = false;
};

cu_error_t* ManagedNodeRcp::check(const rm_attribute_value* values, unsigned int count, Change& c) {
    tarn_rmf::RMRowSet current = row();
    if (current.empty()) {
        return common(tarn_rmf::RM_EINVALIDHANDLE, "updateAttributeValues");
    }
    auto column = [&](int id) {
        const tarn_rmf2v::RMAttrSpec* a = spec().persistent.byId(id);
        return zn::OwnedValue(a->type, current.getField(0, a->name));
    };
    c.oldHost = textOf(column(kMnHostname));
    c.newHost = c.oldHost;
    c.oldId = column(kMnUniversalId).value().val_uint64;
    c.newId = c.oldId;
    c.oldAddresses = column(kMnConnectivityIPAddrs);
    tarn_rmf2v::RMMonitor* monitor = getRccp()->getMonitor();
    ManagedNodeRccp* rccp = nodeRccp();
    std::set<int> seen;
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        const rm_attribute_value& v = values[i];
        const tarn_rmf2v::RMAttrSpec* a = spec().persistent.byId(v.rm_attribute_id);
        if (a == nullptr) {
            return common(tarn_rmf::RM_EINVALIDATTRID, "updateAttributeValues");
        }
        if (a->readOnly()) {
            return common(tarn_rmf::RM_EREADONLYATTR, a->name, "updateAttributeValues");
        }
        if (v.rm_data_type != a->type) {
            return common(tarn_rmf::RM_EDATATYPE, "updateAttributeValues");
        }
        if (!seen.insert(a->id).second) {
            return pkg_error(0x18004, 2, kUpdateOp, 0, a->name);
        }
        // A text equal to the stored one changes nothing.
        bool unchanged =
            a->type == ZN_CHAR_PTR &&
            textOf(column(a->id)) == (v.rm_value.ptr_char != nullptr ? v.rm_value.ptr_char : "");
        switch (a->id) {
            case kMnHostname:
                if (unchanged) {
                    break;
                }
                if (v.rm_value.ptr_char == nullptr || v.rm_value.ptr_char[0] == '\0') {
                    return common(tarn_rmf::RM_EREQUIREDATTR, a->name, "updateAttributeValues");
                } else {
                    cu_error_t* err = nullptr;
                    int found = rccp->hostnameExists(v.rm_value.ptr_char, &err);
                    if (found != 0) {
                        return found < 0 ? err
                                         : pkg_error(0x18000, 6, kUpdateOp, 0, v.rm_value.ptr_char);
                    }
                }
                c.hostChanged = true;
                c.newHost = v.rm_value.ptr_char;
                break;
            case kMnHWType:
            case kMnHWModel:
            case kMnHWSerialNum:
            case kMnLParID:
                c.partitionChanged = c.partitionChanged || !unchanged;
                break;
            case kMnUniversalId:
                if (v.rm_value.val_uint64 != c.oldId && v.rm_value.val_uint64 != 0 &&
                    rccp->universalIdExists(v.rm_value.val_uint64, nullptr) == 1) {
                    return pkg_error(0x18000, 32, kUpdateOp, 0);
                }
                c.newId = v.rm_value.val_uint64;
                break;
            case kMnAllowManageRequest:
                if (v.rm_value.val_uint32 > 1) {
                    return pkg_error(267, 55, kUpdateOp, 0);
                }
                break;
            case kMnMode:
                c.modeChanged = !unchanged;
                break;
            case kMnConsoleSerialSpeed:
                if (v.rm_value.val_uint32 < kMinSerialSpeed ||
                    v.rm_value.val_uint32 > kMaxSerialSpeed) {
                    return pkg_error(267, 70, kUpdateOp, 0);
                }
                break;
            case kMnConnectivityIPAddrs:
                c.newAddresses = v.rm_value.ptr_array;
                break;
            default:
                break;
        }
        if (unchanged) {
            orvrminfo_trace("Not updating id %d, No value change\n", a->id);
            continue;
        }
        c.columns.push_back(v);
        c.names.emplace_back(a->name);
        if (monitor->isPersistentEnabled(getResourceHandle(), a->id)) {
            c.notify.push_back(v);
        }
        if (a->id == kMnHostname) {
            // The node's name follows its host name.
            rm_attribute_value name{kMnName, ZN_CHAR_PTR, v.rm_value};
            c.columns.push_back(name);
            c.names.emplace_back("Name");
            if (monitor->isPersistentEnabled(getResourceHandle(), kMnName)) {
                c.notify.push_back(name);
            }
        }
    }
    return nullptr;
}

void ManagedNodeRcp::cascade(const Change& c) {
    ManagedNodeRccp* rccp = nodeRccp();
    NodeGroupHooks* groups = rccp->nodeGroups();
    FpingClass& poller = rccp->poller();
    bool minManaged = isMinManagedNode();
    std::string host = c.newHost;
    if (!c.hostChanged) {
        if (groups != nullptr) {
            groups->nodeChanged(host.c_str());
        }
        if (!minManaged) {
            poller.removeHost(host.data());
        } else if (poller.isHostInList(host.data()) == 0) {
            poller.addHost(host.data());
        }
    } else {
        if (groups != nullptr) {
            groups->nodeDelOrChangeCB(c.oldHost.c_str(), c.newHost.c_str());
        }
        std::string old = c.oldHost;
        poller.removeHost(old.data());
        if (minManaged) {
            poller.addHost(host.data());
        }
    }
    // The node table knows a node by its name, id and addresses.
    if (c.hostChanged || c.oldId != c.newId || c.newAddresses != nullptr) {
        rccp->updateNodePEXD(c.oldHost.c_str(), c.oldId, c.newHost.c_str(), c.newId);
    }
    // The console's partition monitor follows a new name or partition.
    if (PartitionStatus* partitions = rccp->partitions();
        partitions != nullptr && (c.hostChanged || c.partitionChanged)) {
        std::string old = c.oldHost;
        partitions->removeHost(old.data());
        addPartitionEntry();
    }
    if (MNNetworkInterfaceRccp* netif = rccp->interfaces()) {
        const zn_array* oldList =
            c.oldAddresses.type() == ZN_CHAR_PTR_ARRAY ? c.oldAddresses.value().ptr_array : nullptr;
        netif->updateResources(c.oldHost.c_str(), c.newHost.c_str(), c.oldId, c.newId, oldList,
                               c.newAddresses != nullptr ? c.newAddresses : oldList);
    }
}

void ManagedNodeRcp::notifyChange(const Change& c) {
    if (!c.notify.empty()) {
        std::vector<rm_attribute_value> list = c.notify;
        notifyPersistentResourceAttrsModified(list.data(), static_cast<unsigned int>(list.size()));
    }
    tarn_rmf2v::RMMonitor* monitor = getRccp()->getMonitor();
    if (monitor->isMonitored(getResourceHandle(), kMnConfigChanged)) {
        reportingConfig_.store(true);
        reportDynamicId(kMnConfigChanged);
        reportingConfig_.store(false);
    }
    if (monitor->isMonitored(getResourceHandle(), kMnChangedAttributes)) {
        changed_ = c.names;
        if (changed_.size() > kMaxChangedAttributes) {
            changed_.resize(kMaxChangedAttributes);
        }
        reportDynamicId(kMnChangedAttributes);
        resetChangedAttributes();
    }
    if (c.modeChanged) {
        reportDynamicId(kMnInstallStatus);
    }
}

int ManagedNodeRcp::updateAttributeValues(const rm_attribute_value* values, unsigned int count,
                                          cu_error_t** err) {
    tarn_rmf2v::lockRcp guard(this);
    cu_error_t* failed = nullptr;
    try {
        Change c;
        failed = check(values, count, c);
        if (failed == nullptr) {
            if (c.columns.empty()) {
                orvrminfo_trace("No Attributes to be updated\n");
                return 0;
            }
            change(c.columns);
            cascade(c);
            notifyChange(c);
            return 0;
        }
    } catch (std::exception& e) {
        failed = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error(kUpdateOp, failed);
    }
    if (err != nullptr) {
        *err = failed;
    } else {
        cu_rel_error_1(failed);
    }
    return -1;
}

void ManagedNodeRcp::setAttributeValues(tarn_rmf2v::RMAttributeIdResponse* rsp,
                                        rm_attribute_value* values, unsigned int count) {
    // The class lock first: a new host name or id is checked against the
    // other nodes and written before another change may take it.
    tarn_rmf2v::lockRccp classGuard(getRccp());
    cu_error_t* err = nullptr;
    updateAttributeValues(values, count, &err);
    // All or nothing: every attribute of the request gets the outcome.
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        rsp->result(values[i].rm_attribute_id, err);
    }
    rsp->done(nullptr);
    cu_rel_error_1(err);
}

void ManagedNodeRcp::invokeAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                                  zn_structured_data* input) {
    if (actionId != kMnSyncData) {
        orvrminfo_trace("invokeAction: action %d is not known", actionId);
        zn::ErrorPtr err(common(tarn_rmf::RM_ENOTSUPPORTED, "invokeAction"));
        rsp->done(err.get());
        return;
    }
    syncData(rsp, input);
}

void ManagedNodeRcp::syncData(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input) {
    if (input == nullptr || input->element_count != 1) {
        zn::ErrorPtr err(pkg_error(266, 50, "syncData", 0));
        rsp->done(err.get());
        return;
    }
    std::vector<std::string> serverNames;
    std::string primary;
    {
        tarn_rmf2v::lockRcp guard(this);
        char* host = getHostName();
        NodePEXIface iface;
        char* p = iface.getPrimaryHostname(host);
        primary = p != nullptr ? p : "";
        std::free(p);
        serverNames = namesOfThisServer(host);
        std::free(host);
    }
    // The record on the node names this server by one of its names: ask
    // under each until one answers. No lock is held while the node is asked.
    NodePEXIface iface;
    zn::SdPtr identity = domainIdentity(nodeRccp()->domainControl());
    rm_attribute_value* entries = nullptr;
    unsigned int count = 0;
    zn::ErrorPtr err;
    for (const std::string& name : serverNames) {
        cu_error_t* e = nullptr;
        entries = iface.syncNodeData(primary.c_str(), name.c_str(), identity.get(), &count, &e);
        err.reset(e);
        if (entries != nullptr) {
            break;
        }
    }
    if (entries == nullptr) {
        if (!err) {
            err.reset(pkg_error(267, 57, "syncData", 0));
        }
        rsp->done(err.get());
        return;
    }
    // What the node may not change here is left out: kept attributes and
    // values that are not of their column's type.
    std::vector<rm_attribute_value> applied;
    for (unsigned int i = 0; i < count; ++i) {
        const tarn_rmf2v::RMAttrSpec* a = spec().persistent.byId(entries[i].rm_attribute_id);
        if (a != nullptr && !a->readOnly() && a->type == entries[i].rm_data_type &&
            (a->type != ZN_CHAR_PTR || entries[i].rm_value.ptr_char != nullptr)) {
            applied.push_back(entries[i]);
        }
    }
    cu_error_t* failed = nullptr;
    {
        tarn_rmf2v::lockRccp classGuard(getRccp());
        updateAttributeValues(applied.data(), static_cast<unsigned int>(applied.size()), &failed);
    }
    err.reset(failed);
    if (!err) {
        zn::SdPtr result = syncResult(applied);
        rsp->returnData(result.get());
    }
    NodePEXIface::freeSyncData(entries, count);
    rsp->done(err.get());
}

}  // namespace orvrm
