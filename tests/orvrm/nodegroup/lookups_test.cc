// What a group answers about itself and the lookups the class offers over
// its groups' stored lists, in both recomputation modes.
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

using Expansion = NodeGroupRccp::Expansion;

class GroupLookupTest : public GroupTest, public ::testing::WithParamInterface<Expansion> {
protected:
    void SetUp() override {
        GroupTest::SetUp();
        groups()->setExpansion(GetParam());
    }
    NodeGroupRcp* rcp(const char* name) {
        GroupRecord* g = groups()->model().find(name);
        return g != nullptr ? groups()->rcpOf(*g) : nullptr;
    }
};

TEST_P(GroupLookupTest, AGroupAnswersWhatItIs) {
    node("n1", "m1");
    node("n2", "m2");
    memberGroup("plain", {"n2", "n1"});
    memberGroup("loose", {"zz"}, 0);
    selectionGroup("sel", "HWModel==\"m1\"");
    memberGroup("outer", {"n2", "+sel", "+loose"}, 0);
    memberGroup("empty", {});
    // A node change the selection has not caught up with yet.
    set(kNodes, nodeHandle("n2"), attrs(str(kMnHWModel, "m1")));

    tarn_rmf2v::lockRccp guard(groups());
    struct Case {
        const char* group;
        int containsNG, memList, selectStr, validate;
        Names stored, live;
    };
    const Case cases[] = {
        {"plain", 0, 1, 0, 1, {"n2", "n1"}, {"n2", "n1"}},
        {"loose", 0, 1, 0, 0, {"zz"}, {"zz"}},
        {"sel", 0, 0, 1, 1, {"n1"}, {"n1", "n2"}},
        {"outer", 1, 1, 0, 0, {"n2", "n1", "zz"}, {"n2", "n1", "zz"}},
        {"empty", 0, 0, 0, 1, {}, {}},
    };
    for (const Case& c : cases) {
        NodeGroupRcp* r = rcp(c.group);
        ASSERT_NE(r, nullptr) << c.group;
        EXPECT_EQ(r->containsNG(), c.containsNG) << c.group;
        EXPECT_EQ(r->isMemListAttrSet(nullptr), c.memList) << c.group;
        EXPECT_EQ(r->isSelectStrAttrSet(nullptr), c.selectStr) << c.group;
        EXPECT_EQ(r->isValidateMembersSet(nullptr), c.validate) << c.group;
        const NameList* stored = groups()->getExpMemList(c.group);
        ASSERT_NE(stored, nullptr) << c.group;
        EXPECT_EQ(*stored, c.stored) << c.group;
        // A contained selection group gives its stored list, live or not.
        EXPECT_EQ(r->retExpandedMemberList(false), std::optional<NameList>(c.stored)) << c.group;
        EXPECT_EQ(r->retExpandedMemberList(true), std::optional<NameList>(c.live)) << c.group;
    }
    EXPECT_EQ(groups()->getExpMemList("nobody"), nullptr);
}

TEST_P(GroupLookupTest, AGroupThatIsGoneOrCannotExpandSaysSo) {
    node("n1");
    memberGroup("inner", {"n1"});
    zn_resource_handle outer = memberGroup("outer", {"+inner"});
    {
        // A contained group lost from the registry, as an older system
        // could leave it.
        tarn_rmf2v::lockRccp guard(groups());
        zn::OwnedValue list = stringArray({"+gone"});
        tarn_rmf::RMFieldValue f{"MemberList", -1, ZN_CHAR_PTR_ARRAY, list.value()};
        groups()->resourceTable()->changeRow(groups()->model().find(outer)->row, &f, 1);
    }
    restart();
    tarn_rmf2v::lockRccp guard(groups());
    NodeGroupRcp* r = rcp("outer");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->retExpandedMemberList(false), std::nullopt);
    EXPECT_EQ(r->retExpandedMemberList(true), std::nullopt);

    // A control point whose group left the mirror.
    groups()->model().remove(*r->getResourceHandle());
    cu_error_t* err = nullptr;
    EXPECT_EQ(r->isMemListAttrSet(&err), -1);
    EXPECT_EQ(errorText(zn::ErrorPtr(err))
                  .rfind("2655-025  Unexpected Error in method isMemListAttrSet", 0),
              0u);
    for (auto ask : {&NodeGroupRcp::isSelectStrAttrSet, &NodeGroupRcp::isValidateMembersSet}) {
        err = nullptr;
        EXPECT_EQ((r->*ask)(&err), -1);
        EXPECT_EQ(errorId(zn::ErrorPtr(err)), 265);
    }
    EXPECT_EQ(r->containsNG(), 0);
    EXPECT_EQ(r->retExpandedMemberList(false), std::nullopt);
}

TEST(GroupListsTest, StringsAreFoundAndHandedOutUncopied) {
    const NameList list{"a", "", "+b"};
    struct Case {
        const char* s;
        int found;
    };
    for (const Case& c : {Case{"a", 1}, Case{"", 1}, Case{"+b", 1}, Case{"b", 0}, Case{"A", 0}}) {
        EXPECT_EQ(NodeGroupRcp::strInList(c.s, list), c.found) << c.s;
    }
    EXPECT_EQ(NodeGroupRcp::strInList("a", {}), 0);
    std::vector<char*> p = NodeGroupRccp::getNodeList(list);
    ASSERT_EQ(p.size(), list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(p[i], list[i].c_str()) << i;
    }
    EXPECT_TRUE(NodeGroupRccp::getNodeList({}).empty());
}

INSTANTIATE_TEST_SUITE_P(BothWays, GroupLookupTest,
                         ::testing::Values(Expansion::Indexed, Expansion::Rescan),
                         [](const ::testing::TestParamInfo<Expansion>& i) {
                             return i.param == Expansion::Indexed ? "Indexed" : "Rescan";
                         });

}  // namespace
}  // namespace classtest
