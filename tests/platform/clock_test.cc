#include "platform/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(FakeClock, AdvanceMovesBothClocksAndCarriesNanoseconds) {
    zn::FakeClock c({100, 999'999'000});
    auto m0 = c.monoNow();
    c.advance(std::chrono::microseconds(2));
    EXPECT_EQ(c.wallNow().tv_sec, 101);
    EXPECT_EQ(c.wallNow().tv_nsec, 1000);
    EXPECT_EQ(c.monoNow() - m0, std::chrono::microseconds(2));
}

TEST(FakeClock, WaitUntilReturnsAtOnceWhenDeadlinePassed) {
    zn::FakeClock c;
    std::mutex mu;
    std::condition_variable cv;
    std::unique_lock<std::mutex> lk(mu);
    c.waitUntil(cv, lk, c.monoNow() - std::chrono::seconds(1));
    EXPECT_TRUE(lk.owns_lock());
}

TEST(SystemClock, MonotonicNeverGoesBack) {
    auto a = zn::systemClock().monoNow();
    auto b = zn::systemClock().monoNow();
    EXPECT_LE(a, b);
    EXPECT_GT(zn::systemClock().wallNow().tv_sec, 1'600'000'000);
}

}  // namespace
