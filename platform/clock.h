// The time seam: every schedule and timeout reads a Clock, so tests drive time
// with FakeClock instead of sleeping.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

namespace zn {

class Clock {
public:
    using Duration = std::chrono::nanoseconds;

    virtual ~Clock() = default;
    // Wall clock (CLOCK_REALTIME).
    virtual timespec wallNow() const = 0;
    // Monotonic clock, as a duration since an arbitrary epoch.
    virtual Duration monoNow() const = 0;
    // Waits on `cv` (with `lk` held) until notified, a spurious wake, or this
    // clock's monotonic time reaches `deadline`. Callers re-check their state
    // in a loop, as with any condition variable.
    virtual void waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lk,
                           Duration deadline) const = 0;
};

// The process's real clock.
Clock& systemClock();

// The clock that process-wide helpers read (getCurrentTime, default schedules):
// the system clock unless a test installed another. Not owned; null restores.
Clock& processClock();
void setProcessClock(Clock* clock);

// A clock that moves only when told to. Waiters poll it in short real-time
// slices, so advance() needs no registry of sleepers.
class FakeClock final : public Clock {
public:
    explicit FakeClock(timespec wallStart = {1'700'000'000, 0});
    timespec wallNow() const override;
    Duration monoNow() const override;
    void waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lk,
                   Duration deadline) const override;
    // Moves both clocks forward.
    void advance(Duration d);
    // Sets the wall clock only (as an administrator's date change would).
    void setWall(timespec t);

private:
    mutable std::mutex mu_;
    timespec wall_;
    Duration mono_{std::chrono::hours(1)};
};

}  // namespace zn
