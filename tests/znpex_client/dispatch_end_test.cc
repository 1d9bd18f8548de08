// Ending a session from any thread while calls run on it: a px_dispatch on
// it returns PX_DISPATCH_ENDED, requests under way finish, calls that begin
// afterwards are refused, and the session goes only after the last call on
// it has left. Many sessions at once, each ended from another thread, from
// two at once, from its own callback or before its dispatch began; the
// ThreadSanitizer and AddressSanitizer builds run these as they are.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "tests/znpex_client/ClientFixture.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/client/px_event.h"

using namespace testsupport;
namespace zv = testsupport::zv;
namespace proto = znpex::proto;
using Answer = FakeService::Answer;

namespace {

constexpr char kClass[] = "Kor.ManagedNode";
constexpr auto kLongEnough = std::chrono::seconds(20);  // only a hang takes this long

std::string firedFrame(uint64_t registration) {
    return proto::dumpJson(
        proto::makeNotification("event.fired", {{"registration", registration},
                                                {"class", kClass},
                                                {"flags", 0},
                                                {"attributes", proto::Json::array()}}));
}

// The service side: a watch registers as id 1; every enumeration is answered
// after `eventsPerAnswer` events of that watch.
void serveWatches(FakeService& service, int eventsPerAnswer) {
    service.on("event.register", [](const proto::RpcMessage& m) {
        Answer a;
        a.reply = FakeService::result(m, {{"registration", 1}});
        return a;
    });
    service.onRm([eventsPerAnswer](const proto::RpcMessage& m) {
        Answer a;
        for (int i = 0; i < eventsPerAnswer; ++i) {
            a.before.push_back(firedFrame(1));
        }
        tarn_rmf2v::RMReply r;
        r.handles = {zv::handleOf(1)};
        a.reply = FakeService::result(m, proto::encodeReply(r));
        return a;
    });
}

// How a session of the loop below is ended.
enum class Ending { OtherThread, TwoThreads, OwnCallback, BeforeDispatch };

// One session of the loop, with what its threads saw.
struct Watched {
    Ending how = Ending::OtherThread;
    int endAfter = 0;  // events delivered before it is ended
    px_session_t session = nullptr;
    std::atomic<int> delivered{0};
    std::atomic<int> callbackEnd{-1};  // px_end_session's result in the callback
    int dispatchRc = -1;
    int lastRequestRc = -1;
    int requestsOk = 0;
    int endRc[2] = {-1, -1};
    bool waitedOut[2] = {false, false};  // the events to end after never came
};

void countAndMaybeEnd(void* session, px_event_2_t* e, void* arg) {
    auto* w = static_cast<Watched*>(arg);
    px_free_response(e);
    int n = w->delivered.fetch_add(1) + 1;
    if (w->how == Ending::OwnCallback && n == w->endAfter) {
        w->callbackEnd.store(px_end_session(static_cast<px_session_t>(session)));
    }
}

bool registerWatch(px_session_t s, px_event_cb_t cb, void* arg) {
    px_reg_event_rsp_t* rsp = nullptr;
    int rc =
        px_reg_event_select(s, 2, kClass, nullptr, nullptr, 0, "Status==1", nullptr, cb, arg, &rsp);
    px_free_response(rsp);
    return rc == PX_OK;
}

// Waits until w has delivered n events (false after kLongEnough).
bool waitDelivered(const Watched& w, int n) {
    auto end = std::chrono::steady_clock::now() + kLongEnough;
    while (w.delivered.load() < n) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

TEST_F(ClientTest, ManyThreadsEndSessionsUnderDispatch) {
    serveWatches(*service, 2);
    constexpr int kRounds = 20;
    constexpr int kSessions = 8;
    const Ending ways[] = {Ending::OtherThread, Ending::TwoThreads, Ending::OwnCallback,
                           Ending::BeforeDispatch};
    int ended = 0;
    for (int round = 0; round < kRounds; ++round) {
        // All sessions of a round are up before any ends, so no new session
        // can be handed an ended one's address while its threads still call.
        std::vector<std::unique_ptr<Watched>> ws;
        for (int i = 0; i < kSessions; ++i) {
            auto w = std::make_unique<Watched>();
            w->how = ways[(round + i) % 4];
            w->endAfter = (round * kSessions + i) % 4;  // 0: at once
            if (w->how == Ending::OwnCallback && w->endAfter == 0) {
                w->endAfter = 1;
            }
            ASSERT_EQ(px_start_session(nullptr, 0, 0x401, &w->session), PX_OK);
            ASSERT_TRUE(registerWatch(w->session, &countAndMaybeEnd, w.get()));
            ws.push_back(std::move(w));
        }
        std::vector<std::thread> threads;
        for (auto& wp : ws) {
            Watched* w = wp.get();
            auto dispatch = [w] { w->dispatchRc = px_dispatch(w->session, 1); };
            auto request = [w] {
                // Keeps events coming until the session refuses the call.
                for (;;) {
                    px_enumerate_rsp_t* rsp = nullptr;
                    w->lastRequestRc = px_enumerate_select(w->session, kClass, nullptr, &rsp);
                    px_free_response(rsp);
                    if (w->lastRequestRc != PX_OK) {
                        return;
                    }
                    ++w->requestsOk;
                }
            };
            auto end = [w](int which) {
                w->waitedOut[which] = !waitDelivered(*w, w->endAfter);
                w->endRc[which] = px_end_session(w->session);
            };
            switch (w->how) {
                case Ending::BeforeDispatch:
                    w->endRc[0] = px_end_session(w->session);
                    threads.emplace_back(dispatch);
                    threads.emplace_back(request);
                    break;
                case Ending::OwnCallback:
                    threads.emplace_back(dispatch);
                    threads.emplace_back(request);
                    break;
                case Ending::OtherThread:
                    threads.emplace_back(dispatch);
                    threads.emplace_back(request);
                    threads.emplace_back(end, 0);
                    break;
                case Ending::TwoThreads:
                    threads.emplace_back(dispatch);
                    threads.emplace_back(request);
                    threads.emplace_back(end, 0);
                    threads.emplace_back(end, 1);
                    break;
            }
        }
        for (auto& t : threads) {
            t.join();
        }
        for (size_t i = 0; i < ws.size(); ++i) {
            const Watched& w = *ws[i];
            SCOPED_TRACE("round " + std::to_string(round) + " session " + std::to_string(i) +
                         " ending " + std::to_string(static_cast<int>(w.how)) + " after " +
                         std::to_string(w.endAfter));
            EXPECT_FALSE(w.waitedOut[0] || w.waitedOut[1]);
            EXPECT_EQ(w.dispatchRc, PX_DISPATCH_ENDED);
            // The call that came after the end was refused, not sent.
            EXPECT_EQ(w.lastRequestRc, PX_EINVAL);
            switch (w.how) {
                case Ending::BeforeDispatch:
                    EXPECT_EQ(w.endRc[0], PX_OK);
                    EXPECT_EQ(w.requestsOk, 0);
                    EXPECT_EQ(w.delivered.load(), 0);
                    break;
                case Ending::OwnCallback:
                    EXPECT_EQ(w.callbackEnd.load(), PX_OK);
                    EXPECT_EQ(w.delivered.load(), w.endAfter);
                    break;
                case Ending::OtherThread:
                    EXPECT_EQ(w.endRc[0], PX_OK);
                    EXPECT_GE(w.delivered.load(), w.endAfter);
                    break;
                case Ending::TwoThreads:
                    // One of them ends it; the other is refused.
                    EXPECT_EQ(std::min(w.endRc[0], w.endRc[1]), PX_OK);
                    EXPECT_EQ(std::max(w.endRc[0], w.endRc[1]), PX_EINVAL);
                    break;
            }
            ++ended;
        }
    }
    // Each session told the service once that it ended.
    EXPECT_EQ(requestsOf("session.end").size(), static_cast<size_t>(ended));
}

// The dispatcher waits on the socket without a time limit; another call on
// the session wakes it to get the connection, and events that call read
// reach the callbacks without waiting for more traffic.
TEST_F(ClientTest, ABlockedDispatchLetsOtherCallsThroughAndDeliversWhatTheyRead) {
    serveWatches(*service, 1);
    startLocal();
    Watched w;
    ASSERT_TRUE(registerWatch(session, &countAndMaybeEnd, &w));
    auto dispatched = std::async(std::launch::async, [&] { return px_dispatch(session, 1); });
    for (int i = 1; i <= 3; ++i) {
        auto asked = std::async(std::launch::async, [&] {
            px_enumerate_rsp_t* rsp = nullptr;
            int rc = px_enumerate_select(session, kClass, nullptr, &rsp);
            px_free_response(rsp);
            return rc;
        });
        ASSERT_EQ(asked.wait_for(kLongEnough), std::future_status::ready) << "request " << i;
        EXPECT_EQ(asked.get(), PX_OK);
        EXPECT_TRUE(waitDelivered(w, i)) << "event " << i;
    }
    EXPECT_EQ(dispatched.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    // A second dispatch on the same session is refused while the first runs.
    EXPECT_EQ(px_dispatch(session, 1), PX_EINVAL);
    EXPECT_EQ(threadError()->cu_error_id, znpex::client::PXC_EINVAL);
    ASSERT_EQ(px_end_session(session), PX_OK);
    session = nullptr;
    ASSERT_EQ(dispatched.wait_for(kLongEnough), std::future_status::ready);
    EXPECT_EQ(dispatched.get(), PX_DISPATCH_ENDED);
    EXPECT_EQ(w.delivered.load(), 3);
}

// A request under way when the session is ended finishes with its answer;
// px_end_session tells the service after it.
TEST_F(ClientTest, ARequestUnderWayFinishesBeforeTheSessionEnds) {
    std::promise<void> asked;
    std::atomic<bool> first{true};
    service->onRm([&](const proto::RpcMessage& m) {
        if (first.exchange(false)) {
            asked.set_value();
        }
        Answer a;
        a.delayMs = 300;
        tarn_rmf2v::RMReply r;
        r.handles = {zv::handleOf(5)};
        a.reply = FakeService::result(m, proto::encodeReply(r));
        return a;
    });
    startLocal();
    px_session_t s = session;
    session = nullptr;
    auto answered = std::async(std::launch::async, [s] {
        px_enumerate_rsp_t* rsp = nullptr;
        int rc = px_enumerate_select(s, kClass, nullptr, &rsp);
        uint32_t n = rc == PX_OK ? rsp->handle_count : 0;
        px_free_response(rsp);
        return std::make_pair(rc, n);
    });
    asked.get_future().wait();
    EXPECT_EQ(px_end_session(s), PX_OK);
    ASSERT_EQ(answered.wait_for(kLongEnough), std::future_status::ready);
    auto [rc, n] = answered.get();
    EXPECT_EQ(rc, PX_OK);
    EXPECT_EQ(n, 1u);
    auto methods = service->methods();
    ASSERT_FALSE(methods.empty());
    EXPECT_EQ(methods.back(), "session.end");
}

}  // namespace
