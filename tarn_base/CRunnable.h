// A body of work that can run on a plain thread of its own. start(arg) starts
// one thread running run(arg); join() waits for it. An exception escaping run()
// goes to handleException() on that thread and never ends the process.
#pragma once

#include <exception>
#include <thread>

namespace tarn_base {

class CRunnable {
  public:
    CRunnable() = default;
    CRunnable(const CRunnable&) = delete;
    CRunnable& operator=(const CRunnable&) = delete;
    // Joins a thread still running as a last resort; a derived class whose run()
    // uses its own members must join() in its own destructor.
    virtual ~CRunnable();

    // The body. Runs on the thread made by start(), or on the caller's thread
    // when called directly.
    virtual void run(void* arg) = 0;
    // Called on the runnable's thread, inside the handler, when run() let an
    // exception escape (std::current_exception() is it). The base keeps it for
    // exception() and writes one line to standard error.
    virtual void handleException();
    // Sets the calling thread's signal mask for a body: non-zero blocks the
    // asynchronous signals (hang-up, interrupt, quit, termination, user, alarm,
    // child) so they reach the daemon's controller thread and not a body; zero
    // unblocks them. Synchronous fault signals are never blocked. The new
    // thread calls it with 1 before run().
    virtual void handleSyncSignals(int block);

    // Starts a thread running run(arg). Throws CErrorException when a thread of
    // this object is still to be joined or no thread can be made.
    void start(void* arg);
    // Waits for the thread made by start() to end; returns at once if there is
    // none. Not to be called from the runnable's own thread.
    void join();
    // The exception that ended the last run() started by start(), or null.
    std::exception_ptr exception() const { return error_; }

  private:
    void threadMain(void* arg);

    std::thread thread_;
    std::exception_ptr error_;
};

}  // namespace tarn_base
