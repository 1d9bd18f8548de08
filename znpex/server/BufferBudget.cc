#include "znpex/server/BufferBudget.h"

#include <malloc.h>

namespace znpex::server {
namespace {

// Memory freed by connections is handed back to the system once this much
// has gone since the last time, at most once per interval: the allocator
// keeps freed blocks otherwise, and a burst of slow clients would leave the
// service large long after they left.
constexpr size_t kTrimAfter = 8u << 20;
constexpr auto kTrimInterval = std::chrono::seconds(1);
// What the periodic tick gives back when the rate limit held a trim back.
constexpr size_t kTrimLater = 1u << 20;

}  // namespace

BufferBudget::BufferBudget(size_t limit) : limit_(limit), clock_(zn::processClock()) {}

void BufferBudget::charge(size_t n) {
    size_t now = held_.fetch_add(n, std::memory_order_relaxed) + n;
    if (now <= limit_ || !reclaim_) {
        return;
    }
    size_t leaving = leaving_.load(std::memory_order_relaxed);
    if (now <= limit_ + leaving || reclaiming_.exchange(true)) {
        return;
    }
    leaving = leaving_.load(std::memory_order_relaxed);
    if (now > limit_ + leaving) {
        reclaim_(now - limit_ - leaving);
    }
    reclaiming_.store(false);
}

void BufferBudget::release(size_t n) {
    held_.fetch_sub(n, std::memory_order_relaxed);
    if (freedSinceTrim_.fetch_add(n, std::memory_order_relaxed) + n >= kTrimAfter) {
        maybeTrim(kTrimAfter);
    }
}

void BufferBudget::releasing(size_t n) {
    leaving_.fetch_add(n, std::memory_order_relaxed);
}

void BufferBudget::released(size_t n) {
    leaving_.fetch_sub(n, std::memory_order_relaxed);
}

void BufferBudget::tick() {
    maybeTrim(kTrimLater);
}

void BufferBudget::maybeTrim(size_t atLeast) {
    std::unique_lock<std::mutex> g(trimMu_, std::try_to_lock);
    if (!g.owns_lock() || freedSinceTrim_.load(std::memory_order_relaxed) < atLeast) {
        return;  // another thread is trimming, or little to give back
    }
    zn::Clock::Duration now = clock_.monoNow();
    if (now - lastTrim_ < kTrimInterval) {
        return;
    }
    lastTrim_ = now;
    freedSinceTrim_.store(0, std::memory_order_relaxed);
    ::malloc_trim(0);
}

}  // namespace znpex::server
