// What a resource manager's service connection shares with the threads that
// answer requests and send notifications: the bounded queue of framed
// messages for the current connection, that connection's generation (so a
// reply meant for a connection that is gone is dropped, never sent on the
// next one), the wake-up descriptor of the I/O thread and the stop flag.
// Held through shared_ptr by the completions of requests, which may run
// after the connection object is gone. Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace tarn_rmf2v {

class RMServiceOutbox {
public:
    // Creates the wake-up descriptor; throws std::system_error if it can't.
    // The clock (not owned) times sleepUnlessStopped.
    RMServiceOutbox(size_t maxBytes, zn::Clock& clock);
    ~RMServiceOutbox();
    RMServiceOutbox(const RMServiceOutbox&) = delete;
    RMServiceOutbox& operator=(const RMServiceOutbox&) = delete;

    // A connection begins (empty queue, not registered); returns its generation.
    uint64_t begin();
    // The connection is over: nothing more is queued for it.
    void end();
    void setRegistered(bool registered);
    bool registered() const;

    // Queues one message (the frame header is added here) for connection
    // `generation`, or with 0 for the current connection once it is
    // registered. False when dropped: no such connection, or the queue is
    // full (a service that does not read loses messages, never blocks us).
    bool post(uint64_t generation, std::string_view payload);
    // Appends everything queued to `out` (I/O thread).
    void takeAll(std::string& out);
    // Messages dropped because the queue was full.
    uint64_t dropped() const;

    // The I/O thread polls this descriptor; post() and requestStop() make it readable.
    int wakeFd() const { return wakeFd_; }
    void clearWake();

    void requestStop();
    bool stopping() const;
    // Sleeps up to `d` of the clock's time; returns early (true) when asked to stop.
    bool sleepUnlessStopped(std::chrono::milliseconds d);

private:
    void wake();

    const size_t maxBytes_;
    zn::Clock& clock_;
    int wakeFd_ = -1;
    mutable std::mutex mu_;  // guards everything below
    std::condition_variable cv_;
    uint64_t generation_ = 0;  // 0: no connection
    uint64_t lastGeneration_ = 0;
    bool registered_ = false;
    uint64_t dropped_ = 0;
    bool stopping_ = false;
    std::deque<std::string> queue_;
    size_t bytes_ = 0;
};

}  // namespace tarn_rmf2v
