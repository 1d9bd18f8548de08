#include "orvrm/managednode/ManagedNodeRcp.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

zn_value_t u32(uint32_t v) {
    zn_value_t out{};
    out.val_uint32 = v;
    return out;
}

}  // namespace

ManagedNodeRcp::ManagedNodeRcp(const zn_resource_handle* handle, ManagedNodeRccp* rccp,
                               unsigned int variety)
    : RMTableRcp(handle, rccp, variety), heartbeat_(kStatusUnknown), powerStatus_(kStatusUnknown) {}

ManagedNodeRccp* ManagedNodeRcp::nodeRccp() const {
    return static_cast<ManagedNodeRccp*>(tableRccp());
}

zn::OwnedValue ManagedNodeRcp::getAttrValue(int id) const {
    const tarn_rmf2v::RMAttrSpec* a = spec().persistent.byId(id);
    if (a == nullptr) {
        return {};
    }
    try {
        return get(a->name);
    } catch (const std::exception&) {
        return {};
    }
}

char* ManagedNodeRcp::getHostName() const {
    zn::OwnedValue v = getAttrValue(kMnHostname);
    return v.type() == ZN_CHAR_PTR ? v.release().ptr_char : nullptr;
}

char* ManagedNodeRcp::getMode() const {
    zn::OwnedValue v = getAttrValue(kMnMode);
    return v.type() == ZN_CHAR_PTR ? v.release().ptr_char : nullptr;
}

uint64_t ManagedNodeRcp::getHostUniversalId() const {
    zn::OwnedValue v = getAttrValue(kMnUniversalId);
    return v.type() == ZN_UINT64 ? v.value().val_uint64 : 0;
}

zn_array* ManagedNodeRcp::getConnectivityIPAddrs() const {
    zn::OwnedValue v = getAttrValue(kMnConnectivityIPAddrs);
    return v.type() == ZN_CHAR_PTR_ARRAY ? v.release().ptr_array : nullptr;
}

uint32_t ManagedNodeRcp::getAllowManageReqFlag() const {
    zn::OwnedValue v = getAttrValue(kMnAllowManageRequest);
    return v.type() == ZN_UINT32 ? v.value().val_uint32 : 0;
}

uint32_t ManagedNodeRcp::getControlFlag() const {
    zn::OwnedValue v = getAttrValue(kMnControlFlag);
    return v.type() == ZN_UINT32 ? v.value().val_uint32 : 0;
}

bool ManagedNodeRcp::isMinManagedNode() const {
    char* mode = getMode();
    bool min = isModeMinManaged(mode);
    std::free(mode);
    return min;
}

uint32_t ManagedNodeRcp::getStatus() const {
    char* mode = getMode();
    bool min = isModeMinManaged(mode);
    std::free(mode);
    if (!min) {
        return heartbeat_.load();
    }
    char* host = getHostName();
    uint32_t status = host != nullptr
                          ? static_cast<uint32_t>(nodeRccp()->poller().getHostStatus(host))
                          : kStatusUnknown;
    std::free(host);
    return status;
}

uint32_t ManagedNodeRcp::getPowerStatus() const {
    char* host = getHostName();
    if (host == nullptr) {
        return kStatusUnknown;
    }
    uint32_t power = powerStatus_.load();
    if (PartitionStatus* partitions = nodeRccp()->partitions()) {
        power = static_cast<uint32_t>(partitions->getHostStatus(host));  // on the console
    }
    std::free(host);
    return power;
}

void ManagedNodeRcp::addPartitionEntry() {
    PartitionStatus* partitions = nodeRccp()->partitions();
    char* host = getHostName();
    if (partitions != nullptr && host != nullptr) {
        zn::OwnedValue model = getAttrValue(kMnHWModel);
        zn::OwnedValue serial = getAttrValue(kMnHWSerialNum);
        zn::OwnedValue lpar = getAttrValue(kMnLParID);
        std::string partition =
            partitionIdOf(lpar.value().ptr_char, model.value().ptr_char, serial.value().ptr_char);
        partitions->addHost(host, partition.data());
        reportDynamicId(kMnPowerStatus);
    }
    std::free(host);
}

void ManagedNodeRcp::resetChangedAttributes() {
    changed_.clear();
}

void ManagedNodeRcp::setHeartbeat(uint32_t heartbeat) {
    tarn_rmf2v::lockRcp guard(this);
    char* mode = getMode();
    bool preManaged = mode != nullptr && strcasecmp(mode, kModePreManaged) == 0;
    std::free(mode);
    if (preManaged || heartbeat_.exchange(heartbeat) == heartbeat) {
        return;
    }
    reportDynamicId(kMnStatus);
}

void ManagedNodeRcp::setPowerStatus(uint32_t powerStatus) {
    tarn_rmf2v::lockRcp guard(this);
    if (powerStatus_.exchange(powerStatus) != powerStatus) {
        reportDynamicId(kMnPowerStatus);
    }
}

void ManagedNodeRcp::reportDynamicId(int id) {
    const tarn_rmf2v::RMAttrSpec* a = spec().dynamic.byId(id);
    if (a == nullptr || !getRccp()->getMonitor()->isMonitored(getResourceHandle(), id)) {
        return;
    }
    zn::OwnedValue v;
    if (dynamicValue(*a, &v)) {
        reportDynamic(a->name, v.type(), v.value());
    }
}

bool ManagedNodeRcp::dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) {
    switch (attr.id) {
        case kMnConfigChanged:
            *out = zn::OwnedValue(ZN_UINT32, u32(reportingConfig_.load() ? 1 : 0));
            return true;
        case kMnStatus:
            *out = zn::OwnedValue(ZN_UINT32, u32(getStatus()));
            return true;
        case kMnPowerStatus:
            *out = zn::OwnedValue(ZN_UINT32, u32(getPowerStatus()));
            return true;
        case kMnChangedAttributes: {
            tarn_rmf2v::lockRcp guard(this);
            zn_value_t v{};
            v.ptr_array = zn_array_new(static_cast<uint32_t>(changed_.size()));
            *out = zn::OwnedValue(ZN_CHAR_PTR_ARRAY, v);  // owns the copies below
            for (size_t i = 0; i < changed_.size(); ++i) {
                v.ptr_array->elements[i].ptr_char = strdup(changed_[i].c_str());
            }
            return true;
        }
        case kMnInstallStatus: {
            // How far the node's installation and management came: its mode.
            zn_value_t v{};
            v.ptr_char = getMode();
            if (v.ptr_char == nullptr) {
                v.ptr_char = strdup("");
            }
            *out = zn::OwnedValue(ZN_CHAR_PTR, v);
            return true;
        }
        default:
            return false;
    }
}

void ManagedNodeRcp::attrValChngNotification(zn_value_t value, int id) {
    const tarn_rmf2v::RMAttrSpec* a = spec().persistent.byId(id);
    if (a == nullptr) {
        return;
    }
    tarn_rmf2v::lockRcp guard(this);
    tarn_rmf2v::RMMonitor* monitor = getRccp()->getMonitor();
    if (monitor->isPersistentEnabled(getResourceHandle(), id)) {
        rm_attribute_value v{id, a->type, value};
        notifyPersistentResourceAttrsModified(&v, 1);
    }
    if (monitor->isMonitored(getResourceHandle(), kMnConfigChanged)) {
        reportingConfig_.store(true);
        reportDynamicId(kMnConfigChanged);
        reportingConfig_.store(false);
    }
    if (monitor->isMonitored(getResourceHandle(), kMnChangedAttributes)) {
        changed_.assign(1, a->name);
        reportDynamicId(kMnChangedAttributes);
        resetChangedAttributes();
    }
    if (id == kMnMode) {
        reportDynamicId(kMnInstallStatus);
    }
}

}  // namespace orvrm
