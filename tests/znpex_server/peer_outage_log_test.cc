// The service log's account of peer links down, on a fake clock: a storm of
// hosts without a service makes a few lines, not one per host.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/clock.h"
#include "znpex/server/PeerOutageLog.h"

namespace {

using znpex::server::PeerOutageLog;
using namespace std::chrono_literals;

class PeerOutageLogTest : public ::testing::Test {
protected:
    zn::FakeClock clock_;
    std::vector<std::string> lines_;
    PeerOutageLog log_{clock_, 60s, [this](const std::string& l) { lines_.push_back(l); }};
};

TEST_F(PeerOutageLogTest, TenThousandHostsDownMakeOneLineAtOnceAndOneSummaryPerInterval) {
    for (int i = 0; i < 10000; ++i) {
        log_.down("127.1." + std::to_string(i / 256) + "." + std::to_string(i % 256),
                  "Connection refused");
    }
    ASSERT_EQ(lines_.size(), 1u) << "the first outage is told at once";
    EXPECT_EQ(lines_[0],
              "peer link to 127.1.0.0 is down (Connection refused); its messages are dropped "
              "until it is back");
    EXPECT_EQ(log_.downCount(), 10000u);

    clock_.advance(59s);
    log_.flush();
    EXPECT_EQ(lines_.size(), 1u) << "not before the interval has passed";
    clock_.advance(1s);
    log_.flush();
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_EQ(lines_[1],
              "peer links down: 10000 hosts, 9999 more since the last line, among them "
              "127.1.0.1 (Connection refused), 127.1.0.2 (Connection refused), 127.1.0.3 "
              "(Connection refused); their messages are dropped until they are back");
    clock_.advance(10min);
    log_.flush();
    EXPECT_EQ(lines_.size(), 2u) << "nothing new: nothing written";
}

TEST_F(PeerOutageLogTest, AHostComingBackIsToldAtOnceAndOnlyAfterAnOutage) {
    log_.up("127.0.0.2");
    EXPECT_TRUE(lines_.empty()) << "never down: nothing to tell";
    log_.down("127.0.0.2", "timed out");
    log_.down("127.0.0.3", "timed out");
    log_.up("127.0.0.3");
    ASSERT_EQ(lines_.size(), 2u);
    EXPECT_EQ(lines_[1], "peer link to 127.0.0.3 is up again");
    EXPECT_EQ(log_.downCount(), 1u);
    log_.up("127.0.0.3");
    EXPECT_EQ(lines_.size(), 2u) << "once per return";

    clock_.advance(60s);
    log_.flush();
    ASSERT_EQ(lines_.size(), 3u) << "the outage counted in the interval is still summed up";
    EXPECT_EQ(lines_[2],
              "peer links down: 1 hosts, 1 more since the last line, among them 127.0.0.3 "
              "(timed out); their messages are dropped until they are back");
    // A quiet interval later, the next outage is told at once again.
    clock_.advance(60s);
    log_.down("127.0.0.4", "Connection refused");
    ASSERT_EQ(lines_.size(), 4u);
    EXPECT_EQ(lines_[3],
              "peer link to 127.0.0.4 is down (Connection refused); its messages are dropped "
              "until it is back");
}

}  // namespace
