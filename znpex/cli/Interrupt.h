// While one lives, SIGINT and SIGTERM only set a flag that a long-running
// command (watch) polls to stop cleanly; the previous handlers come back
// when it goes. One at a time per process.
#pragma once

#include <csignal>

namespace znpex::cli {

class InterruptScope {
public:
    InterruptScope() {
        flag() = 0;
        struct sigaction sa {};
        sa.sa_handler = [](int) { flag() = 1; };
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

    bool interrupted() const { return flag() != 0; }

private:
    static volatile std::sig_atomic_t& flag() {
        static volatile std::sig_atomic_t f = 0;
        return f;
    }
    struct sigaction oldInt_ {};
    struct sigaction oldTerm_ {};
};

}  // namespace znpex::cli
