// Changing a group's definition (set): what its containers make of it, and
// what a step that fails after the write leaves, in both recomputation modes.
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

using Expansion = NodeGroupRccp::Expansion;

class GroupChangeTest : public GroupTest, public ::testing::WithParamInterface<Expansion> {
protected:
    void SetUp() override {
        GroupTest::SetUp();
        groups()->setExpansion(GetParam());
    }
};

// A contained group turns from members to a selection and back, one change
// at a time; its container follows each change at once and reports it.
TEST_P(GroupChangeTest, AContainerFollowsItsGroupBetweenMembersAndSelection) {
    node("n1", "m1");
    node("n2", "m2");
    zn_resource_handle inner = memberGroup("inner", {"n1"});
    memberGroup("outer", {"+inner"});
    struct Step {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        Names expanded;  // inner's and so outer's
        Names added, removed;
    };
    const Step steps[] = {
        {"members cleared", [] { return attrs(strs(kNgMemberList, {})); }, {}, {}, {"n1"}},
        {"a selection",
         [] { return attrs(str(kNgSelectStr, "HWModel==\"m2\"")); },
         {"n2"},
         {"n2"},
         {}},
        {"another selection",
         [] { return attrs(str(kNgSelectStr, "HWModel==\"m1\"")); },
         {"n1"},
         {"n1"},
         {"n2"}},
        {"the selection cleared", [] { return attrs(str(kNgSelectStr, "")); }, {}, {}, {"n1"}},
        {"members again", [] { return attrs(strs(kNgMemberList, {"n2"})); }, {"n2"}, {"n2"}, {}},
    };
    for (const Step& s : steps) {
        watch({"outer"});
        RMReply r = set(kGroups, inner, s.values());
        ASSERT_EQ(r.items.size(), 1u) << s.what;
        ASSERT_EQ(errorId(r.items[0].error), 0) << s.what << ": " << errorText(r.items[0].error);
        EXPECT_EQ(expanded("inner"), s.expanded) << s.what;
        EXPECT_EQ(expanded("outer"), s.expanded) << s.what;
        std::vector<Membership> m = memberships("outer");
        ASSERT_EQ(m.size(), 1u) << s.what;
        EXPECT_EQ(m[0].addList, s.added) << s.what;
        EXPECT_EQ(m[0].delList, s.removed) << s.what;
        EXPECT_EQ(m[0].current, s.expanded) << s.what;
    }
    // Nothing is left for a later recomputation to find.
    out_.clear();
    groups()->updateExpMemListAllWithLock();
    EXPECT_TRUE(reportIds("outer").empty());
}

// The change is written before it is announced: a notice the link cannot
// take does not undo it, nor keep it from its answer and what follows it.
TEST_P(GroupChangeTest, AChangeWhoseNoticeFailsIsAnsweredAndFollowed) {
    node("n1", "m1");
    node("n2", "m2");
    zn_resource_handle inner = memberGroup("inner", {"n1"});
    zn_resource_handle outer = memberGroup("outer", {"+inner"});
    zn_resource_handle sel = selectionGroup("sel", "HWModel==\"m1\"");
    watch({"inner", "outer", "sel"});
    clearPublished();
    out_.refusePersistentNotices(true);
    struct Step {
        const char* what;
        zn_resource_handle target;
        std::function<std::vector<RMReplyAttr>()> values;
    };
    const Step steps[] = {
        {"members", inner, [] { return attrs(strs(kNgMemberList, {"n2"})); }},
        {"a selection", sel, [] { return attrs(str(kNgSelectStr, "HWModel==\"m2\"")); }},
        {"a name", outer, [] { return attrs(str(kNgName, "top")); }},
    };
    for (const Step& s : steps) {
        RMReply r = set(kGroups, s.target, s.values());
        EXPECT_EQ(errorId(r.error), 0) << s.what << ": " << errorText(r.error);
        ASSERT_EQ(r.items.size(), 1u) << s.what;
        EXPECT_EQ(errorId(r.items[0].error), 0) << s.what << ": " << errorText(r.items[0].error);
    }
    out_.refusePersistentNotices(false);
    EXPECT_EQ(expanded("inner"), Names{"n2"});
    EXPECT_EQ(expanded("top"), Names{"n2"});
    EXPECT_EQ(expanded("sel"), Names{"n2"});
    std::vector<Published> p = published();
    ASSERT_FALSE(p.empty());
    EXPECT_EQ(p.back().op, DI_TABLE_UPDATE);
    EXPECT_EQ(p.back().groups[0].name, "top");
}

// A change is made whole or not at all: one refused value keeps the others
// from being written, and each is answered, the refused one with its own
// error and the others with the error that stopped the change.
TEST_P(GroupChangeTest, OneRefusedValueRefusesTheWholeChange) {
    node("n1");
    node("n2");
    zn_resource_handle g = memberGroup("g", {"n1"});
    memberGroup("taken", {});
    struct Case {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        std::vector<int> errors;  // per value, in request order
    };
    const Case cases[] = {
        {"a name in use after good members",
         [] { return attrs(strs(kNgMemberList, {"n2"}), str(kNgName, "taken")); },
         {259, 259}},
        {"an unknown node after a good name",
         [] { return attrs(str(kNgName, "free"), strs(kNgMemberList, {"zz"})); },
         {261, 261}},
        {"a read-only value between good ones",
         [] {
             return attrs(str(kNgName, "free"), strs(kNgExpMemberList, {"n2"}),
                          strs(kNgMemberList, {"n2"}));
         },
         {tarn_rmf::RM_EREADONLYATTR, tarn_rmf::RM_EREADONLYATTR, tarn_rmf::RM_EREADONLYATTR}},
        {"two refused, each its own",
         [] { return attrs(strs(kNgMemberList, {"zz"}), str(kNgName, "taken")); },
         {261, 259}},
    };
    watch({"g"});
    clearPublished();
    for (const Case& c : cases) {
        RMReply r = set(kGroups, g, c.values());
        std::vector<int> errors;
        for (const RMReplyItem& i : r.items) {
            errors.push_back(errorId(i.error));
        }
        EXPECT_EQ(errors, c.errors) << c.what;
        EXPECT_EQ(memberList("g"), Names{"n1"}) << c.what;
        EXPECT_EQ(expanded("g"), Names{"n1"}) << c.what;
        EXPECT_EQ(enumerate(kGroups, "Name==\"free\"").handles.size(), 0u) << c.what;
    }
    EXPECT_TRUE(reportIds("g").empty());
    EXPECT_TRUE(published().empty());
}

INSTANTIATE_TEST_SUITE_P(BothWays, GroupChangeTest,
                         ::testing::Values(Expansion::Indexed, Expansion::Rescan),
                         [](const ::testing::TestParamInfo<Expansion>& i) {
                             return i.param == Expansion::Indexed ? "Indexed" : "Rescan";
                         });

}  // namespace
}  // namespace classtest
