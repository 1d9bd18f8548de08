#include "orvrm/nodegroup/NodeGroupSpec.h"

#include "orvrm/ClassList.h"

namespace orvrm {
namespace {

using namespace tarn_rmf2v;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

// The property words as the group table stores them.
constexpr uint32_t k0x32 = RM_PROP_READ_ONLY | RM_PROP_NOT_AT_DEFINE | RM_PROP_SELECTABLE;
constexpr uint32_t k0x07 = RM_PROP_REQUIRED | RM_PROP_SELECTABLE | RM_PROP_CONFIG;
constexpr uint32_t k0x2B =
    RM_PROP_READ_ONLY | RM_PROP_OPTIONAL | RM_PROP_SELECTABLE | RM_PROP_CONFIG;
constexpr uint32_t k0x0B = RM_PROP_OPTIONAL | RM_PROP_SELECTABLE | RM_PROP_CONFIG;
constexpr uint32_t k0x31 = RM_PROP_READ_ONLY | RM_PROP_NOT_AT_DEFINE | RM_PROP_CONFIG;
constexpr uint32_t k0x2A = RM_PROP_READ_ONLY | RM_PROP_OPTIONAL | RM_PROP_SELECTABLE;

// The class's one persistent attribute may be set (its only valid id).
const RMAttrSpec kClassAttrs[] = {
    {0, "Variety", ZN_UINT32, RM_PROP_NOT_AT_DEFINE | RM_PROP_SELECTABLE, rmUintDefault(1)},
};

const RMAttrSpec kClassEvents[] = {
    {kNgResourceDefined, "ResourceDefined", ZN_UINT32, 0, rmNoDefault()},
    {kNgResourceUndefined, "ResourceUndefined", ZN_UINT32, 0, rmNoDefault()},
    {kNgClassConfigChanged, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
};

const RMAttrSpec kResourceAttrs[] = {
    {kNgResourceHandle, "ResourceHandle", ZN_RSRC_HANDLE_PTR, k0x32, rmNoDefault()},
    {kNgVariety, "Variety", ZN_UINT32, k0x32, rmUintDefault(1)},
    {kNgName, "Name", ZN_CHAR_PTR, k0x07, rmStrDefault("")},
    {kNgValidateNodes, "ValidateNodes", ZN_UINT32, k0x2B, rmUintDefault(1)},
    {kNgMemberList, "MemberList", ZN_CHAR_PTR_ARRAY, k0x0B, rmNoDefault()},
    {kNgSelectStr, "SelectStr", ZN_CHAR_PTR, k0x0B, rmStrDefault("")},
    {kNgExpMemberList, "ExpMemberList", ZN_CHAR_PTR_ARRAY, k0x31, rmNoDefault()},
    {kNgNodeIDs, "NodeIDs", ZN_UINT64_ARRAY, k0x2A, rmNoDefault()},
};

const RMAttrSpec kDynamic[] = {
    {kNgConfigChanged, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()},
    {kNgMembershipChanged, "MembershipChanged", ZN_SD_PTR, 0, rmNoDefault()},
};

}  // namespace

const RMClassSpec& nodeGroupSpec() {
    static const RMClassSpec spec{
        .name = kNodeGroupClass,
        .classTable = "/Kor/NodeGroup/Class",
        .resourceTable = "/Kor/NodeGroup/Resources",
        .classPersistent = kClassAttrs,
        .classDynamic = kClassEvents,
        .persistent = kResourceAttrs,
        .dynamic = kDynamic,
        .classActions = {{kNgGroupsOfNode, "GroupsOfNode", {ZN_CHAR_PTR}}},
        .actions =
            {
                {kNgGetMembers, "GetMembers", {}},
                {kNgAddMembers, "AddMembers", {ZN_CHAR_PTR_ARRAY}},
                {kNgRemMembers, "RemMembers", {ZN_CHAR_PTR_ARRAY}},
            },
    };
    return spec;
}

}  // namespace orvrm
