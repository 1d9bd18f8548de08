// What orvctl status and orvctl watch print, from values made by hand: the
// counts, the nodes not reachable, the change lines and when a value is no
// change at all.
#include <gtest/gtest.h>

#include <sstream>

#include "orvctl/StatusChanges.h"
#include "orvctl/StatusSummary.h"

namespace {

using orvctl::ResourceValues;

ResourceValues node(const char* host, const char* mode, int status, int power) {
    ResourceValues n;
    zn_value_t v{};
    v.ptr_char = const_cast<char*>(host);
    n.values["Hostname"] = zn::OwnedValue::copyOf(ZN_CHAR_PTR, v);
    v.ptr_char = const_cast<char*>(mode);
    n.values["Mode"] = zn::OwnedValue::copyOf(ZN_CHAR_PTR, v);
    if (status >= 0) {
        zn_value_t s{};
        s.val_uint32 = static_cast<uint32_t>(status);
        n.values["Status"] = zn::OwnedValue(ZN_UINT32, s);
    }
    zn_value_t p{};
    p.val_uint32 = static_cast<uint32_t>(power);
    n.values["PowerStatus"] = zn::OwnedValue(ZN_UINT32, p);
    return n;
}

TEST(StatusSummary, CountsEveryNodeOnceByEachAttributeAndNamesTheUnreachable) {
    std::vector<ResourceValues> nodes;
    nodes.push_back(node("a", "Managed", 1, 1));
    nodes.push_back(node("b", "Managed", 0, 1));
    nodes.push_back(node("c", "MinManaged", 127, 127));
    nodes.push_back(node("d", "Managed", 0, 0));
    nodes.push_back(node("e", "PreManaged", -1, 5));  // Status not read
    orvctl::StatusSummary s = orvctl::summarize(nodes);
    std::ostringstream text;
    orvctl::printSummary(text, s);
    EXPECT_EQ(text.str(),
              "Nodes: 5\n"
              "Status: up 1, down 2, unknown 1, (error) 1\n"
              "Power: on 2, off 1, unknown 1, 5 1\n"
              "Mode: Managed 3, MinManaged 1, PreManaged 1\n"
              "Not reachable: b, d\n"
              "Status unknown: c\n");
    auto j = orvctl::summaryJson(s);
    EXPECT_EQ(j["nodes"], 5);
    EXPECT_EQ(j["status"]["down"], 2);
    EXPECT_EQ(j["power"]["on"], 2);
    EXPECT_EQ(j["mode"]["Managed"], 3);
    EXPECT_EQ(j["unreachable"], znpex::proto::Json::array({"b", "d"}));
    EXPECT_EQ(j["unknown"], znpex::proto::Json::array({"c"}));

    std::ostringstream none;
    orvctl::printSummary(none, orvctl::summarize({}));
    EXPECT_EQ(none.str(),
              "Nodes: 0\nStatus: up 0, down 0, unknown 0\nPower: on 0, off 0, "
              "unknown 0\nMode:\n")
        << "no list of names when there are none";
}

TEST(StatusChanges, OnlyAChangeOfWhatIsKnownMakesALine) {
    orvctl::StatusTracker t;
    t.know("a", "Status", 1);
    EXPECT_FALSE(t.update("a", "Status", 1)) << "the value known already";
    auto down = t.update("a", "Status", 0);
    ASSERT_TRUE(down);
    EXPECT_EQ(*down->old, 1u);
    EXPECT_EQ(down->now, 0u);
    EXPECT_FALSE(t.update("a", "Status", 0));
    auto first = t.update("a", "PowerStatus", 1);
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->old) << "not known before";
    t.forget("a");
    EXPECT_TRUE(t.update("a", "Status", 0)) << "forgotten: news again";

    timespec when{1'700'000'000, 0};
    EXPECT_EQ(orvctl::isoTime(when), "2023-11-14T22:13:20Z");
    EXPECT_EQ(orvctl::changeLine(*down, when, false), "2023-11-14T22:13:20Z a Status up -> down");
    EXPECT_EQ(orvctl::changeLine(*first, when, false),
              "2023-11-14T22:13:20Z a PowerStatus ? -> on");
    EXPECT_EQ(orvctl::changeLine(*down, when, true),
              R"({"attribute":"Status","new":0,"node":"a","old":1,"time":"2023-11-14T22:13:20Z"})");
    EXPECT_EQ(
        orvctl::changeLine(*first, when, true),
        R"({"attribute":"PowerStatus","new":1,"node":"a","old":null,"time":"2023-11-14T22:13:20Z"})");
    EXPECT_EQ(orvctl::removedLine("a", when, false), "2023-11-14T22:13:20Z a removed");
    EXPECT_EQ(orvctl::removedLine("a", when, true),
              R"({"node":"a","removed":true,"time":"2023-11-14T22:13:20Z"})");
}

}  // namespace
