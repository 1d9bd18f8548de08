// The daemon base: a name, the default and full trace specifications, and the
// controller loop that the main thread sits in. On this platform the
// subsystem controller is the service manager and signals:
//   SIGTERM, SIGINT  stop normally (exit status 0)
//   SIGQUIT          stop at once (stopForce)
//   SIGHUP           refresh()
//   SIGUSR1          full trace (traceOn), SIGUSR2 default trace (traceOff)
// The constructor blocks these signals in the calling thread, so every thread
// started afterwards inherits the mask and only the controller loop sees them.
#pragma once

#include <atomic>
#include <csignal>
#include <string>

namespace tarn_base {

class CDaemon {
public:
    CDaemon(const char* name, unsigned int size1, unsigned int size2, const char* defaultTraceSpec,
            const char* fullTraceSpec, unsigned int flags);
    virtual ~CDaemon();
    CDaemon(const CDaemon&) = delete;
    CDaemon& operator=(const CDaemon&) = delete;

    // Runs the controller loop until a stop; returns the exit status.
    virtual int handleSRC(int arg);
    virtual void stopNormal();
    virtual void stopForce();
    virtual void stopCancel(int);
    virtual void traceOn(int);
    virtual void traceOff();
    virtual void refresh();
    virtual std::string getStatus();
    virtual void otherRequest(short, short, short, const void*, int);
    virtual void traceDetail(char* spec);
    virtual void debugControl(char*);
    virtual void mainInitThread(void*);

    // Asks the loop to end with `status`; safe from any thread.
    void requestStop(int status);
    bool stopping() const { return stop_.load(); }
    const std::string& name() const { return name_; }
    const std::string& defaultTraceSpec() const { return defaultSpec_; }
    const std::string& fullTraceSpec() const { return fullSpec_; }
    // Signals the controller loop handles (blocked by the constructor).
    static sigset_t controlSignals();

protected:
    // Called by the loop once before it waits (the place to tell the service
    // manager that start-up is complete).
    virtual void loopStarted() {}

private:
    std::string name_;
    std::string defaultSpec_;
    std::string fullSpec_;
    std::atomic<bool> stop_{false};
    std::atomic<int> status_{0};
};

}  // namespace tarn_base
