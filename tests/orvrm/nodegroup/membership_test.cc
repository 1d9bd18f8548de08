// Expanded member lists as nodes come, change names and go: nested groups
// in breadth-first order, selections following their nodes a second after
// the last change, renames rewriting every validating group with members,
// removals only the groups that held the node, groups that do not validate
// keeping their entries, and the reports and publications each change makes.
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

TEST_F(GroupTest, NestedGroupsExpandBreadthFirstEachNameOnce) {
    memberGroup("b", {"n1", "n4"}, 0);
    memberGroup("a", {"n3", "+b"}, 0);
    memberGroup("g", {"n1", "+a", "n2"}, 0);
    EXPECT_EQ(expanded("g"), (Names{"n1", "n2", "n3", "n4"}));
}

TEST_F(GroupTest, SelectionGroupsFollowTheirNodesASecondAfterTheLastChange) {
    node("n1", "m1");
    node("n2", "m2");
    selectionGroup("s", "HWModel==\"m1\"");
    memberGroup("outer", {"n2", "+s"});
    watch({"s", "outer"});
    clearPublished();
    node("n3", "m1");
    set(kNodes, nodeHandle("n2"), attrs(str(kMnHWModel, "m1")));
    set(kNodes, nodeHandle("n1"), attrs(str(kMnHWModel, "m9")));
    EXPECT_EQ(expanded("s"), Names{"n1"}) << "nothing moves before the delay";
    uint64_t runs = groups()->schedule().completed();
    runDelayed();
    EXPECT_EQ(groups()->schedule().completed(), runs + 1) << "one recomputation for the burst";
    EXPECT_EQ(expanded("s"), (Names{"n2", "n3"})) << "in table order";
    EXPECT_EQ(expanded("outer"), (Names{"n2", "n3"}));
    std::vector<Membership> m = memberships("s");
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].added, 2);
    EXPECT_EQ(m[0].removed, 1);
    EXPECT_EQ(m[0].addList, (Names{"n2", "n3"}));
    EXPECT_EQ(m[0].delList, Names{"n1"});
    EXPECT_EQ(m[0].current, (Names{"n2", "n3"}));
    // The stored list announced, ConfigChanged, then MembershipChanged.
    EXPECT_EQ(reportIds("s"), (std::vector<int>{106, kNgConfigChanged, kNgMembershipChanged}));
    std::vector<Membership> o = memberships("outer");
    ASSERT_EQ(o.size(), 1u);
    EXPECT_EQ(o[0].addList, Names{"n3"});
    EXPECT_EQ(o[0].delList, Names{"n1"});
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p[0].op, DI_TABLE_UPDATE);
    EXPECT_EQ(p[0].groups[0].name, "s");
    EXPECT_EQ(p[1].groups[0].name, "outer");
    EXPECT_EQ(p[1].groups[0].members, (Names{"n2", "n3"}));

    // Nothing changed since: the next run writes and reports nothing.
    out_.clear();
    groups()->scheduleUpdateExpMemList();
    runDelayed();
    EXPECT_TRUE(reportIds("s").empty());
    EXPECT_TRUE(reportIds("outer").empty());
}

TEST_F(GroupTest, ANodeRenameRewritesEveryValidatingGroupWithMembers) {
    node("n1");
    node("n2");
    memberGroup("early", {});
    memberGroup("holds", {"n1", "n2"});
    memberGroup("other", {"n2"});
    memberGroup("loose", {"n1"}, 0);
    memberGroup("outer", {"+holds"}, 0);
    // Before "holds" in table order, so rewritten before it.
    ASSERT_EQ(errorId(addMembers("early", {"+holds"}).error), 0);
    watch({"early", "holds", "other", "loose", "outer"});
    ASSERT_EQ(errorId(set(kNodes, nodeHandle("n1"), attrs(str(kMnHostname, "r1"))).items[0].error),
              0);
    EXPECT_EQ(memberList("holds"), (Names{"r1", "n2"}));
    EXPECT_EQ(expanded("holds"), (Names{"r1", "n2"}));
    EXPECT_EQ(memberList("loose"), Names{"n1"}) << "a group that does not validate keeps it";
    // Rewritten and announced although it did not hold the node; its list
    // did not move, so no MembershipChanged.
    EXPECT_EQ(reportIds("other"), (std::vector<int>{104, kNgConfigChanged}));
    EXPECT_EQ(reportIds("holds"),
              (std::vector<int>{104, 106, kNgMembershipChanged, kNgConfigChanged}));
    EXPECT_TRUE(reportIds("loose").empty());
    EXPECT_TRUE(reportIds("outer").empty());
    for (const char* g : {"early", "outer"}) {
        EXPECT_EQ(expanded(g), (Names{"n1", "n2"})) << g << " catches up a second later";
    }
    runDelayed();
    for (const char* g : {"early", "outer"}) {
        EXPECT_EQ(expanded(g), (Names{"r1", "n2"})) << g;
        std::vector<Membership> m = memberships(g);
        ASSERT_EQ(m.size(), 1u) << g;
        EXPECT_EQ(m[0].addList, Names{"r1"});
        EXPECT_EQ(m[0].delList, Names{"n1"});
    }
}

TEST_F(GroupTest, ANodeRemovalRewritesOnlyTheGroupsThatHeldIt) {
    node("n1");
    node("n2");
    memberGroup("holds", {"n1", "n2"});
    memberGroup("other", {"n2"});
    memberGroup("loose", {"n1"}, 0);
    selectionGroup("all", "*");
    watch({"holds", "other", "loose", "all"});
    RMReply r = undefine(kNodes, {nodeHandle("n1")});
    ASSERT_EQ(errorId(r.items[0].error), 0);
    EXPECT_EQ(memberList("holds"), Names{"n2"});
    EXPECT_EQ(expanded("holds"), Names{"n2"});
    EXPECT_TRUE(reportIds("other").empty());
    EXPECT_EQ(memberList("loose"), Names{"n1"});
    EXPECT_EQ(expanded("all"), (Names{"n1", "n2"}));
    runDelayed();
    EXPECT_EQ(expanded("all"), Names{"n2"});
    EXPECT_EQ(memberships("all").size(), 1u);
}

TEST_F(GroupTest, EveryLevelOfNestingCatchesUpInOneRecomputation) {
    node("n1", "m1");
    selectionGroup("leaf", "HWModel==\"m1\"");
    // Defined deepest last, so table order is the reverse of dependency order.
    memberGroup("top", {});
    memberGroup("mid", {"+leaf"});
    memberGroup("low", {"+mid"});
    ASSERT_EQ(errorId(addMembers("top", {"+low"}).error), 0);
    watch({"top", "mid", "low"});
    node("n2", "m1");
    runDelayed();
    for (const char* g : {"mid", "low", "top"}) {
        EXPECT_EQ(expanded(g), (Names{"n1", "n2"})) << g;
        ASSERT_EQ(memberships(g).size(), 1u) << g;
        EXPECT_EQ(memberships(g)[0].addList, Names{"n2"}) << g;
    }
}

TEST_F(GroupTest, AnExpansionThatFailsWritesAndReportsNothing) {
    node("n1");
    memberGroup("inner", {"n1"});
    zn_resource_handle outer = memberGroup("outer", {"n1", "+inner"});
    // A registry that lost a contained group (as an older system could leave it).
    {
        tarn_rmf2v::lockRccp guard(groups());
        zn::OwnedValue list = stringArray({"n1", "+gone"});
        tarn_rmf::RMFieldValue f{"MemberList", -1, ZN_CHAR_PTR_ARRAY, list.value()};
        groups()->resourceTable()->changeRow(groups()->model().find(outer)->row, &f, 1);
    }
    restart();
    watch({"outer"});
    EXPECT_EQ(expanded("outer"), Names{"n1"});
    node("n2");
    set(kNodes, nodeHandle("n1"), attrs(str(kMnHostname, "r1")));
    runDelayed();
    EXPECT_EQ(expanded("outer"), Names{"n1"}) << "nothing written";
    EXPECT_EQ(memberships("outer").size(), 0u);
}

TEST_F(GroupTest, ACycleLeftInTheRegistryExpandsToTheUnionAndStops) {
    memberGroup("b", {"n2"}, 0);
    memberGroup("a", {"n1", "+b"}, 0);
    zn_resource_handle b = groupHandle("b");
    {
        tarn_rmf2v::lockRccp guard(groups());
        zn::OwnedValue list = stringArray({"n2", "+a"});
        tarn_rmf::RMFieldValue f{"MemberList", -1, ZN_CHAR_PTR_ARRAY, list.value()};
        groups()->resourceTable()->changeRow(groups()->model().find(b)->row, &f, 1);
    }
    restart();
    EXPECT_EQ(expanded("a"), (Names{"n1", "n2"}));
    EXPECT_EQ(expanded("b"), (Names{"n2", "n1"})) << "now containing, so recomputed at start";
    memberGroup("g", {"+a", "n3"}, 0);
    EXPECT_EQ(expanded("g"), (Names{"n3", "n1", "n2"}));
}

TEST_F(GroupTest, MembersAreReadAddedAndRemovedByAction) {
    node("n1");
    node("n2");
    node("n3");
    zn_resource_handle g = memberGroup("g", {"n1"});
    memberGroup("outer", {"+g"});
    selectionGroup("s", "*");
    watch({"g", "outer"});
    struct Case {
        const char* what;
        std::function<RMReply()> run;
        int error;
        const char* text;
    };
    const Case refused[] = {
        {"no input", [&] { return action(g, kNgAddMembers, nullptr); }, 266,
         "2655-028  Incorrect number of fields in input to action AddMembers.\n"},
        {"no input to RemMembers", [&] { return action(g, kNgRemMembers, nullptr); }, 266,
         "2655-028  Incorrect number of fields in input to action RemoveMembers.\n"},
        {"a string, not a list",
         [&] {
             RMRequest r;
             r.op = RMRequestOp::InvokeAction;
             r.className = kGroups;
             r.handle = g;
             r.actionId = kNgAddMembers;
             r.input.reset(zn_sd_new(1));
             r.input->elements[0].data_type = ZN_CHAR_PTR;
             r.input->elements[0].value.ptr_char = strdup("n2");
             return dispatch(r);
         },
         266, "2655-029  Incorrect datatype for the elements in input to action AddMembers.\n"},
        {"twice in the input",
         [&] {
             return addMembers("g", {"n2", "n2"});
         },
         261, "2655-015  Duplicate member names in list.\n"},
        {"already a member",
         [&] {
             return addMembers("g", {"n2", "n1"});
         },
         261, "2655-030  At least one of the member names in input list already exists"},
        {"into a selection group", [&] { return addMembers("s", {"n2"}); }, 266,
         "2655-026  MemberList attribute cannot be specified for the node group because the "
         "SelectStr attribute is set.\n"},
        {"out of a selection group", [&] { return remMembers("s", {"n2"}); }, 266, "2655-026"},
        {"an unknown node", [&] { return addMembers("g", {"zz"}); }, 261, "2655-022"},
        {"action 3", [&] { return action(g, 3, nullptr); }, tarn_rmf::RM_ENOTSUPPORTED, nullptr},
    };
    for (const Case& c : refused) {
        RMReply r = c.run();
        EXPECT_EQ(errorId(r.error), c.error) << c.what << ": " << errorText(r.error);
        if (c.text != nullptr) {
            EXPECT_EQ(errorText(r.error).rfind(c.text, 0), 0u)
                << c.what << ": " << errorText(r.error);
        }
    }
    EXPECT_EQ(memberList("g"), Names{"n1"});
    EXPECT_TRUE(reportIds("g").empty()) << "a refused action reports nothing";

    ASSERT_EQ(errorId(addMembers("g", {"n3", "n2"}).error), 0);
    EXPECT_EQ(memberList("g"), (Names{"n1", "n3", "n2"}));
    EXPECT_EQ(returned(action(g, kNgGetMembers, nullptr)), (Names{"n1", "n3", "n2"}));
    EXPECT_EQ(expanded("outer"), (Names{"n1", "n3", "n2"})) << "its container follows at once";
    EXPECT_EQ(reportIds("g"), (std::vector<int>{104, 106, kNgMembershipChanged, kNgConfigChanged}));
    EXPECT_EQ(reportIds("outer"), (std::vector<int>{106, kNgConfigChanged, kNgMembershipChanged}));

    out_.clear();
    ASSERT_EQ(errorId(remMembers("g", {"n9", "n3"}).error), 0);
    EXPECT_EQ(memberList("g"), (Names{"n1", "n2"}));
    out_.clear();
    ASSERT_EQ(errorId(remMembers("g", {"n9"}).error), 0) << "not a member: ignored";
    EXPECT_EQ(memberList("g"), (Names{"n1", "n2"}));
    EXPECT_EQ(reportIds("g"), (std::vector<int>{104, kNgConfigChanged})) << "still reported";
    ASSERT_EQ(errorId(remMembers("g", {"n1", "n2"}).error), 0);
    EXPECT_EQ(returned(action(g, kNgGetMembers, nullptr)), Names{}) << "an empty answer";
}

TEST_F(GroupTest, AChangeFollowsTheDefineRules) {
    node("n1");
    node("n2", "m2");
    zn_resource_handle g = memberGroup("g", {"n1"});
    zn_resource_handle s = selectionGroup("s", "*");
    memberGroup("loose", {}, 0);
    memberGroup("outer", {"+g"});
    struct Case {
        const char* what;
        zn_resource_handle target;
        std::function<std::vector<RMReplyAttr>()> values;
        int error;
        const char* text;
    };
    const Case cases[] = {
        {"an id above 7", g, [] { return attrs(u32(8, 1)); }, tarn_rmf::RM_EINVALIDATTRID, nullptr},
        {"twice", g, [] { return attrs(strs(kNgMemberList, {"n1"}), strs(kNgMemberList, {"n2"})); },
         0x18004, "2655-002 Attribute MemberList appears in request more than once.\n"},
        {"ValidateNodes", g, [] { return attrs(u32(kNgValidateNodes, 0)); },
         tarn_rmf::RM_EREADONLYATTR, nullptr},
        {"ExpMemberList", g, [] { return attrs(strs(kNgExpMemberList, {"n1"})); },
         tarn_rmf::RM_EREADONLYATTR, nullptr},
        {"a wrong type", g, [] { return attrs(str(kNgMemberList, "n1")); }, tarn_rmf::RM_EDATATYPE,
         nullptr},
        {"a duplicate", g,
         [] {
             return attrs(strs(kNgMemberList, {"n1", "n1"}));
         },
         261, "2655-015"},
        {"an unknown node", g, [] { return attrs(strs(kNgMemberList, {"zz"})); }, 261, "2655-022"},
        {"a selection without validation", groupHandle("loose"),
         [] { return attrs(str(kNgSelectStr, "*")); }, 0x18000, "2655-053"},
        {"a refused selection", s, [] { return attrs(str(kNgSelectStr, "HWModel ==")); }, 262,
         "2655-016"},
        {"a name in use", g, [] { return attrs(str(kNgName, "s")); }, 259,
         "2655-013 A node group with name s already exists.\n"},
        {"a listed group's name", g, [] { return attrs(str(kNgName, "h")); }, 264, "2655-019"},
        {"members into a selection group", s, [] { return attrs(strs(kNgMemberList, {"n1"})); },
         0x18000,
         "2655-026  MemberList attribute cannot be specified for the node group because the "
         "SelectStr attribute is set.\n"},
        {"a selection onto a member group", g, [] { return attrs(str(kNgSelectStr, "*")); },
         0x18000,
         "2655-027  SelectStr attributes cannot be specified for the node group because the "
         "MemberList attribute is set.\n"},
    };
    for (const Case& c : cases) {
        RMReply r = set(kGroups, c.target, c.values());
        // The refused value's answer (a repeated one's first value passes).
        const RMReplyItem* refused = nullptr;
        for (const RMReplyItem& item : r.items) {
            refused = item.error ? &item : refused;
        }
        ASSERT_NE(refused, nullptr) << c.what;
        EXPECT_EQ(errorId(refused->error), c.error) << c.what << ": " << errorText(refused->error);
        if (c.text != nullptr) {
            EXPECT_EQ(errorText(refused->error).rfind(c.text, 0), 0u)
                << c.what << ": " << errorText(refused->error);
        }
    }
    // Both given and both refused together: 2655-017.
    memberGroup("plain", {}, 1);
    RMReply both = set(kGroups, groupHandle("plain"),
                       attrs(strs(kNgMemberList, {"n1"}), str(kNgSelectStr, "*")));
    ASSERT_EQ(both.items.size(), 2u);
    EXPECT_EQ(errorText(both.items[0].error).rfind("2655-017", 0), 0u);
    EXPECT_EQ(errorText(both.items[1].error).rfind("2655-017", 0), 0u);
    EXPECT_EQ(memberList("g"), Names{"n1"});
    EXPECT_EQ(expanded("s"), (Names{"n1", "n2"}));

    // Accepted changes: a selection moves at once, a new name is published.
    clearPublished();
    RMReply r = set(kGroups, s, attrs(str(kNgSelectStr, "HWModel==\"m2\""), str(kNgName, "s2")));
    EXPECT_EQ(errorId(r.items[0].error), 0);
    EXPECT_EQ(errorId(r.items[1].error), 0);
    EXPECT_EQ(expanded("s2"), Names{"n2"});
    // The new list under the new name, then the old name out and the new in.
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0].op, DI_TABLE_UPDATE);
    EXPECT_EQ(p[0].groups[0].name, "s2");
    EXPECT_EQ(p[1].op, DI_TABLE_REMOVE);
    EXPECT_EQ(p[1].groups[0].name, "s");
    EXPECT_EQ(p[2].op, DI_TABLE_UPDATE);
    EXPECT_EQ(p[2].groups[0].name, "s2");
    EXPECT_EQ(p[2].groups[0].members, Names{"n2"});
    // A member list change reaches the containers at once.
    ASSERT_EQ(errorId(set(kGroups, g, attrs(strs(kNgMemberList, {"n2"}))).items[0].error), 0);
    EXPECT_EQ(expanded("outer"), Names{"n2"});
}

TEST_F(GroupTest, WhichGroupsHoldANodeIsAnsweredByClassAction) {
    node("n1", "m1");
    node("n2", "m2");
    memberGroup("b", {"n1"});
    selectionGroup("a", "HWModel==\"m1\"");
    memberGroup("c", {"+a"});
    memberGroup("d", {"n2"});
    auto holding = [&](const char* host) {
        RMRequest r;
        r.op = RMRequestOp::InvokeClassAction;
        r.className = kGroups;
        r.actionId = kNgGroupsOfNode;
        r.input.reset(zn_sd_new(1));
        r.input->elements[0].data_type = ZN_CHAR_PTR;
        r.input->elements[0].value.ptr_char = strdup(host);
        return returned(dispatch(r));
    };
    EXPECT_EQ(holding("n1"), (Names{"a", "b", "c"}));
    EXPECT_EQ(holding("n2"), Names{"d"});
    EXPECT_EQ(holding("nobody"), Names{});
    set(kNodes, nodeHandle("n2"), attrs(str(kMnHWModel, "m1")));
    runDelayed();
    EXPECT_EQ(holding("n2"), (Names{"a", "c", "d"}));
    undefine(kGroups, {groupHandle("d")});
    EXPECT_EQ(holding("n2"), (Names{"a", "c"}));

    RMRequest bad;
    bad.op = RMRequestOp::InvokeClassAction;
    bad.className = kGroups;
    bad.actionId = kNgGroupsOfNode;
    EXPECT_EQ(errorText(dispatch(bad).error).rfind("2655-028", 0), 0u);
}

}  // namespace
}  // namespace classtest
