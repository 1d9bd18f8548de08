// "Kor.ManagedNode": the nodes this server manages. The class and resource
// attributes (their ids, types, property words and defaults), the dynamic
// attributes and the one action, stated once; the management modes.
#pragma once

#include "tarn_rmf2v/RMAttrSpec.h"

namespace orvrm {

// Resource attribute ids: the column positions of the resource table.
enum ManagedNodeAttr : int {
    kMnResourceHandle = 0,
    kMnVariety = 1,
    kMnHostname = 2,
    kMnInstallAdapterMacaddr = 3,
    kMnHWType = 4,
    kMnHWModel = 5,
    kMnHWSerialNum = 6,
    kMnLParID = 7,
    kMnName = 8,
    kMnConsolePortNum = 9,
    kMnConsoleServerName = 10,
    kMnHWControlPoint = 11,
    kMnHWControlNodeId = 12,
    kMnInstallOSName = 13,
    kMnInstallDistributionVersion = 14,
    kMnInstallDistributionName = 15,
    kMnInstallKernelVersion = 16,
    kMnInstallDiskType = 17,
    kMnInstallDisk = 18,
    kMnInstallMethod = 19,
    kMnUniversalId = 20,
    kMnConsoleMethod = 21,
    kMnConsoleServerNumber = 22,
    kMnPowerMethod = 23,
    kMnNodeIDs = 24,
    kMnLastCFMUpdateTime = 25,
    kMnAllowManageRequest = 26,
    kMnManagementServer = 27,
    kMnInstallPkgArchitecture = 28,
    kMnInstallWEXVersion = 29,
    kMnInstallAdapterType = 30,
    kMnInstallAdapterSpeed = 31,
    kMnInstallAdapterDuplex = 32,
    kMnMode = 33,
    kMnWEXVersion = 34,
    kMnUpdatenodeFailed = 35,
    kMnUserComment = 36,
    kMnConsoleSerialDevice = 37,
    kMnInstallServer = 38,
    kMnInstallTemplate = 39,
    kMnInstallAdapterGateway = 40,
    kMnInstallAdapterNetmask = 41,
    kMnControlFlag = 42,
    kMnConsoleSerialSpeed = 43,
    kMnConnectivityIPAddrs = 44,
    kMnStorageFacilityImageID = 45,
    kMnInstallAdapterName = 46,
};
inline constexpr int kMnLastAttr = kMnInstallAdapterName;

// Dynamic resource attribute ids.
enum ManagedNodeDynamic : int {
    kMnConfigChanged = 0,
    kMnStatus = 1,
    kMnPowerStatus = 2,
    kMnChangedAttributes = 3,
    kMnInstallStatus = 4,
};

// Dynamic class attribute ids (events without a value).
enum ManagedNodeClassEvent : int {
    kMnResourceDefined = 0,
    kMnResourceUndefined = 1,
    kMnClassConfigChanged = 2,
};

// The one resource action.
inline constexpr int kMnSyncData = 0;

inline constexpr char kModePreManaged[] = "PreManaged";
inline constexpr char kModeManaged[] = "Managed";
inline constexpr char kModeMinManaged[] = "MinManaged";

// ConsoleSerialSpeed's accepted range, in bits per second.
inline constexpr unsigned int kMinSerialSpeed = 1;
inline constexpr unsigned int kMaxSerialSpeed = 230400;

// A mode counts as minimally managed when its first ten characters are
// "MinManaged" in any letter case: longer words and other cases count too.
// Null is not.
bool isModeMinManaged(const char* mode);

const tarn_rmf2v::RMClassSpec& managedNodeSpec();

}  // namespace orvrm
