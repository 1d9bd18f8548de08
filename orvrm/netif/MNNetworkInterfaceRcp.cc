#include "orvrm/netif/MNNetworkInterfaceRcp.h"

#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {

MNNetworkInterfaceRcp::MNNetworkInterfaceRcp(const zn_resource_handle* handle,
                                             MNNetworkInterfaceRccp* rccp, unsigned int variety)
    : RMTableRcp(handle, rccp, variety), status_(kStatusUnknown) {}

void MNNetworkInterfaceRcp::setHeartbeat(unsigned int value) {
    tarn_rmf2v::lockRcp guard(this);
    if (status_.exchange(value) == value) {
        return;
    }
    zn_value_t v{};
    v.val_uint32 = value;
    reportDynamic("Status", ZN_UINT32, v);
}

bool MNNetworkInterfaceRcp::dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) {
    zn_value_t v{};
    v.val_uint32 = attr.id == kNiStatus ? status_.load() : configChanged_.load();
    *out = zn::OwnedValue(ZN_UINT32, v);
    return true;
}

}  // namespace orvrm
