#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "tarn_base/CDaemon.h"
#include "tarn_base/CTraceManager.h"
#include "tests/support/Subprocess.h"

namespace {

// Records what the controller loop called.
class TestDaemon : public tarn_base::CDaemon {
public:
    TestDaemon() : CDaemon("test", 0, 0, "*:Errors=255", "*:*=255", 0) {}
    void refresh() override { ++refreshes; }
    void stopNormal() override {
        ++stops;
        CDaemon::stopNormal();
    }
    void loopStarted() override { started.set_value(); }
    std::atomic<int> refreshes{0};
    std::atomic<int> stops{0};
    std::promise<void> started;
};

// The whole controller protocol in one process: signals arrive while the loop
// runs on the main thread of this test.
TEST(CDaemon, SignalsDriveRefreshTraceAndStop) {
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    auto* comp = tarn_base::CTraceManager::newComponent("_DMNt", cats, 2);
    TestDaemon d;
    auto started = d.started.get_future();
    std::thread controller([&] {
        started.wait();
        kill(getpid(), SIGHUP);
        kill(getpid(), SIGUSR1);
        EXPECT_TRUE(testsupport::waitFor([&] { return comp->level(1) == 255; }))
            << "full trace after SIGUSR1";
        kill(getpid(), SIGUSR2);
        EXPECT_TRUE(testsupport::waitFor([&] { return comp->level(1) == 0; }))
            << "default trace after SIGUSR2";
        kill(getpid(), SIGTERM);
    });
    int status = d.handleSRC(0);
    controller.join();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(d.refreshes.load(), 1);
    EXPECT_EQ(d.stops.load(), 1);
}

TEST(CDaemon, RequestStopFromAnotherThreadEndsTheLoopWithItsStatus) {
    TestDaemon d;
    auto started = d.started.get_future();
    std::thread other([&] {
        started.wait();
        d.requestStop(3);
    });
    EXPECT_EQ(d.handleSRC(0), 3);
    other.join();
    EXPECT_EQ(d.stops.load(), 0);
}

TEST(CDaemon, ConstructorBlocksTheControlSignalsForLaterThreads) {
    TestDaemon d;
    std::atomic<bool> blocked{false};
    std::thread t([&] {
        sigset_t cur;
        pthread_sigmask(SIG_SETMASK, nullptr, &cur);
        blocked = sigismember(&cur, SIGTERM) == 1 && sigismember(&cur, SIGHUP) == 1;
    });
    t.join();
    EXPECT_TRUE(blocked.load());
}

}  // namespace
