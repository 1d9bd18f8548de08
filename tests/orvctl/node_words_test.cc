// How orvctl shows values to a person: status and power status as words
// (other numbers as themselves), arrays without braces, values never given
// as nothing.
#include <gtest/gtest.h>

#include <tuple>

#include "orvctl/NodeWords.h"
#include "znpex/cli/ValueText.h"

namespace {

TEST(NodeWords, StatusAndPowerReadAsWords) {
    const std::tuple<uint32_t, const char*, const char*> cases[] = {
        {1, "up", "on"},
        {0, "down", "off"},
        {127, "unknown", "unknown"},
        {2, "2", "2"},
    };
    for (const auto& [value, status, power] : cases) {
        EXPECT_EQ(orvctl::statusWord(value), status);
        EXPECT_EQ(orvctl::powerWord(value), power);
        zn_value_t v;
        v.val_uint32 = value;
        EXPECT_EQ(orvctl::attrText("Status", ZN_UINT32, v), status);
        EXPECT_EQ(orvctl::attrText("PowerStatus", ZN_UINT32, v), power);
        EXPECT_EQ(orvctl::attrText("ConsoleSerialSpeed", ZN_UINT32, v), std::to_string(value));
    }
}

TEST(NodeWords, CellsShowArraysPlainAndNothingForValuesNeverGiven) {
    std::string why;
    auto addrs = znpex::cli::parseValue(ZN_CHAR_PTR_ARRAY, "10.0.0.1,10.0.0.2", &why);
    ASSERT_TRUE(addrs) << why;
    EXPECT_EQ(orvctl::cellText(addrs->type(), addrs->value()), "10.0.0.1,10.0.0.2");
    zn_value_t none;
    none.ptr_array = nullptr;
    EXPECT_EQ(orvctl::cellText(ZN_CHAR_PTR_ARRAY, none), "");
    none.ptr_char = nullptr;
    EXPECT_EQ(orvctl::cellText(ZN_CHAR_PTR, none), "");
    zn_value_t id;
    id.val_uint64 = 18446744073709551615ull;
    EXPECT_EQ(orvctl::cellText(ZN_UINT64, id), "18446744073709551615");
}

}  // namespace
