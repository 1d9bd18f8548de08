// Defining and undefining node groups: every refusal of the define rules
// with its message, the wrong-type quirk, the ValidateNodes asymmetry, the
// cycle test, the refusal to undefine a group another one lists, the class
// attributes, and what a define or undefine publishes.
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

TEST_F(GroupTest, ARefusedDefineLeavesNoGroupAndSaysWhy) {
    node("n1");
    memberGroup("g1", {"n1"});
    memberGroup("loose", {"x"}, 0);
    clearPublished();
    struct Case {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        int error;
        const char* text;  // the start of the catalogue text, or null
    };
    const Case cases[] = {
        {"an id above 7", [] { return attrs(str(kNgName, "a"), u32(8, 1)); },
         tarn_rmf::RM_EINVALIDATTRID, nullptr},
        {"Name twice", [] { return attrs(str(kNgName, "a"), str(kNgName, "b")); }, 0x18004,
         "2655-002 Attribute Name appears in request more than once.\n"},
        {"ExpMemberList", [] { return attrs(str(kNgName, "a"), strs(kNgExpMemberList, {"n1"})); },
         0x10006, "2655-001 Attribute \"ExpMemberList\" cannot be specified when defining"},
        {"Variety", [] { return attrs(u32(kNgVariety, 1), str(kNgName, "a")); }, 0x10006,
         "2655-001 Attribute \"Variety\" cannot"},
        {"a name in use", [] { return attrs(str(kNgName, "g1")); }, 259,
         "2655-013 A node group with name g1 already exists.\n"},
        {"ValidateNodes 2", [] { return attrs(str(kNgName, "a"), u32(kNgValidateNodes, 2)); }, 260,
         "2655-014 ValidateNodes attribute value should be 1 or 0.\n"},
        {"a duplicate member",
         [] {
             return attrs(str(kNgName, "a"), strs(kNgMemberList, {"n1", "n1"}));
         },
         261, "2655-015  Duplicate member names in list.\n"},
        {"a selection the node table refuses",
         [] { return attrs(str(kNgName, "a"), str(kNgSelectStr, "Hostname ==")); }, 262,
         "2655-016  The select string specified for the node group could not be validated."},
        {"a selection naming no node attribute",
         [] { return attrs(str(kNgName, "a"), str(kNgSelectStr, "Colour==\"red\"")); }, 262,
         "2655-016"},
        {"members and a selection",
         [] {
             return attrs(str(kNgName, "a"), strs(kNgMemberList, {"n1"}), str(kNgSelectStr, "*"));
         },
         0x18000,
         "2655-017  Both MemberList and SelectStr attributes cannot be specified for the same "
         "node group.\n"},
        {"an unknown node, validated",
         [] {
             return attrs(str(kNgName, "a"), u32(kNgValidateNodes, 1), strs(kNgMemberList, {"zz"}));
         },
         261,
         "2655-022  The member name zz specified as part of the MemberList is not a valid "
         "node.\n"},
        {"an unknown group",
         [] { return attrs(str(kNgName, "a"), strs(kNgMemberList, {"+nope"})); }, 261,
         "2655-056  The member name nope specified as part of the MemberList is not a valid node "
         "group.\n"},
        {"itself, not yet a group",
         [] { return attrs(str(kNgName, "a"), strs(kNgMemberList, {"+a"})); }, 261, "2655-056"},
        {"a group that does not validate, into one that does",
         [] {
             return attrs(str(kNgName, "a"), u32(kNgValidateNodes, 1),
                          strs(kNgMemberList, {"+loose"}));
         },
         261,
         "2655-024  The ValidateNodes attribute is not set for node group loose, so it cannot be "
         "added"},
        {"a selection without validation",
         [] { return attrs(str(kNgName, "a"), u32(kNgValidateNodes, 0), str(kNgSelectStr, "*")); },
         0x18000,
         "2655-053 The SelectStr attribute can be specified for a node group only if the "
         "ValidateNodes attribute is set to 1.\n"},
        {"no Name", [] { return attrs(strs(kNgMemberList, {"n1"})); }, 0x18006,
         "2655-005 Attribute \"Name\" must be specified when defining a new resource.\n"},
        {"an empty Name", [] { return attrs(str(kNgName, "")); }, 0x18006, "2655-005"},
        {"an empty member", [] { return attrs(str(kNgName, "a"), strs(kNgMemberList, {""})); }, 261,
         "2655-022"},
    };
    for (const Case& c : cases) {
        RMReply r = defineGroup(c.values());
        EXPECT_FALSE(r.hasNewHandle) << c.what;
        EXPECT_EQ(errorId(r.error), c.error) << c.what << ": " << errorText(r.error);
        if (c.text != nullptr) {
            EXPECT_EQ(errorText(r.error).rfind(c.text, 0), 0u)
                << c.what << ": " << errorText(r.error);
        }
    }
    EXPECT_EQ(groupCount(), 2u) << "no refused define left a group";
    EXPECT_TRUE(published().empty()) << "nor published one";
}

TEST_F(GroupTest, AValueOfTheWrongTypeEndsTheWalkSilently) {
    node("n1");
    // MemberList given as a string: the walk stops there, the later
    // ValidateNodes of 7 is never looked at, and the group is defined.
    RMReply r =
        defineGroup(attrs(str(kNgName, "g"), str(kNgMemberList, "n1"), u32(kNgValidateNodes, 7)));
    ASSERT_TRUE(r.hasNewHandle) << errorText(r.error);
    EXPECT_EQ(memberList("g"), Names{});
    EXPECT_EQ(validateNodes("g"), 1u);
    EXPECT_EQ(expanded("g"), Names{});
}

TEST_F(GroupTest, WithoutValidateNodesNodeNamesGoUncheckedButGroupsDoNot) {
    memberGroup("inner", {"x"}, 0);
    RMReply r = defineGroup(attrs(str(kNgName, "g"), strs(kNgMemberList, {"ghost", "+inner"})));
    ASSERT_TRUE(r.hasNewHandle) << errorText(r.error);
    EXPECT_EQ(validateNodes("g"), 1u) << "the stored default";
    EXPECT_EQ(expanded("g"), (Names{"ghost", "x"}));
    r = defineGroup(attrs(str(kNgName, "h"), strs(kNgMemberList, {"ghost", "+nothing"})));
    EXPECT_EQ(errorText(r.error).rfind("2655-056", 0), 0u) << errorText(r.error);
}

TEST_F(GroupTest, SelectionGroupsValidateAndPickNodesAtOnce) {
    node("n1", "m1");
    node("n2", "m2");
    node("n3", "m1");
    selectionGroup("m1s", "HWModel==\"m1\"");
    selectionGroup("all", "*");
    ASSERT_TRUE(defineGroup(attrs(str(kNgName, "empty"))).hasNewHandle);
    EXPECT_EQ(validateNodes("m1s"), 1u);
    EXPECT_EQ(expanded("m1s"), (Names{"n1", "n3"}));
    EXPECT_EQ(expanded("all"), (Names{"n1", "n2", "n3"}));
    EXPECT_EQ(expanded("empty"), Names{});
    // Each define published its group (operation 2).
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0].op, DI_TABLE_UPDATE);
    EXPECT_EQ(p[0].groups[0].name, "m1s");
    EXPECT_EQ(p[0].groups[0].members, (Names{"n1", "n3"}));
}

TEST_F(GroupTest, ACycleIsRefusedAtAnyDepthNamingTheGroupThatWouldCloseIt) {
    memberGroup("a", {});
    memberGroup("b", {"+a"});
    memberGroup("c", {"+b"});
    for (const char* mode : {"indexed", "rescan"}) {
        groups()->setExpansion(std::string(mode) == "rescan" ? NodeGroupRccp::Expansion::Rescan
                                                             : NodeGroupRccp::Expansion::Indexed);
        RMReply r = addMembers("a", {"+c"});
        EXPECT_EQ(errorId(r.error), 261) << mode;
        EXPECT_EQ(errorText(r.error),
                  "2655-023  The node group c cannot be added as a  member of the node group "
                  "because it leads to cyclic dependency between the node groups.\n")
            << mode;
        r = set(kGroups, groupHandle("a"), attrs(strs(kNgMemberList, {"+a"})));
        ASSERT_EQ(r.items.size(), 1u);
        EXPECT_EQ(errorText(r.items[0].error).rfind("2655-023  The node group a ", 0), 0u)
            << mode << ": " << errorText(r.items[0].error);
    }
    EXPECT_EQ(memberList("a"), Names{});
}

TEST_F(GroupTest, CycleChecksAnswerTheSameBothWays) {
    // A chain g0 <- g1 <- ... <- g9 (each contains the one before).
    memberGroup("g0", {});
    for (int i = 1; i < 10; ++i) {
        std::string name = "g" + std::to_string(i);
        memberGroup(name.c_str(), {"+g" + std::to_string(i - 1)});
    }
    tarn_rmf2v::lockRccp guard(groups());
    for (auto e : {NodeGroupRccp::Expansion::Indexed, NodeGroupRccp::Expansion::Rescan}) {
        groups()->setExpansion(e);
        EXPECT_EQ(groups()->checkForCyclicDep("g0", "g9", nullptr), 1);
        EXPECT_EQ(groups()->checkForCyclicDep("g9", "g0", nullptr), 0);
        EXPECT_EQ(groups()->checkForCyclicDep("new", "g5", nullptr), 0);
        cu_error_t* err = nullptr;
        EXPECT_EQ(groups()->checkForCyclicDep("g0", "missing", &err), -1);
        EXPECT_EQ(errorText(zn::ErrorPtr(err)),
                  "2655-025  Unexpected Error in method checkForCyclicDep.\n");
    }
}

TEST_F(GroupTest, AListedGroupStaysAndEachHandleIsAnsweredAlone) {
    node("n1");
    zn_resource_handle inner = memberGroup("inner", {"n1"});
    zn_resource_handle outer = memberGroup("outer", {"+inner"});
    zn_resource_handle other = memberGroup("other", {});
    startMonitoring(kGroups, nullptr, {kNgResourceUndefined});
    out_.clear();
    clearPublished();
    zn_resource_handle unknown{};
    unknown.bytes[0] = 0x5a;
    RMReply r = undefine(kGroups, {inner, unknown, other});
    ASSERT_EQ(r.items.size(), 3u);
    EXPECT_EQ(errorId(r.items[0].error), 264);
    EXPECT_EQ(errorText(r.items[0].error),
              "2655-019  The node group cannot be removed because it is a member of another node "
              "group.\n");
    EXPECT_EQ(errorId(r.items[1].error), tarn_rmf::RM_EINVALIDHANDLE);
    EXPECT_EQ(errorId(r.items[2].error), 0);
    EXPECT_EQ(groupCount(), 2u);
    EXPECT_EQ(out_.undefinedBatches(), (std::vector<std::vector<zn_resource_handle>>{{other}}));
    size_t events = 0;
    for (const Notice& n : out_.notices()) {
        events += !n.hasHandle && n.values.size() == 1 && n.values[0].id == kNgResourceUndefined;
    }
    EXPECT_EQ(events, 1u);
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0].op, DI_TABLE_REMOVE);
    EXPECT_EQ(p[0].groups[0].name, "other");

    // Once the container is gone, the group may go.
    r = undefine(kGroups, {outer, inner});
    EXPECT_EQ(errorId(r.items[0].error), 0);
    EXPECT_EQ(errorId(r.items[1].error), 0) << errorText(r.items[1].error);
    EXPECT_EQ(groupCount(), 0u);
}

TEST_F(GroupTest, ClassAttributesAnswerPerId) {
    RMReply r = classOp(RMRequestOp::GetClassAttributeValues, kGroups, {0, 3, 0});
    ASSERT_NE(valueOf(r, 0), nullptr);
    EXPECT_EQ(valueOf(r, 0)->value.value().val_uint32, 1u);
    ASSERT_EQ(r.items.size(), 2u);
    EXPECT_EQ(errorId(r.items[0].error), tarn_rmf::RM_EINVALIDATTRID);
    EXPECT_EQ(errorId(r.items[1].error), 0x18004);
    r = classOp(RMRequestOp::SetClassAttributeValues, kGroups, {}, attrs(u32(0, 2), u32(1, 1)));
    ASSERT_EQ(r.items.size(), 2u);
    for (const RMReplyItem& item : r.items) {
        EXPECT_EQ(errorId(item.error), item.id == 0 ? 0 : tarn_rmf::RM_EINVALIDATTRID) << item.id;
    }
    r = classOp(RMRequestOp::GetClassAttributeValues, kGroups, {0});
    EXPECT_EQ(valueOf(r, 0)->value.value().val_uint32, 2u);
}

TEST_F(GroupTest, AGroupBelongsToThisServerAndComesBackAfterARestart) {
    node("n1", "m1");
    node("n2", "m2");
    zn_resource_handle h = memberGroup("g", {"n1"});
    selectionGroup("s", "HWModel==\"m2\"");
    RMReply r = get(kGroups, h, {kNgVariety, kNgNodeIDs});
    EXPECT_EQ(valueOf(r, kNgVariety)->value.value().val_uint32, 1u);
    const zn_array* ids = valueOf(r, kNgNodeIDs)->value.value().ptr_array;
    ASSERT_EQ(ids->array_cnt, 1u);
    EXPECT_EQ(ids->elements[0].val_uint64, rmcp().getNodeId());

    clearPublished();
    restart();
    EXPECT_EQ(expanded("g"), Names{"n1"});
    EXPECT_EQ(expanded("s"), Names{"n2"});
    // The whole table is published at start (operation 1 after emptying it).
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0].op, DI_TABLE_ADD);
    EXPECT_TRUE(p[0].clearGroups);
    ASSERT_EQ(p[0].groups.size(), 2u);
    EXPECT_EQ(p[0].groups[1].name, "s");
    EXPECT_EQ(p[0].groups[1].members, Names{"n2"});
}

}  // namespace
}  // namespace classtest
