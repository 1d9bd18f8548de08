#include "tarn_base/CRunnable.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <atomic>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>

#include "tarn_base/CException.h"

namespace {

// Records where and with what it ran, and optionally throws.
class Recorder : public tarn_base::CRunnable {
public:
    enum class Throw { Nothing, StdError, Int };
    explicit Recorder(Throw what = Throw::Nothing) : throw_(what) {}
    ~Recorder() override { join(); }

    void run(void* arg) override {
        runThread = std::this_thread::get_id();
        seenArg = arg;
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        termBlocked = sigismember(&mask, SIGTERM) == 1;
        chldBlocked = sigismember(&mask, SIGCHLD) == 1;
        segvBlocked = sigismember(&mask, SIGSEGV) == 1;
        if (throw_ == Throw::StdError) {
            throw std::runtime_error("body failed");
        }
        if (throw_ == Throw::Int) {
            throw 42;
        }
    }

    std::thread::id runThread;
    void* seenArg = nullptr;
    bool termBlocked = false;
    bool chldBlocked = false;
    bool segvBlocked = true;

private:
    Throw throw_;
};

TEST(CRunnableTest, StartRunsTheBodyOnAnotherThreadWithAsynchronousSignalsBlocked) {
    Recorder r;
    int payload = 7;
    r.start(&payload);
    r.join();
    EXPECT_NE(r.runThread, std::this_thread::get_id());
    EXPECT_EQ(r.seenArg, &payload);
    EXPECT_EQ(r.exception(), nullptr);
    EXPECT_TRUE(r.termBlocked);
    EXPECT_TRUE(r.chldBlocked);
    EXPECT_FALSE(r.segvBlocked) << "synchronous signals stay deliverable";
}

TEST(CRunnableTest, HandleSyncSignalsZeroUnblocksOnTheCallingThread) {
    Recorder r;
    std::thread t([&r] {
        r.handleSyncSignals(1);
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGHUP), 1);
        r.handleSyncSignals(0);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGHUP), 0);
        EXPECT_EQ(sigismember(&mask, SIGUSR1), 0);
    });
    t.join();
}

TEST(CRunnableTest, EscapingExceptionsAreKeptAndNeverEndTheProcess) {
    struct Case {
        Recorder::Throw what;
        std::string text;  // "" for a non-std exception
    };
    for (const Case& c :
         {Case{Recorder::Throw::StdError, "body failed"}, Case{Recorder::Throw::Int, ""}}) {
        Recorder r(c.what);
        r.start(nullptr);
        r.join();
        ASSERT_NE(r.exception(), nullptr);
        try {
            std::rethrow_exception(r.exception());
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(e.what(), c.text);
        } catch (int v) {
            EXPECT_TRUE(c.text.empty());
            EXPECT_EQ(v, 42);
        }
    }
}

TEST(CRunnableTest, OverriddenHandlerRunsOnTheBodyThreadAndMayThrowItself) {
    struct Handler : Recorder {
        Handler() : Recorder(Throw::StdError) {}
        void handleException() override {
            handlerThread = std::this_thread::get_id();
            try {
                throw;
            } catch (const std::runtime_error& e) {
                caught = e.what();
            }
            throw std::logic_error("handler fails too");
        }
        std::thread::id handlerThread;
        std::string caught;
    };
    Handler h;
    h.start(nullptr);
    h.join();
    EXPECT_EQ(h.handlerThread, h.runThread);
    EXPECT_EQ(h.caught, "body failed");
    EXPECT_EQ(h.exception(), nullptr);  // the override did not keep it
}

TEST(CRunnableTest, StartWhileUnjoinedThrowsAndAJoinedRunnableStartsAgain) {
    struct Gate : tarn_base::CRunnable {
        ~Gate() override { join(); }
        void run(void*) override {
            while (!open.load()) {
                std::this_thread::yield();
            }
            ++runs;
        }
        std::atomic<bool> open{false};
        std::atomic<int> runs{0};
    };
    Gate g;
    g.start(nullptr);
    EXPECT_THROW(g.start(nullptr), tarn_base::CErrorException);
    g.open = true;
    g.join();
    g.start(nullptr);
    g.join();
    EXPECT_EQ(g.runs.load(), 2);
}

TEST(CRunnableTest, JoinWithoutAThreadReturnsAtOnce) {
    Recorder r;
    r.join();
    r.join();
    EXPECT_EQ(r.runThread, std::thread::id());
}

}  // namespace
