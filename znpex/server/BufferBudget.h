// The service-wide budget of bytes held in connection buffers: partial
// input frames and output not yet written. Connections report what they
// hold; when the total passes the limit, the reclaim callback closes
// connections (the router's choice of whom) until the excess is covered, and
// memory freed in bulk is handed back to the system. Thread-safe and cheap
// on the hot path (atomic counters).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>

#include "platform/clock.h"

namespace znpex::server {

class BufferBudget {
public:
    // Called with the number of bytes over the limit that are not already
    // being released; it closes connections and reports what they hold with
    // releasing(). Runs on whichever thread crossed the limit, one at a time.
    using Reclaim = std::function<void(size_t over)>;

    explicit BufferBudget(size_t limit);
    void setReclaim(Reclaim reclaim) { reclaim_ = std::move(reclaim); }

    // A connection now holds `n` more bytes; may run the reclaim callback.
    void charge(size_t n);
    // A connection holds `n` fewer bytes.
    void release(size_t n);
    // Bytes of connections being closed by a reclaim: they no longer count
    // against the limit, and are released as the connections go.
    void releasing(size_t n);
    void released(size_t n);

    // Hands freed memory back to the system when a reclaim or a closing
    // connection left some that the rate limit held back. Call about once a second.
    void tick();

    size_t held() const { return held_.load(std::memory_order_relaxed); }
    size_t limit() const { return limit_; }
    // How many connections reclaims have closed.
    uint64_t closed() const { return closed_.load(std::memory_order_relaxed); }
    void countClosed(size_t n) { closed_.fetch_add(n, std::memory_order_relaxed); }

private:
    void maybeTrim(size_t atLeast);

    const size_t limit_;
    Reclaim reclaim_;
    std::atomic<size_t> held_{0};
    std::atomic<size_t> leaving_{0};
    std::atomic<bool> reclaiming_{false};
    std::atomic<uint64_t> closed_{0};
    std::atomic<size_t> freedSinceTrim_{0};
    zn::Clock& clock_;   // the process clock when made
    std::mutex trimMu_;  // guards lastTrim_
    zn::Clock::Duration lastTrim_{};
};

}  // namespace znpex::server
