#include "orvrm/managednode/ManagedNodeSpec.h"

#include <strings.h>

#include <cstring>

#include "orvrm/ClassList.h"

namespace orvrm {
namespace {

using namespace tarn_rmf2v;
using tarn_rmf::rmIntDefault;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUint64Default;
using tarn_rmf::rmUintDefault;

// The property words as the node table stores them.
constexpr uint32_t k50 = RM_PROP_READ_ONLY | RM_PROP_NOT_AT_DEFINE | RM_PROP_SELECTABLE;
constexpr uint32_t k51 = k50 | RM_PROP_CONFIG;
constexpr uint32_t k7 = RM_PROP_REQUIRED | RM_PROP_SELECTABLE | RM_PROP_CONFIG;
constexpr uint32_t k11 = RM_PROP_OPTIONAL | RM_PROP_SELECTABLE | RM_PROP_CONFIG;
constexpr uint32_t k10 = RM_PROP_OPTIONAL | RM_PROP_SELECTABLE;
constexpr uint32_t k42 = RM_PROP_READ_ONLY | RM_PROP_OPTIONAL | RM_PROP_SELECTABLE;

const RMAttrSpec kClassAttrs[] = {
    {0, "Variety", ZN_UINT32, k50, rmUintDefault(1)},
};

const RMAttrSpec kClassEvents[] = {
    {kMnResourceDefined, "ResourceDefined", ZN_UINT32, 0, rmNoDefault()},
    {kMnResourceUndefined, "ResourceUndefined", ZN_UINT32, 0, rmNoDefault()},
    {kMnClassConfigChanged, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
};

const zn_value_t kNoText = rmStrDefault("");

const RMAttrSpec kResourceAttrs[] = {
    {kMnResourceHandle, "ResourceHandle", ZN_RSRC_HANDLE_PTR, k50, rmNoDefault()},
    {kMnVariety, "Variety", ZN_UINT32, k50, rmUintDefault(1)},
    {kMnHostname, "Hostname", ZN_CHAR_PTR, k7, kNoText},
    {kMnInstallAdapterMacaddr, "InstallAdapterMacaddr", ZN_CHAR_PTR, k11, kNoText},
    {kMnHWType, "HWType", ZN_CHAR_PTR, k11, kNoText},
    {kMnHWModel, "HWModel", ZN_CHAR_PTR, k11, kNoText},
    {kMnHWSerialNum, "HWSerialNum", ZN_CHAR_PTR, k11, kNoText},
    {kMnLParID, "LParID", ZN_CHAR_PTR, k11, kNoText},
    {kMnName, "Name", ZN_CHAR_PTR, k51, kNoText},
    {kMnConsolePortNum, "ConsolePortNum", ZN_CHAR_PTR, k11, kNoText},
    {kMnConsoleServerName, "ConsoleServerName", ZN_CHAR_PTR, k11, kNoText},
    {kMnHWControlPoint, "HWControlPoint", ZN_CHAR_PTR, k11, kNoText},
    {kMnHWControlNodeId, "HWControlNodeId", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallOSName, "InstallOSName", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallDistributionVersion, "InstallDistributionVersion", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallDistributionName, "InstallDistributionName", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallKernelVersion, "InstallKernelVersion", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallDiskType, "InstallDiskType", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallDisk, "InstallDisk", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallMethod, "InstallMethod", ZN_CHAR_PTR, k11, kNoText},
    {kMnUniversalId, "UniversalId", ZN_UINT64, k10, rmUint64Default(0)},
    {kMnConsoleMethod, "ConsoleMethod", ZN_CHAR_PTR, k11, kNoText},
    {kMnConsoleServerNumber, "ConsoleServerNumber", ZN_CHAR_PTR, k11, kNoText},
    {kMnPowerMethod, "PowerMethod", ZN_CHAR_PTR, k11, kNoText},
    {kMnNodeIDs, "NodeIDs", ZN_UINT64_ARRAY, k42, rmNoDefault()},
    {kMnLastCFMUpdateTime, "LastCFMUpdateTime", ZN_CHAR_PTR, k11, kNoText},
    {kMnAllowManageRequest, "AllowManageRequest", ZN_UINT32, k11, rmUintDefault(0)},
    {kMnManagementServer, "ManagementServer", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallPkgArchitecture, "InstallPkgArchitecture", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallWEXVersion, "InstallWEXVersion", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallAdapterType, "InstallAdapterType", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallAdapterSpeed, "InstallAdapterSpeed", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallAdapterDuplex, "InstallAdapterDuplex", ZN_CHAR_PTR, k11, kNoText},
    {kMnMode, "Mode", ZN_CHAR_PTR, k11, rmStrDefault(kModePreManaged)},
    {kMnWEXVersion, "WEXVersion", ZN_CHAR_PTR, k11, kNoText},
    {kMnUpdatenodeFailed, "UpdatenodeFailed", ZN_INT32, k11, rmIntDefault(0)},
    {kMnUserComment, "UserComment", ZN_CHAR_PTR, k11, kNoText},
    {kMnConsoleSerialDevice, "ConsoleSerialDevice", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallServer, "InstallServer", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallTemplate, "InstallTemplate", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallAdapterGateway, "InstallAdapterGateway", ZN_CHAR_PTR, k11, kNoText},
    {kMnInstallAdapterNetmask, "InstallAdapterNetmask", ZN_CHAR_PTR, k11, kNoText},
    {kMnControlFlag, "ControlFlag", ZN_UINT32, k10, rmUintDefault(0)},
    {kMnConsoleSerialSpeed, "ConsoleSerialSpeed", ZN_UINT32, k11, rmUintDefault(9600)},
    {kMnConnectivityIPAddrs, "ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, k10, rmNoDefault()},
    {kMnStorageFacilityImageID, "StorageFacilityImageID", ZN_CHAR_PTR, k10, kNoText},
    {kMnInstallAdapterName, "InstallAdapterName", ZN_CHAR_PTR, k11, kNoText},
};

const RMAttrSpec kDynamic[] = {
    {kMnConfigChanged, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
    {kMnStatus, "Status", ZN_UINT32, 0, rmNoDefault()},
    {kMnPowerStatus, "PowerStatus", ZN_UINT32, 0, rmNoDefault()},
    {kMnChangedAttributes, "ChangedAttributes", ZN_CHAR_PTR_ARRAY, 0, rmNoDefault()},
    {kMnInstallStatus, "InstallStatus", ZN_CHAR_PTR, 0, rmNoDefault()},
};

}  // namespace

bool isModeMinManaged(const char* mode) {
    return mode != nullptr && strncasecmp(mode, kModeMinManaged, std::strlen(kModeMinManaged)) == 0;
}

const RMClassSpec& managedNodeSpec() {
    static const RMClassSpec spec{
        .name = kManagedNodeClass,
        .classTable = "/Kor/ManagedNode/Class",
        .resourceTable = "/Kor/ManagedNode/Resources",
        .classPersistent = kClassAttrs,
        .classDynamic = kClassEvents,
        .persistent = kResourceAttrs,
        .dynamic = kDynamic,
        .actions = {{kMnSyncData, "syncData", {}}},
    };
    return spec;
}

}  // namespace orvrm
