// A group table that refuses a write or a sync: what was written is what the
// class knows, what was refused changed nothing, and a group whose expanded
// list could not be written gets it from the next recomputation.
#include <atomic>

#include "tarn_rmf/registry/RMStoreFault.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

using Expansion = NodeGroupRccp::Expansion;
using tarn_rmf::RMScopedStoreFault;
using tarn_rmf::RMStoreStep;

constexpr char kGroupTable[] = "/Kor/NodeGroup/Resources";

class GroupStoreFailureTest : public GroupTest, public ::testing::WithParamInterface<Expansion> {
protected:
    void SetUp() override {
        GroupTest::SetUp();
        groups()->setExpansion(GetParam());
    }
    // Refuses every `step` of the group table.
    static RMScopedStoreFault refuse(RMStoreStep refused) {
        return RMScopedStoreFault([refused](const std::string& path, RMStoreStep step) {
            return path == kGroupTable && step == refused;
        });
    }
    // Whether the class knows a group of this name.
    bool known(const char* name) {
        tarn_rmf2v::lockRccp guard(groups());
        return groups()->model().find(name) != nullptr;
    }
};

TEST_P(GroupStoreFailureTest, ADefineWhoseSyncFailsStillMakesAWholeGroup) {
    node("n1");
    {
        RMScopedStoreFault fault = refuse(RMStoreStep::kSync);
        memberGroup("g", {"n1"});
    }
    EXPECT_TRUE(known("g"));
    EXPECT_EQ(expanded("g"), Names{"n1"});
    RMReply again = defineGroup(attrs(str(kNgName, "g")));
    EXPECT_EQ(errorId(again.error), 259) << "the name is taken";
    EXPECT_EQ(errorId(addMembers("g", {"+g"}).error), 261);
    memberGroup("outer", {"+g"});
    EXPECT_EQ(expanded("outer"), Names{"n1"});
}

TEST_P(GroupStoreFailureTest, AnExpandedListThatCouldNotBeWrittenAtDefineIsWrittenLater) {
    node("n1");
    {
        // The row is written; the expanded list after it is refused.
        std::atomic<int> writes{0};
        RMScopedStoreFault fault([&](const std::string& path, RMStoreStep step) {
            return path == kGroupTable && step == RMStoreStep::kWrite && ++writes > 1;
        });
        RMReply r = defineGroup(attrs(str(kNgName, "s"), str(kNgSelectStr, "*")));
        ASSERT_TRUE(r.hasNewHandle) << errorText(r.error);
    }
    EXPECT_EQ(expanded("s"), Names{});
    groups()->updateExpMemListAllWithLock();
    EXPECT_EQ(expanded("s"), Names{"n1"});
}

TEST_P(GroupStoreFailureTest, AChangeWhoseSyncFailsStandsAndIsFollowed) {
    node("n1");
    node("n2");
    zn_resource_handle g = memberGroup("g", {"n1"});
    memberGroup("outer", {"+g"});
    RMScopedStoreFault fault = refuse(RMStoreStep::kSync);
    RMReply r = set(kGroups, g, attrs(strs(kNgMemberList, {"n2"})));
    ASSERT_EQ(r.items.size(), 1u);
    EXPECT_EQ(errorId(r.items[0].error), 0) << "the change was written";
    EXPECT_EQ(memberList("g"), Names{"n2"});
    EXPECT_EQ(expanded("g"), Names{"n2"});
    EXPECT_EQ(expanded("outer"), Names{"n2"});
    // A new name is the group's name from now on.
    r = set(kGroups, groupHandle("outer"), attrs(str(kNgName, "top")));
    EXPECT_EQ(errorId(r.items[0].error), 0);
    EXPECT_TRUE(known("top"));
    EXPECT_FALSE(known("outer"));
}

TEST_P(GroupStoreFailureTest, AChangeThatCannotBeWrittenChangesNothing) {
    node("n1");
    node("n2");
    zn_resource_handle g = memberGroup("g", {"n1"});
    memberGroup("outer", {"+g"});
    {
        RMScopedStoreFault fault = refuse(RMStoreStep::kWrite);
        std::vector<RMReply> replies;
        replies.push_back(set(kGroups, g, attrs(strs(kNgMemberList, {"n2"}))));
        replies.push_back(set(kGroups, groupHandle("outer"),
                              attrs(str(kNgName, "top"), strs(kNgMemberList, {"n2", "+g"}))));
        for (const RMReply& r : replies) {
            ASSERT_FALSE(r.items.empty());
            for (const RMReplyItem& i : r.items) {
                EXPECT_NE(errorText(i.error).find("the store refused it"), std::string::npos)
                    << errorText(i.error);
            }
        }
    }
    EXPECT_TRUE(known("outer"));
    EXPECT_FALSE(known("top"));
    EXPECT_EQ(memberList("g"), Names{"n1"});
    EXPECT_EQ(expanded("outer"), Names{"n1"});
    groups()->updateExpMemListAllWithLock();
    EXPECT_EQ(expanded("outer"), Names{"n1"});
}

INSTANTIATE_TEST_SUITE_P(BothWays, GroupStoreFailureTest,
                         ::testing::Values(Expansion::Indexed, Expansion::Rescan),
                         [](const ::testing::TestParamInfo<Expansion>& i) {
                             return i.param == Expansion::Indexed ? "Indexed" : "Rescan";
                         });

}  // namespace
}  // namespace classtest
