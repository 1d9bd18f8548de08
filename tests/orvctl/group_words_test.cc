// How orvctl reads a member list typed on the command line and sums up a
// group for its listing: kind, definition, validation and expanded nodes.
#include <gtest/gtest.h>

#include "orvctl/GroupWords.h"
#include "orvctl/Values.h"
#include "znpex/cli/ValueText.h"

namespace {

using orvctl::ResourceValues;
using Names = std::vector<std::string>;

TEST(GroupWords, MemberListsSplitAtCommasWithBlanksDropped) {
    const std::pair<const char*, Names> cases[] = {
        {"", {}},
        {"  ", {}},
        {"n1", {"n1"}},
        {"n1,n2,+rack", {"n1", "n2", "+rack"}},
        {" n1 , +rack\t", {"n1", "+rack"}},
        // Empty names stay, for the manager to refuse as no node.
        {"a,,b", {"a", "", "b"}},
        {"a,", {"a", ""}},
        {",", {"", ""}},
    };
    for (const auto& [text, names] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(orvctl::splitMembers(text), names);
    }
    EXPECT_EQ(orvctl::joinNames({"n1", "+rack"}), "n1,+rack");
    EXPECT_EQ(orvctl::joinNames({"", "n2"}), ",n2");
    EXPECT_EQ(orvctl::joinNames({}), "");
}

// A group as a query returns it: its values by attribute name.
ResourceValues group(const std::vector<std::pair<std::string, std::string>>& attrs) {
    ResourceValues r;
    for (const auto& [name, text] : attrs) {
        zn_data_type_t t = name == "ValidateNodes"                           ? ZN_UINT32
                           : name == "MemberList" || name == "ExpMemberList" ? ZN_CHAR_PTR_ARRAY
                                                                             : ZN_CHAR_PTR;
        std::string why;
        auto v = znpex::cli::parseValue(t, text, &why);
        EXPECT_TRUE(v) << why;
        r.values.emplace(name, std::move(*v));
    }
    return r;
}

TEST(GroupWords, AGroupIsSummedUpByItsMembersOrItsSelection) {
    auto members = orvctl::summaryOf(group({{"Name", "rack"},
                                            {"MemberList", "n1,+models"},
                                            {"SelectStr", ""},
                                            {"ValidateNodes", "1"},
                                            {"ExpMemberList", "n1,n3,n2"}}));
    EXPECT_EQ(members.name, "rack");
    EXPECT_EQ(members.kind, "members");
    EXPECT_EQ(members.definition, "n1,+models");
    EXPECT_TRUE(members.validate);
    EXPECT_EQ(members.nodes, (Names{"n1", "n3", "n2"})) << "in the manager's order";

    auto selection = orvctl::summaryOf(group({{"Name", "m1s"},
                                              {"SelectStr", "HWModel==\"m1\""},
                                              {"ValidateNodes", "0"},
                                              {"ExpMemberList", ""}}));
    EXPECT_EQ(selection.kind, "selection");
    EXPECT_EQ(selection.definition, "HWModel==\"m1\"");
    EXPECT_FALSE(selection.validate);
    EXPECT_TRUE(selection.nodes.empty());

    // A member list never given, and nothing read at all.
    auto empty = orvctl::summaryOf(group({{"Name", "none"}}));
    EXPECT_EQ(empty.kind, "members");
    EXPECT_EQ(empty.definition, "");
    EXPECT_FALSE(empty.validate);
    ResourceValues unread;
    unread.values.emplace("MemberList", zn::OwnedValue(ZN_CHAR_PTR_ARRAY, zn_value_t{}));
    EXPECT_EQ(orvctl::summaryOf(unread).name, "");
    EXPECT_EQ(orvctl::summaryOf(unread).definition, "");
}

TEST(GroupWords, ActionAnswersGiveTheNamesOfTheirFirstElement) {
    zn::SdPtr names = orvctl::oneElement(orvctl::textArray({"g1", "g2"}));
    EXPECT_EQ(orvctl::textsOf(names.get()), (Names{"g1", "g2"}));
    zn::SdPtr none = orvctl::oneElement(orvctl::textArray({}));
    EXPECT_TRUE(orvctl::textsOf(none.get()).empty());
    zn::SdPtr text = orvctl::oneElement(orvctl::textValue("g1"));
    EXPECT_TRUE(orvctl::textsOf(text.get()).empty()) << "not a string array";
    EXPECT_TRUE(orvctl::textsOf(static_cast<const zn_structured_data*>(nullptr)).empty());
    zn::SdPtr nothing(zn_sd_new(0));
    EXPECT_TRUE(orvctl::textsOf(nothing.get()).empty());
}

}  // namespace
