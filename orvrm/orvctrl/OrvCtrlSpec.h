// "Kor.OrvCtrl", the domain control class: its one resource holds the
// management domain's settings. The class and resource attributes, their
// ids, types, properties and defaults, once.
#pragma once

#include "tarn_rmf2v/RMAttrSpec.h"

namespace orvrm {

// Resource attribute ids.
enum OrvCtrlAttr : int {
    kOcResourceHandle = 0,
    kOcVariety = 1,
    kOcNodeIDs = 2,
    kOcAddUnrecognizedNodes = 3,
    kOcRemoteShell = 5,
    kOcClusterTM = 6,
    kOcClusterSNum = 7,
    kOcSetupRemoteShell = 8,
    kOcRegSyncDelay = 10,
    kOcMigrationInfo = 11,
    kOcFrequency = 12,
    kOcSensitivity = 13,
    kOcPowerStatusMode = 14,
    kOcHAMode = 15,
    kOcSetupKRB5 = 16,
    kOcRemoteCopyCmd = 17,
    kOcDeviceStatusFrequency = 18,
    kOcDeviceStatusSensitivity = 19,
};

// The machine type-model a domain has until the administrator sets its own.
inline constexpr char kDefaultClusterTM[] = "0000-000";

const tarn_rmf2v::RMClassSpec& orvCtrlSpec();

}  // namespace orvrm
