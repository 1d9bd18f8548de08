#include "tarn_base/CDaemon.h"

#include <pthread.h>

#include <cerrno>

#include "tarn_base/CTraceManager.h"

namespace tarn_base {

sigset_t CDaemon::controlSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaddset(&set, s);
    }
    return set;
}

CDaemon::CDaemon(const char* name, unsigned int, unsigned int, const char* defaultTraceSpec,
                 const char* fullTraceSpec, unsigned int)
    : name_(name != nullptr ? name : ""),
      defaultSpec_(defaultTraceSpec != nullptr ? defaultTraceSpec : ""),
      fullSpec_(fullTraceSpec != nullptr ? fullTraceSpec : "") {
    sigset_t set = controlSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (!defaultSpec_.empty()) {
        CTraceManager::setSpec(defaultSpec_);
    }
}

CDaemon::~CDaemon() = default;

void CDaemon::requestStop(int status) {
    status_.store(status);
    stop_.store(true);
    // Wakes the loop: the signal is blocked everywhere, so sigtimedwait takes it.
    kill(getpid(), SIGTERM);
}

int CDaemon::handleSRC(int) {
    sigset_t set = controlSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    loopStarted();
    while (!stop_.load()) {
        timespec tick{1, 0};
        int sig = sigtimedwait(&set, nullptr, &tick);
        if (sig < 0) {
            continue;  // EAGAIN (tick) or EINTR
        }
        switch (sig) {
            case SIGTERM:
            case SIGINT:
                if (!stop_.load()) {
                    stopNormal();
                }
                stop_.store(true);
                break;
            case SIGQUIT:
                stopForce();
                break;
            case SIGHUP:
                refresh();
                break;
            case SIGUSR1:
                traceOn(0);
                break;
            case SIGUSR2:
                traceOff();
                break;
            default:
                break;
        }
    }
    return status_.load();
}

void CDaemon::stopNormal() {
    status_.store(0);
    stop_.store(true);
}

void CDaemon::stopForce() {
    status_.store(0);
    stop_.store(true);
}

void CDaemon::stopCancel(int) {}

void CDaemon::traceOn(int) { CTraceManager::setSpec(fullSpec_); }

void CDaemon::traceOff() { CTraceManager::setSpec(defaultSpec_); }

void CDaemon::refresh() {}

std::string CDaemon::getStatus() { return stop_.load() ? "stopping" : "active"; }

void CDaemon::otherRequest(short, short, short, const void*, int) {}

void CDaemon::traceDetail(char* spec) {
    if (spec != nullptr) {
        CTraceManager::setSpec(spec);
    }
}

void CDaemon::debugControl(char*) {}

void CDaemon::mainInitThread(void*) {}

}  // namespace tarn_base
