// Named one-shot operations run on the schedule's own timer thread, at an
// absolute wall-clock time or after a number of seconds. Operations due at
// the same moment run in the order they were added. removeOperation(arg)
// cancels what is pending for `arg` and, when called from another thread,
// waits for a run of it already in progress, so the caller may then destroy
// what `arg` points to. Thread-safe.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "platform/clock.h"

namespace tarn_rmf2v {

class RMSchedule {
public:
    using Operation = void (*)(void*);

    // The clock is not owned; it must outlive the schedule. Classes take the
    // default, the process clock, which tests of classes replace.
    explicit RMSchedule(zn::Clock& clock = zn::processClock());
    // Stops the timer thread (stop()).
    ~RMSchedule();
    // Stops the timer thread; pending operations are dropped, a running one
    // is waited for, and nothing added later runs. An owner whose operations
    // use the schedule itself stops it before letting it go.
    void stop();
    RMSchedule(const RMSchedule&) = delete;
    RMSchedule& operator=(const RMSchedule&) = delete;

    // Runs fn(arg) once at the wall-clock time *when (at once if it is past).
    // The time is turned into a monotonic deadline when added, so a later
    // change of the system date does not move it.
    void addOperation(const char* name, Operation fn, void* arg, timespec* when);
    // Runs fn(arg) once after `seconds`.
    void addOperation(const char* name, Operation fn, void* arg, unsigned int seconds);
    // Cancels every pending operation for arg; returns how many were pending.
    // Harmless when none is (the operation already ran, or never existed).
    unsigned removeOperation(void* arg);

    // Pending operations (for status and tests).
    size_t pending() const;
    // Operations run so far.
    uint64_t completed() const;
    // Nothing is running and nothing pending is due by the clock's time. A
    // test that advanced a fake clock waits for this to see what fell due run.
    bool idle() const;
    // Every schedule of the process is idle (tests of classes, whose
    // schedules are their own).
    static bool allIdle();

private:
    struct Entry {
        std::string name;
        Operation fn;
        void* arg;
    };
    using Key = std::pair<zn::Clock::Duration, uint64_t>;  // deadline, sequence

    void add(const char* name, Operation fn, void* arg, zn::Clock::Duration deadline);
    void loop();

    zn::Clock& clock_;
    mutable std::mutex mu_;
    std::condition_variable cv_;      // wakes the timer thread
    std::condition_variable doneCv_;  // signals the end of a run
    // Guarded by mu_:
    std::map<Key, Entry> queue_;
    uint64_t seq_ = 0;
    uint64_t completed_ = 0;
    void* runningArg_ = nullptr;
    bool running_ = false;
    bool stop_ = false;
    std::thread thread_;  // last: started when everything else is ready
};

}  // namespace tarn_rmf2v
