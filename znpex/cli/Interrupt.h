// While one lives, SIGINT and SIGTERM only set a flag that a long-running
// command (watch) polls to stop cleanly; the previous handlers come back
// when it goes. One at a time per process.
#pragma once

#include <atomic>
#include <csignal>

namespace znpex::cli {

class InterruptScope {
public:
    InterruptScope() {
        flag().store(false);
        struct sigaction sa {};
        sa.sa_handler = [](int) { flag().store(true); };
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &oldInt_);
        sigaction(SIGTERM, &sa, &oldTerm_);
    }
    ~InterruptScope() {
        sigaction(SIGINT, &oldInt_, nullptr);
        sigaction(SIGTERM, &oldTerm_, nullptr);
    }
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;

    bool interrupted() const { return flag().load(); }

private:
    // Set by the handler on whichever thread takes the signal and read by
    // another: an atomic, lock-free so the handler may touch it.
    static std::atomic<bool>& flag() {
        static std::atomic<bool> f{false};
        static_assert(std::atomic<bool>::is_always_lock_free);
        return f;
    }
    struct sigaction oldInt_ {};
    struct sigaction oldTerm_ {};
};

}  // namespace znpex::cli
