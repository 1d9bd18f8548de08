// What orvctl node sync reports: the attributes whose values differ between
// two readings of a node, as "ATTR: old -> new" and as JSON with raw values.
#include <gtest/gtest.h>

#include "orvctl/NodeChanges.h"
#include "znpex/cli/ValueText.h"

namespace {

using nlohmann::json;
using orvctl::ResourceValues;

void set(ResourceValues& r, const std::string& name, zn_data_type_t t, const std::string& text) {
    std::string why;
    auto v = znpex::cli::parseValue(t, text, &why);
    ASSERT_TRUE(v) << why;
    r.values.insert_or_assign(name, std::move(*v));
}

TEST(NodeChanges, OnlyTheAttributesThatDifferAreReported) {
    ResourceValues before, after;
    for (auto* r : {&before, &after}) {
        set(*r, "Hostname", ZN_CHAR_PTR, "n1");
        set(*r, "ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, "10.0.0.1");
    }
    set(before, "UserComment", ZN_CHAR_PTR, "");
    set(after, "UserComment", ZN_CHAR_PTR, "from the node");
    set(before, "ConsoleSerialSpeed", ZN_UINT32, "9600");
    set(after, "ConsoleSerialSpeed", ZN_UINT32, "19200");
    set(before, "Status", ZN_UINT32, "127");
    set(after, "Status", ZN_UINT32, "1");
    set(before, "HWSerialNum", ZN_CHAR_PTR, "SN1");
    set(after, "HWSerialNum", ZN_CHAR_PTR, "");
    set(after, "HWModel", ZN_CHAR_PTR, "m1");  // not read before
    set(before, "HWType", ZN_UINT32, "1");     // could not be read after
    set(after, "HWType", ZN_UINT32, "2");
    after.errors["HWType"] = nullptr;

    std::vector<orvctl::AttrChange> changes = orvctl::changesBetween(before, after);
    std::vector<std::string> lines;
    for (const auto& c : changes) {
        lines.push_back(orvctl::changeLine(c));
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "ConsoleSerialSpeed: 9600 -> 19200",
                         "HWModel: \"\" -> m1",
                         "HWSerialNum: SN1 -> \"\"",
                         "Status: unknown -> up",
                         "UserComment: \"\" -> from the node",
                     }))
        << "by name; empty values read \"\", status as words";

    json out = orvctl::changesJson(changes);
    EXPECT_EQ(out["changed"].size(), 5u);
    EXPECT_EQ(out["changed"]["Status"], json({{"old", 127}, {"new", 1}})) << "raw values";
    EXPECT_EQ(out["changed"]["UserComment"], json({{"old", ""}, {"new", "from the node"}}));
    EXPECT_TRUE(out["changed"]["HWModel"]["old"].is_null()) << "no value before";
}

TEST(NodeChanges, NothingChangedGivesNoChanges) {
    ResourceValues before, after;
    for (auto* r : {&before, &after}) {
        set(*r, "Hostname", ZN_CHAR_PTR, "n1");
        set(*r, "ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, "10.0.0.1,10.0.0.2");
        set(*r, "UniversalId", ZN_UINT64, "18446744073709551615");
    }
    EXPECT_TRUE(orvctl::changesBetween(before, after).empty());
    EXPECT_EQ(orvctl::changesJson({}), json({{"changed", json::object()}}));
    set(after, "ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, "10.0.0.2,10.0.0.1");
    ASSERT_EQ(orvctl::changesBetween(before, after).size(), 1u) << "an array's order counts";
    EXPECT_EQ(orvctl::changeLine(orvctl::changesBetween(before, after)[0]),
              "ConnectivityIPAddrs: 10.0.0.1,10.0.0.2 -> 10.0.0.2,10.0.0.1");
}

}  // namespace
