// Classes keep their delayed and periodic operations on schedules of their
// own, made on the process clock; under the class harness that clock is fake,
// so tests move time with advance() and see what fell due run, never sleeping.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "tarn_rmf2v/RMSchedule.h"
#include "tests/orvrm/ClassHarness.h"

namespace {

using namespace std::chrono_literals;

// Polls like a class's status update: runs at once, then every 12 seconds,
// each run scheduling the next from its own "now".
class Poller {
public:
    explicit Poller(unsigned interval) : interval_(interval) {
        status_.addOperation("NodeStatusUpdate", &Poller::update, this, 0u);
    }
    ~Poller() { status_.removeOperation(this); }
    int runs() const { return runs_.load(); }
    size_t pending() const { return status_.pending(); }

private:
    static void update(void* arg) {
        auto* self = static_cast<Poller*>(arg);
        ++self->runs_;
        self->status_.addOperation("NodeStatusUpdate", &Poller::update, self, self->interval_);
    }

    const unsigned interval_;
    std::atomic<int> runs_{0};
    tarn_rmf2v::RMSchedule status_;  // on the process clock, as a class's is
};

class ClassSchedule : public classtest::ClassHarness {};

TEST_F(ClassSchedule, APeriodicOperationRunsEachTimeTheHarnessClockReachesIt) {
    Poller p(12);
    advance(0s);
    EXPECT_EQ(p.runs(), 1) << "the first run is at once";
    advance(11s);
    EXPECT_EQ(p.runs(), 1) << "not before its interval";
    advance(1s);
    EXPECT_EQ(p.runs(), 2);
    for (int i = 0; i < 3; ++i) {
        advance(12s);
    }
    EXPECT_EQ(p.runs(), 5);
    EXPECT_EQ(p.pending(), 1u) << "always the next run waiting";
}

}  // namespace
