#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "platform/clock.h"
#include "tarn_rmf2v/RMSchedule.h"
#include "tests/support/Subprocess.h"

namespace {

using namespace std::chrono_literals;
using tarn_rmf2v::RMSchedule;

// What the operations record, in the order they ran.
struct Log {
    std::mutex mu;
    std::vector<int> order;
};

struct Op {
    Log* log;
    int id;
};

void record(void* p) {
    auto* op = static_cast<Op*>(p);
    std::lock_guard<std::mutex> g(op->log->mu);
    op->log->order.push_back(op->id);
}

// Waits (in real time, bounded) until the schedule has run n operations.
bool waitCompleted(const RMSchedule& s, uint64_t n) {
    return testsupport::waitFor([&] { return s.completed() >= n; });
}

// Waits until whatever was due has run.
bool waitIdle(const RMSchedule& s) {
    return testsupport::waitFor([&] { return s.idle(); });
}

TEST(Schedule, RunsInDeadlineOrderThenInsertionOrder) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    Log log;
    Op a{&log, 1}, b{&log, 2}, c{&log, 3}, d{&log, 4};
    s.addOperation("A", record, &a, 30u);
    s.addOperation("B", record, &b, 10u);
    s.addOperation("C", record, &c, 20u);
    s.addOperation("D", record, &d, 10u);
    clock.advance(9s);
    ASSERT_TRUE(waitIdle(s));
    EXPECT_EQ(s.completed(), 0u) << "nothing is due before its time";
    EXPECT_EQ(s.pending(), 4u);
    clock.advance(1s);
    ASSERT_TRUE(waitCompleted(s, 2));
    clock.advance(10s);
    ASSERT_TRUE(waitCompleted(s, 3));
    clock.advance(10s);
    ASSERT_TRUE(waitCompleted(s, 4));
    EXPECT_EQ(log.order, (std::vector<int>{2, 4, 3, 1}));
    EXPECT_EQ(s.pending(), 0u);
}

TEST(Schedule, AbsoluteTimesUseTheWallClockAndPastTimesRunAtOnce) {
    zn::FakeClock clock({5000, 0});
    RMSchedule s(clock);
    Log log;
    Op late{&log, 1}, past{&log, 2};
    timespec inTwoSeconds{5002, 500'000'000};
    timespec yesterday{5000 - 86400, 0};
    s.addOperation("Late", record, &late, &inTwoSeconds);
    s.addOperation("Past", record, &past, &yesterday);
    ASSERT_TRUE(waitCompleted(s, 1));
    clock.advance(2s);
    ASSERT_TRUE(waitIdle(s));
    EXPECT_EQ(s.completed(), 1u);
    clock.advance(500ms);
    ASSERT_TRUE(waitCompleted(s, 2));
    EXPECT_EQ(log.order, (std::vector<int>{2, 1}));
}

TEST(Schedule, RemoveCancelsEveryPendingRunOfAnArgumentAndIsHarmlessAfterwards) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    Log log;
    Op keep{&log, 1}, drop{&log, 2};
    s.addOperation("Keep", record, &keep, 5u);
    s.addOperation("Drop", record, &drop, 5u);
    s.addOperation("Drop", record, &drop, 7u);
    EXPECT_EQ(s.removeOperation(&drop), 2u);
    clock.advance(10s);
    ASSERT_TRUE(waitCompleted(s, 1));
    EXPECT_EQ(s.removeOperation(&keep), 0u);    // already ran
    EXPECT_EQ(s.removeOperation(nullptr), 0u);  // never existed
    EXPECT_EQ(log.order, (std::vector<int>{1}));
}

// The class destructors rely on this: after removeOperation returns, no run
// of the operation is in progress.
TEST(Schedule, RemoveWaitsForARunInProgress) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    std::promise<void> started, release;
    struct Blocker {
        std::promise<void>* started;
        std::shared_future<void> release;
        std::atomic<bool> finished{false};
    } blocker{&started, release.get_future().share()};
    s.addOperation(
        "Block",
        [](void* p) {
            auto* b = static_cast<Blocker*>(p);
            b->started->set_value();
            b->release.wait();
            b->finished = true;
        },
        &blocker, 0u);
    started.get_future().wait();
    auto remover = std::async(std::launch::async, [&] { return s.removeOperation(&blocker); });
    EXPECT_EQ(remover.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(remover.get(), 0u);
    EXPECT_TRUE(blocker.finished);
}

TEST(Schedule, AnOperationMayRescheduleOrRemoveItselfAndThrowingDoesNotStopTheTimer) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    struct Periodic {
        RMSchedule* s;
        int runs = 0;
    } p{&s};
    s.addOperation(
        "Periodic",
        [](void* a) {
            auto* self = static_cast<Periodic*>(a);
            self->s->removeOperation(self);  // must not deadlock on itself
            if (++self->runs < 3) {
                self->s->addOperation(
                    "Periodic", +[](void*) {}, nullptr, 0u);
                throw std::runtime_error("boom");
            }
        },
        &p, 1u);
    clock.advance(1s);
    ASSERT_TRUE(waitCompleted(s, 2));
    EXPECT_EQ(p.runs, 1);
    Log log;
    Op after{&log, 9};
    s.addOperation("After", record, &after, 0u);
    ASSERT_TRUE(waitCompleted(s, 3));
    EXPECT_EQ(log.order, (std::vector<int>{9}));
}

TEST(Schedule, DestructionDropsPendingOperations) {
    zn::FakeClock clock;
    Log log;
    Op never{&log, 1};
    {
        RMSchedule s(clock);
        s.addOperation("Never", record, &never, 1u);
        EXPECT_EQ(s.pending(), 1u);
    }
    clock.advance(10s);
    EXPECT_TRUE(log.order.empty());
}

// An owner stops its schedule before letting it go: a run in progress that
// schedules its successor is waited for, and the successor never runs.
TEST(Schedule, StopWaitsForTheRunningOperationAndRunsNothingAddedLater) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    std::promise<void> started, release;
    struct Poll {
        RMSchedule* s;
        std::promise<void>* started;
        std::shared_future<void> release;
        std::atomic<int> runs{0};
    } poll{&s, &started, release.get_future().share()};
    s.addOperation(
        "Poll",
        [](void* a) {
            auto* p = static_cast<Poll*>(a);
            if (p->runs++ == 0) {
                p->started->set_value();
                p->release.wait();
            }
            p->s->addOperation(
                "Poll", +[](void*) {}, nullptr, 0u);
        },
        &poll, 0u);
    started.get_future().wait();
    auto stopper = std::async(std::launch::async, [&] { s.stop(); });
    EXPECT_EQ(stopper.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    stopper.get();
    EXPECT_EQ(s.completed(), 1u);
    EXPECT_EQ(s.pending(), 0u);
    s.stop();  // twice is harmless
}

// What tests rely on after advancing a fake clock: idle() holds only once
// every operation that fell due has run, whatever it scheduled in turn.
TEST(Schedule, IdleMeansNothingDueIsLeftToRun) {
    zn::FakeClock clock;
    RMSchedule s(clock);
    EXPECT_TRUE(s.idle()) << "an empty schedule";
    struct Chain {
        RMSchedule* s;
        int runs = 0;
    } chain{&s};
    // Each run schedules the next at once, three times.
    RMSchedule::Operation step = [](void* a) {
        auto* c = static_cast<Chain*>(a);
        if (++c->runs < 3) {
            c->s->addOperation(
                "Chain",
                +[](void* b) {
                    auto* d = static_cast<Chain*>(b);
                    ++d->runs;
                },
                c, 0u);
        }
    };
    s.addOperation("Chain", step, &chain, 5u);
    EXPECT_TRUE(s.idle()) << "pending, but not due";
    clock.advance(5s);
    ASSERT_TRUE(waitIdle(s));
    EXPECT_EQ(chain.runs, 2);
    EXPECT_EQ(s.completed(), 2u);
    EXPECT_EQ(s.pending(), 0u);
}

TEST(Schedule, AllIdleCoversEverySchedule) {
    zn::FakeClock a, b;
    RMSchedule first(a), second(b);
    Log log;
    Op one{&log, 1}, two{&log, 2};
    first.addOperation("One", record, &one, 1u);
    second.addOperation("Two", record, &two, 1u);
    EXPECT_TRUE(RMSchedule::allIdle());
    b.advance(1s);
    ASSERT_TRUE(testsupport::waitFor(RMSchedule::allIdle));
    EXPECT_EQ(log.order, (std::vector<int>{2}));
    EXPECT_EQ(first.pending(), 1u);
}

}  // namespace
