// The time seam: every schedule and timeout reads a Clock, so tests drive time
// with FakeClock instead of sleeping.
//
// What reads it: the framework and the service take "now" (timestamps,
// uptime, intervals, deadlines) and wait or sleep only through a Clock.
// Waits that must block on something real (poll() on a socket, a timed read,
// a condition variable) compute their deadline from the Clock and block in
// slices of waitSlice(), then look at the Clock again; on a fake clock they
// end once a test has advanced it past the deadline. Outside the seam, on
// purpose: the timers of the service's asio I/O loop (connection watchdogs,
// peer-link retries, request timeouts, housekeeping), which asio runs on its
// own steady clock; the deadlines of external commands (CCommand) and of the
// client library's socket calls, which wait on another process in real time;
// and fixed short polls of flags that other threads or signals set.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>

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
    // Blocks the calling thread until this clock's monotonic time reaches
    // `deadline`.
    virtual void sleepUntil(Duration deadline) const = 0;
    void sleepFor(Duration d) const { sleepUntil(monoNow() + d); }
    // How long a real-time wait (poll(), a timed read) may block before the
    // caller looks at this clock again on its way to `deadline`: zero once it
    // has passed; otherwise all that is left on the system clock, a short
    // slice on a fake one.
    virtual Duration waitSlice(Duration deadline) const = 0;
};

// A wait for poll(): milliseconds, rounded up, at most INT_MAX.
int pollTimeoutMs(Clock::Duration d);

// The process's real clock.
Clock& systemClock();

// The clock that process-wide helpers read (getCurrentTime, default schedules):
// the system clock unless a test installed another. Not owned; null restores.
Clock& processClock();
void setProcessClock(Clock* clock);

// A clock that moves only when told to. Waiters poll it in short real-time
// slices, so advance() needs to wake nobody; it keeps the deadlines of the
// threads waiting on it so tests can see who waits, and until when.
class FakeClock final : public Clock {
public:
    // The real-time slice waiters poll in.
    static constexpr Duration kSlice = std::chrono::milliseconds(1);

    explicit FakeClock(timespec wallStart = {1'700'000'000, 0});
    timespec wallNow() const override;
    Duration monoNow() const override;
    void waitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lk,
                   Duration deadline) const override;
    void sleepUntil(Duration deadline) const override;
    Duration waitSlice(Duration deadline) const override;
    // Moves both clocks forward.
    void advance(Duration d);
    // Sets the wall clock only (as an administrator's date change would).
    void setWall(timespec t);

    // Threads in sleepUntil or waitUntil right now.
    size_t sleepers() const;
    // The earliest deadline they wait for; none when nobody waits.
    std::optional<Duration> nextWake() const;

private:
    void enter(Duration deadline) const;
    void leave(Duration deadline) const;

    mutable std::mutex mu_;
    timespec wall_;
    Duration mono_{std::chrono::hours(1)};
    mutable std::multiset<Duration> waiting_;
};

}  // namespace zn
