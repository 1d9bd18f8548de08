#include "tarn_base/CRunnable.h"

#include <pthread.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <system_error>

#include "tarn_base/CException.h"

namespace tarn_base {

namespace {

// Signals meant for the process as a whole, not for whichever thread runs.
sigset_t asynchronousSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD}) {
        sigaddset(&set, sig);
    }
    return set;
}

}  // namespace

CRunnable::~CRunnable() {
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();  // a body deleting itself cannot wait for itself
        } else {
            thread_.join();
        }
    }
}

void CRunnable::handleException() {
    error_ = std::current_exception();
    try {
        std::rethrow_exception(error_);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarn_base::CRunnable: thread ended by exception: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "tarn_base::CRunnable: thread ended by an unknown exception\n");
    }
}

void CRunnable::handleSyncSignals(int block) {
    sigset_t set = asynchronousSignals();
    pthread_sigmask(block != 0 ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

void CRunnable::start(void* arg) {
    if (thread_.joinable()) {
        throw CErrorException("CRunnable::start: the previous thread has not been joined", EBUSY);
    }
    error_ = nullptr;
    try {
        thread_ = std::thread(&CRunnable::threadMain, this, arg);
    } catch (const std::system_error& e) {
        throw CErrorException(std::string("CRunnable::start: cannot create a thread: ") + e.what(),
                              e.code().value());
    }
}

void CRunnable::join() {
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

void CRunnable::threadMain(void* arg) {
    try {
        handleSyncSignals(1);
        run(arg);
    } catch (...) {
        try {
            handleException();
        } catch (...) {
            // A failing handler must not take the process down either.
        }
    }
}

}  // namespace tarn_base
