#include "platform/clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>

#include "tests/support/Subprocess.h"

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

// Real-time waits on the way to a fake deadline are short slices, so the
// waiter looks again soon after a test moved the clock.
TEST(FakeClock, WaitSliceIsShortUntilTheDeadlineThenZero) {
    zn::FakeClock c;
    auto deadline = c.monoNow() + std::chrono::seconds(30);
    EXPECT_EQ(c.waitSlice(deadline), zn::FakeClock::kSlice);
    c.advance(std::chrono::seconds(30) - std::chrono::microseconds(10));
    EXPECT_EQ(c.waitSlice(deadline), std::chrono::microseconds(10));
    c.advance(std::chrono::microseconds(10));
    EXPECT_EQ(c.waitSlice(deadline), zn::Clock::Duration::zero());
    c.advance(std::chrono::seconds(1));
    EXPECT_EQ(c.waitSlice(deadline), zn::Clock::Duration::zero());
}

TEST(FakeClock, SleepEndsWhenAdvancedAndSleepersAreListedMeanwhile) {
    zn::FakeClock c;
    EXPECT_EQ(c.sleepers(), 0u);
    EXPECT_FALSE(c.nextWake().has_value());
    c.sleepFor(std::chrono::seconds(0));  // nothing to wait for
    auto start = c.monoNow();
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        c.sleepFor(std::chrono::seconds(5));
        woke = true;
    });
    EXPECT_TRUE(testsupport::waitFor([&] { return c.nextWake().has_value(); }));
    EXPECT_EQ(c.nextWake(), start + std::chrono::seconds(5));
    EXPECT_EQ(c.sleepers(), 1u);
    c.advance(std::chrono::seconds(5));
    sleeper.join();
    EXPECT_TRUE(woke.load());
    EXPECT_EQ(c.sleepers(), 0u);
    EXPECT_FALSE(c.nextWake().has_value());
}

TEST(FakeClock, ConditionWaitersAreListedWhileTheyWait) {
    zn::FakeClock c;
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    auto deadline = c.monoNow() + std::chrono::seconds(2);
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lk(mu);
        while (!done && c.monoNow() < deadline) {
            c.waitUntil(cv, lk, deadline);
        }
    });
    EXPECT_TRUE(testsupport::waitFor([&] { return c.nextWake() == deadline; }));
    c.advance(std::chrono::seconds(2));
    waiter.join();
    EXPECT_EQ(c.sleepers(), 0u);
}

TEST(PollTimeout, RoundsUpAndClamps) {
    using namespace std::chrono;
    struct Case {
        zn::Clock::Duration in;
        int ms;
    };
    for (Case c : {Case{-seconds(1), 0}, Case{nanoseconds(0), 0}, Case{nanoseconds(1), 1},
                   Case{milliseconds(5), 5}, Case{microseconds(5001), 6},
                   Case{hours(24 * 365 * 100), INT_MAX}}) {
        EXPECT_EQ(zn::pollTimeoutMs(c.in), c.ms) << c.in.count();
    }
}

TEST(SystemClock, SleepAndSliceFollowTheRealClock) {
    auto& c = zn::systemClock();
    auto start = c.monoNow();
    c.sleepFor(std::chrono::milliseconds(2));
    EXPECT_GE(c.monoNow() - start, std::chrono::milliseconds(2));
    auto deadline = c.monoNow() + std::chrono::seconds(60);
    EXPECT_GT(c.waitSlice(deadline), std::chrono::seconds(59));
    EXPECT_EQ(c.waitSlice(start), zn::Clock::Duration::zero());
}

TEST(SystemClock, MonotonicNeverGoesBack) {
    auto a = zn::systemClock().monoNow();
    auto b = zn::systemClock().monoNow();
    EXPECT_LE(a, b);
    EXPECT_GT(zn::systemClock().wallNow().tv_sec, 1'600'000'000);
}

}  // namespace
