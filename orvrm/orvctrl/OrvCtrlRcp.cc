#include "orvrm/orvctrl/OrvCtrlRcp.h"

#include "orvrm/ORVRMLog.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "orvrm/orvctrl/OrvCtrlSpec.h"

namespace orvrm {
namespace {

// The value error of a setting: every range message is error 0x18000.
constexpr int kBadSetting = 0x18000;

struct Range {
    int id;
    unsigned low;  // numbers: inclusive bounds; texts: 0 = any non-empty text
    unsigned high;
    int message;
};

// The bounds are inclusive, whatever the texts say.
constexpr Range kRanges[] = {
    {kOcAddUnrecognizedNodes, 0, 1, 54},
    {kOcRemoteShell, 0, 0, 58},
    {kOcSetupRemoteShell, 0, 1, 59},
    {kOcRegSyncDelay, 1, 60, 65},
    {kOcFrequency, 1, 900, 66},
    {kOcSensitivity, 2, 100, 67},
    {kOcPowerStatusMode, 0, 3, 68},
    {kOcHAMode, 0, 3, 69},
    {kOcRemoteCopyCmd, 0, 0, 72},
    {kOcDeviceStatusFrequency, 1, 900, 73},
    {kOcDeviceStatusSensitivity, 2, 100, 74},
};

}  // namespace

OrvCtrlRcp::OrvCtrlRcp(const zn_resource_handle* handle, OrvCtrlRccp* rccp, unsigned int variety)
    : RMTableRcp(handle, rccp, variety) {}

cu_error_t* OrvCtrlRcp::checkSetValue(const tarn_rmf2v::RMAttrSpec& attr,
                                      const rm_attribute_value& value) {
    for (const Range& r : kRanges) {
        if (r.id != attr.id) {
            continue;
        }
        bool ok = attr.type == ZN_CHAR_PTR
                      ? value.rm_value.ptr_char != nullptr && value.rm_value.ptr_char[0] != '\0'
                      : value.rm_value.val_uint32 >= r.low && value.rm_value.val_uint32 <= r.high;
        return ok ? nullptr : pkg_error(kBadSetting, r.message, "setAttributeValues", 0);
    }
    return nullptr;
}

void OrvCtrlRcp::valuesSet(const std::vector<rm_attribute_value>& accepted) {
    auto* rccp = static_cast<OrvCtrlRccp*>(tableRccp());
    int frequency = -1;
    int sensitivity = -1;
    for (const rm_attribute_value& v : accepted) {
        switch (v.rm_attribute_id) {
            case kOcAddUnrecognizedNodes:
                rccp->setAddUnrecognizedNodes(v.rm_value.val_uint32);
                break;
            case kOcFrequency:
                frequency = static_cast<int>(v.rm_value.val_uint32);
                break;
            case kOcSensitivity:
                sensitivity = static_cast<int>(v.rm_value.val_uint32);
                break;
            default:
                break;
        }
    }
    if (frequency >= 0 || sensitivity >= 0) {
        // The one not given keeps its current value.
        rccp->applyHeartbeat(frequency >= 0 ? frequency : rccp->getHbFrequency(),
                             sensitivity >= 0 ? sensitivity : rccp->getHbSensitivity());
    }
}

}  // namespace orvrm
