#include "platform/clock.h"

#include <atomic>

namespace zn {
namespace {

class SystemClock final : public Clock {
public:
    timespec wallNow() const override {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        return ts;
    }
    Duration monoNow() const override {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
    }
    void waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lk,
                   Duration deadline) const override {
        Duration left = deadline - monoNow();
        if (left <= Duration::zero()) {
            return;
        }
        cv.wait_for(lk, left);
    }
};

}  // namespace

Clock& systemClock() {
    static SystemClock clock;
    return clock;
}

namespace {
std::atomic<Clock*> g_processClock{nullptr};
}  // namespace

Clock& processClock() {
    Clock* c = g_processClock.load(std::memory_order_acquire);
    return c != nullptr ? *c : systemClock();
}

void setProcessClock(Clock* clock) { g_processClock.store(clock, std::memory_order_release); }

FakeClock::FakeClock(timespec wallStart) : wall_(wallStart) {}

timespec FakeClock::wallNow() const {
    std::lock_guard<std::mutex> g(mu_);
    return wall_;
}

Clock::Duration FakeClock::monoNow() const {
    std::lock_guard<std::mutex> g(mu_);
    return mono_;
}

void FakeClock::waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lk,
                          Duration deadline) const {
    if (monoNow() >= deadline) {
        return;
    }
    cv.wait_for(lk, std::chrono::milliseconds(1));
}

void FakeClock::advance(Duration d) {
    std::lock_guard<std::mutex> g(mu_);
    mono_ += d;
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
    wall_.tv_sec += static_cast<time_t>(ns / 1'000'000'000);
    wall_.tv_nsec += static_cast<long>(ns % 1'000'000'000);
    if (wall_.tv_nsec >= 1'000'000'000) {
        wall_.tv_sec += 1;
        wall_.tv_nsec -= 1'000'000'000;
    }
}

void FakeClock::setWall(timespec t) {
    std::lock_guard<std::mutex> g(mu_);
    wall_ = t;
}

}  // namespace zn
