// "Kor.MNNetworkInterface": one resource per IP address of a managed node.
// The class and resource attributes, their ids, types, properties and
// defaults, once.
#pragma once

#include "tarn_rmf2v/RMAttrSpec.h"

namespace orvrm {

enum NetworkInterfaceAttr : int {
    kNiResourceHandle = 0,
    kNiVariety = 1,
    kNiName = 2,
    kNiUniversalId = 3,
    kNiIPAddress = 4,
    kNiNodeIDs = 5,
};

enum NetworkInterfaceDynamic : int {
    kNiConfigChanged = 0,
    kNiStatus = 1,
};

// A status no report has given yet.
inline constexpr unsigned int kStatusUnknown = 127;

const tarn_rmf2v::RMClassSpec& networkInterfaceSpec();

}  // namespace orvrm
