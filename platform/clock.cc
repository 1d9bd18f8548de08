#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <thread>

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
    void sleepUntil(Duration deadline) const override {
        auto s = std::chrono::duration_cast<std::chrono::seconds>(deadline);
        timespec at{static_cast<time_t>(s.count()), static_cast<long>((deadline - s).count())};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
        }
    }
    Duration waitSlice(Duration deadline) const override {
        return std::max(deadline - monoNow(), Duration::zero());
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

void setProcessClock(Clock* clock) {
    g_processClock.store(clock, std::memory_order_release);
}

int pollTimeoutMs(Clock::Duration d) {
    if (d <= Clock::Duration::zero()) {
        return 0;
    }
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(d).count();
    return static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
}

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
    enter(deadline);
    cv.wait_for(lk, kSlice);
    leave(deadline);
}

void FakeClock::sleepUntil(Duration deadline) const {
    if (monoNow() >= deadline) {
        return;
    }
    enter(deadline);
    while (monoNow() < deadline) {
        std::this_thread::sleep_for(kSlice);
    }
    leave(deadline);
}

Clock::Duration FakeClock::waitSlice(Duration deadline) const {
    return std::clamp(deadline - monoNow(), Duration::zero(), kSlice);
}

void FakeClock::enter(Duration deadline) const {
    std::lock_guard<std::mutex> g(mu_);
    waiting_.insert(deadline);
}

void FakeClock::leave(Duration deadline) const {
    std::lock_guard<std::mutex> g(mu_);
    waiting_.erase(waiting_.find(deadline));
}

size_t FakeClock::sleepers() const {
    std::lock_guard<std::mutex> g(mu_);
    return waiting_.size();
}

std::optional<Clock::Duration> FakeClock::nextWake() const {
    std::lock_guard<std::mutex> g(mu_);
    if (waiting_.empty()) {
        return std::nullopt;
    }
    return *waiting_.begin();
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
