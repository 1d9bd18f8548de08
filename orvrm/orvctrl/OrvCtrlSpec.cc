#include "orvrm/orvctrl/OrvCtrlSpec.h"

#include "orvrm/ClassList.h"

namespace orvrm {
namespace {

using namespace tarn_rmf2v;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

// Kept by the daemon.
constexpr uint32_t kKept = RM_PROP_NOT_AT_DEFINE | RM_PROP_SELECTABLE | RM_PROP_READ_ONLY;
// A setting the administrator changes.
constexpr uint32_t kSetting = RM_PROP_SELECTABLE | RM_PROP_OPTIONAL | RM_PROP_CONFIG;

const RMAttrSpec kClassAttrs[] = {
    {0, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
};

const RMAttrSpec kResourceAttrs[] = {
    {kOcResourceHandle, "ResourceHandle", ZN_RSRC_HANDLE_PTR, kKept, rmNoDefault()},
    {kOcVariety, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
    {kOcNodeIDs, "NodeIDs", ZN_UINT64_ARRAY, kKept, rmNoDefault()},
    {kOcAddUnrecognizedNodes, "AddUnrecognizedNodes", ZN_UINT32, kSetting, rmUintDefault(0)},
    {kOcRemoteShell, "RemoteShell", ZN_CHAR_PTR, kSetting, rmStrDefault("/usr/bin/ssh")},
    {kOcClusterTM, "ClusterTM", ZN_CHAR_PTR, kSetting, rmStrDefault(kDefaultClusterTM)},
    {kOcClusterSNum, "ClusterSNum", ZN_CHAR_PTR, kSetting, rmStrDefault("")},
    {kOcSetupRemoteShell, "SetupRemoteShell", ZN_UINT32, kSetting, rmUintDefault(1)},
    {kOcRegSyncDelay, "RegSyncDelay", ZN_UINT32, kSetting, rmUintDefault(1)},
    {kOcMigrationInfo, "MigrationInfo", ZN_CHAR_PTR, kSetting, rmStrDefault("")},
    {kOcFrequency, "Frequency", ZN_UINT32, kSetting, rmUintDefault(12)},
    {kOcSensitivity, "Sensitivity", ZN_UINT32, kSetting, rmUintDefault(8)},
    {kOcPowerStatusMode, "PowerStatusMode", ZN_UINT32, kSetting, rmUintDefault(0)},
    {kOcHAMode, "HAMode", ZN_UINT32, kSetting, rmUintDefault(0)},
    {kOcSetupKRB5, "SetupKRB5", ZN_UINT32, kSetting, rmUintDefault(0)},
    {kOcRemoteCopyCmd, "RemoteCopyCmd", ZN_CHAR_PTR, kSetting, rmStrDefault("/usr/bin/scp")},
    {kOcDeviceStatusFrequency, "DeviceStatusFrequency", ZN_UINT32, kSetting, rmUintDefault(12)},
    {kOcDeviceStatusSensitivity, "DeviceStatusSensitivity", ZN_UINT32, kSetting, rmUintDefault(8)},
};

}  // namespace

const RMClassSpec& orvCtrlSpec() {
    static const RMClassSpec spec{
        .name = kOrvCtrlClass,
        .classTable = "/Kor/OrvCtrl/Class",
        .resourceTable = "/Kor/OrvCtrl/Resources",
        .classPersistent = kClassAttrs,
        .persistent = kResourceAttrs,
    };
    return spec;
}

}  // namespace orvrm
