// "Kor.NodeGroup": named groups of managed nodes, given by a member list
// (host names, and other groups written "+name") or by a selection string
// over the managed nodes. The class and resource attributes, the dynamic
// attributes and the actions, stated once.
#pragma once

#include "tarn_rmf2v/RMAttrSpec.h"

namespace orvrm {

// Resource attribute ids: the column positions of the resource table.
enum NodeGroupAttr : int {
    kNgResourceHandle = 0,
    kNgVariety = 1,
    kNgName = 2,
    kNgValidateNodes = 3,
    kNgMemberList = 4,
    kNgSelectStr = 5,
    kNgExpMemberList = 6,
    kNgNodeIDs = 7,
};
inline constexpr int kNgLastAttr = kNgNodeIDs;

// Dynamic resource attribute ids.
enum NodeGroupDynamic : int {
    kNgConfigChanged = 0,
    kNgMembershipChanged = 1,
};

// Fields of MembershipChanged, in order.
enum NodeGroupMembershipField : int {
    kNgAddCount = 0,
    kNgDelCount = 1,
    kNgAddList = 2,
    kNgDelList = 3,
    kNgCurrentList = 4,
};

// Dynamic class attribute ids (events without a value).
enum NodeGroupClassEvent : int {
    kNgResourceDefined = 0,
    kNgResourceUndefined = 1,
    kNgClassConfigChanged = 2,
};

// Resource actions, each with one string-array field "Members".
enum NodeGroupAction : int {
    kNgGetMembers = 0,
    kNgAddMembers = 1,
    kNgRemMembers = 2,
};

// Class action: which groups hold a node. Input one string (the host
// name); output one string-array field, the names of the groups whose
// expanded member list holds it, in name order.
inline constexpr int kNgGroupsOfNode = 0;

// A member-list entry that names another group: "+" followed by its name.
inline constexpr char kNgGroupPrefix = '+';

const tarn_rmf2v::RMClassSpec& nodeGroupSpec();

}  // namespace orvrm
