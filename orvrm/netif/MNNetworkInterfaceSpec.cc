#include "orvrm/netif/MNNetworkInterfaceSpec.h"

#include "orvrm/ClassList.h"

namespace orvrm {
namespace {

using namespace tarn_rmf2v;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

constexpr uint32_t kKept = RM_PROP_NOT_AT_DEFINE | RM_PROP_SELECTABLE | RM_PROP_READ_ONLY;  // 0x32

const RMAttrSpec kClassAttrs[] = {
    {0, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
};

const RMAttrSpec kClassEvents[] = {
    {0, "ResourceDefined", ZN_UINT32, 0, rmNoDefault()},
    {1, "ResourceUndefined", ZN_UINT32, 0, rmNoDefault()},
    {2, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
};

const RMAttrSpec kResourceAttrs[] = {
    {kNiResourceHandle, "ResourceHandle", ZN_RSRC_HANDLE_PTR, kKept, rmNoDefault()},
    {kNiVariety, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
    {kNiName, "Name", ZN_CHAR_PTR, RM_PROP_CONFIG | RM_PROP_SELECTABLE | RM_PROP_REQUIRED,
     rmStrDefault("")},
    {kNiUniversalId, "UniversalId", ZN_UINT64, RM_PROP_SELECTABLE | RM_PROP_OPTIONAL,
     rmNoDefault()},
    {kNiIPAddress, "IPAddress", ZN_CHAR_PTR, RM_PROP_CONFIG | RM_PROP_SELECTABLE | RM_PROP_REQUIRED,
     rmStrDefault("")},
    {kNiNodeIDs, "NodeIDs", ZN_UINT64_ARRAY, RM_PROP_SELECTABLE | RM_PROP_OPTIONAL | RM_PROP_READ_ONLY,
     rmNoDefault()},
};

const RMAttrSpec kDynamic[] = {
    {kNiConfigChanged, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
    {kNiStatus, "Status", ZN_UINT32, 0, rmNoDefault()},
};

}  // namespace

const RMClassSpec& networkInterfaceSpec() {
    static const RMClassSpec spec{
        .name = kNetworkInterfaceClass,
        .classTable = "/Kor/MNNetworkInterface/Class",
        .resourceTable = "/Kor/MNNetworkInterface/Resources",
        .classPersistent = kClassAttrs,
        .classDynamic = kClassEvents,
        .persistent = kResourceAttrs,
        .dynamic = kDynamic,
    };
    return spec;
}

}  // namespace orvrm
