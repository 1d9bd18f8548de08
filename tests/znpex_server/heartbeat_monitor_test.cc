// The management server's view of the hosts' beats, on made-up times.
#include <gtest/gtest.h>

#include <algorithm>

#include "znpex/server/HeartbeatMonitor.h"

namespace {

using znpex::server::HeartbeatMonitor;
using namespace std::chrono_literals;
using V = std::vector<uint64_t>;

TEST(HeartbeatMonitor, ASilentHostIsReportedOnceAtItsLimitUntilItBeatsAgain) {
    HeartbeatMonitor m;
    const auto limit = 12s * 8;
    m.setNodes({1, 2, 3}, 0s);
    EXPECT_EQ(m.watched(), 3u);
    m.beat(1, 90s);
    m.beat(2, 50s);
    EXPECT_EQ(m.newlySilent(95s, limit), V{}) << "nobody silent for 96 s yet";
    EXPECT_EQ(m.newlySilent(96s, limit), V{3}) << "3 never beat: counted from when it joined";
    EXPECT_EQ(m.newlySilent(146s, limit), V{2});
    EXPECT_EQ(m.newlySilent(170s, limit), V{}) << "each once";
    EXPECT_EQ(m.silent(), 2u);
    bool wasSilent = false;
    EXPECT_TRUE(m.beat(2, 171s, &wasSilent));
    EXPECT_TRUE(wasSilent);
    EXPECT_TRUE(m.beat(1, 171s, &wasSilent));
    EXPECT_FALSE(wasSilent);
    EXPECT_EQ(m.silent(), 1u);
    EXPECT_EQ(m.newlySilent(266s, limit), V{}) << "2 raised again: its count starts anew";
    auto again = m.newlySilent(267s, limit);
    std::sort(again.begin(), again.end());
    EXPECT_EQ(again, (V{1, 2}));
    EXPECT_FALSE(m.beat(42, 267s)) << "a host the table does not list";
}

TEST(HeartbeatMonitor, TheTableDecidesWhoIsWatchedAndATuningStartsTheCountAgain) {
    HeartbeatMonitor m;
    m.setNodes({1, 2}, 0s);
    EXPECT_EQ(m.newlySilent(10s, 10s).size(), 2u);
    m.setNodes({2, 3}, 20s);  // 1 leaves, 2 stays silent, 3 joins now
    EXPECT_EQ(m.watched(), 2u);
    EXPECT_EQ(m.silent(), 1u);
    EXPECT_EQ(m.newlySilent(29s, 10s), V{});
    EXPECT_EQ(m.newlySilent(30s, 10s), V{3});
    m.restart(40s);
    EXPECT_EQ(m.silent(), 0u);
    EXPECT_EQ(m.newlySilent(49s, 10s), V{});
    EXPECT_EQ(m.newlySilent(50s, 10s).size(), 2u);
}

TEST(HeartbeatMonitor, AChangeOfAFewRowsAddsAndRemovesOnlyThose) {
    HeartbeatMonitor m;
    const auto limit = 10s;
    m.setNodes({1, 2}, 0s);
    m.addNodes({2, 3}, 8s);  // 2 keeps its count; 3 joins now
    m.removeNodes({1, 99});  // 99 was never watched
    EXPECT_EQ(m.watched(), 2u);
    EXPECT_FALSE(m.beat(1, 9s)) << "removed";
    EXPECT_EQ(m.newlySilent(10s, limit), V{2}) << "counted from 0 s, not from the change";
    EXPECT_EQ(m.newlySilent(17s, limit), V{});
    EXPECT_EQ(m.newlySilent(18s, limit), V{3});
    m.addNodes({2}, 20s);
    EXPECT_EQ(m.silent(), 2u) << "a listed host that is silent stays reported";
}

}  // namespace
