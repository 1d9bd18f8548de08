// Failures: the service's JSON-RPC errors become result codes with the
// service's own error object as the thread's error; silence is a timeout
// after which the session still works; broken, garbled, oversize and closed
// streams fail cleanly; one session serves many threads.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/znpex_client/ClientFixture.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/proto/Frame.h"

using namespace testsupport;
namespace zv = testsupport::zv;
namespace proto = znpex::proto;
using Answer = FakeService::Answer;

namespace {

Answer replyWith(proto::Json reply) {
    Answer a;
    a.reply = std::move(reply);
    return a;
}

proto::Json enumerated(const proto::RpcMessage& m, std::vector<zn_resource_handle> hs) {
    tarn_rmf2v::RMReply r;
    r.handles = std::move(hs);
    return FakeService::result(m, proto::encodeReply(r));
}

TEST_F(ClientTest, ServiceErrorsMapToCodesAndCarryTheServiceError) {
    struct Case {
        int rpcCode;
        proto::Json data;
        int expected;
        int errorId;
        const char* text;
    };
    const Case cases[] = {
        {proto::kPermissionDenied,
         errorObject(0x30001, "2660-001 Permission denied: %1$s.\n", "joe@LOCALHOST"), PX_EACCESS,
         0x30001, "2660-001 Permission denied: joe@LOCALHOST.\n"},
        {proto::kNotConnected, errorObject(0x10015, "%1$s is not connected", "Kor.ORVRM"),
         PX_ENOTCONNECTED, 0x10015, "Kor.ORVRM is not connected"},
        {proto::kOperationFailed, errorObject(0x10007, "class %1$s unknown", "Kor.X"), PX_EFAILED,
         0x10007, "class Kor.X unknown"},
        {proto::kMethodNotFound, nullptr, PX_ENOMETHOD, znpex::client::PXC_EREFUSED,
         "2661-010 The monitoring service refused rm.enumerateResources: nope.\n"},
        {proto::kInvalidParams, proto::Json("not an error object"), PX_EINVAL,
         znpex::client::PXC_EREFUSED,
         "2661-010 The monitoring service refused rm.enumerateResources: nope.\n"},
        {proto::kInternalError, nullptr, PX_EFAILED, znpex::client::PXC_EREFUSED, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rpcCode);
        service->onRm([&](const proto::RpcMessage& m) {
            return replyWith(FakeService::error(m, c.rpcCode, "nope", c.data));
        });
        if (session == nullptr) {
            startLocal();
        }
        px_enumerate_rsp_t* rsp = nullptr;
        EXPECT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), c.expected);
        EXPECT_EQ(rsp, nullptr);
        zn::ErrorPtr e = threadError();
        EXPECT_EQ(e->cu_error_id, c.errorId);
        if (c.text != nullptr) {
            EXPECT_EQ(cu_error_text(e.get()), c.text);
        }
    }
}

TEST_F(ClientTest, ASilentServiceTimesOutAndTheSessionCarriesOn) {
    std::atomic<int> calls{0};
    service->onRm([&](const proto::RpcMessage& m) {
        Answer a;
        if (calls.fetch_add(1) == 0) {
            a.delayMs = 400;  // answers, but after the client gave up
        }
        a.reply = enumerated(m, {zv::handleOf(calls.load())});
        return a;
    });
    startLocal();
    ASSERT_EQ(px_set_timeouts(session, 100), PX_OK);
    px_enumerate_rsp_t* rsp = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), PX_ETIMEDOUT);
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, std::chrono::milliseconds(90));
    EXPECT_LT(took, std::chrono::milliseconds(390));
    EXPECT_EQ(threadError()->cu_error_id, znpex::client::PXC_ETIMEDOUT);
    EXPECT_NE(threadErrorText().find("within 100 milliseconds"), std::string::npos);
    // The late answer to the first request is skipped; this one gets its own.
    ASSERT_EQ(px_set_timeouts(session, 5000), PX_OK);
    ASSERT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), PX_OK);
    ASSERT_EQ(rsp->handle_count, 1u);
    EXPECT_TRUE(rsp->handles[0] == zv::handleOf(2));
    px_free_response(rsp);
}

TEST_F(ClientTest, NotificationsAndStaleRepliesBeforeTheAnswerAreSkipped) {
    service->onRm([&](const proto::RpcMessage& m) {
        Answer a;
        a.before.push_back(proto::dumpJson(proto::makeNotification(
            "notify.resourcesUndefined", {{"class", "Kor.ManagedNode"}, {"handles", {}}})));
        a.before.push_back(proto::dumpJson(proto::makeResult(999, proto::Json::object())));
        a.before.push_back(proto::dumpJson(proto::makeResult("other", proto::Json::object())));
        a.reply = enumerated(m, {zv::handleOf(4)});
        return a;
    });
    startLocal();
    px_enumerate_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), PX_OK);
    ASSERT_EQ(rsp->handle_count, 1u);
    px_free_response(rsp);
}

TEST_F(ClientTest, BrokenStreamsFailCleanly) {
    struct Case {
        const char* name;
        std::function<Answer(const proto::RpcMessage&)> answer;
        int expected;
    };
    std::string oversize;
    proto::appendFrameHeader(oversize, proto::kMaxFrame + 1);
    const Case cases[] = {
        {"closed without answer",
         [](const proto::RpcMessage&) {
             Answer a;
             a.closeAfter = true;
             return a;
         },
         PX_ECOMM},
        {"not JSON",
         [](const proto::RpcMessage&) {
             Answer a;
             a.rawFrame = proto::encodeFrame("this is not json");
             return a;
         },
         PX_ECOMM},
        {"oversize frame",
         [&](const proto::RpcMessage&) {
             Answer a;
             a.rawFrame = oversize;
             a.closeAfter = true;
             return a;
         },
         PX_ECOMM},
        {"half a frame then close",
         [](const proto::RpcMessage&) {
             Answer a;
             a.rawFrame = proto::encodeFrame("{\"jsonrpc\":\"2.0\"}").substr(0, 9);
             a.closeAfter = true;
             return a;
         },
         PX_ECOMM},
        {"result that is no reply",
         [](const proto::RpcMessage& m) {
             return replyWith(FakeService::result(m, proto::Json::parse(R"({"handles":[5]})")));
         },
         PX_ECOMM},
        {"error without id",
         [](const proto::RpcMessage&) {
             return replyWith(proto::makeError(nullptr, proto::kParseError, "cannot read"));
         },
         PX_ECOMM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        service->onRm(c.answer);
        px_session_t s = nullptr;
        ASSERT_EQ(px_start_session(nullptr, 0, 1, &s), PX_OK);
        px_set_timeouts(s, 3000);
        px_enumerate_rsp_t* rsp = nullptr;
        EXPECT_EQ(px_enumerate_select(s, "Kor.ManagedNode", nullptr, &rsp), c.expected);
        EXPECT_EQ(rsp, nullptr);
        EXPECT_FALSE(threadErrorText().empty());
        EXPECT_EQ(px_end_session(s), PX_OK);
    }
}

TEST_F(ClientTest, ALostConnectionFailsEveryLaterCallAtOnce) {
    service->onRm([](const proto::RpcMessage&) {
        Answer a;
        a.closeAfter = true;
        return a;
    });
    startLocal();
    px_enumerate_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), PX_ECOMM);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &rsp), PX_ECOMM);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100));
    EXPECT_NE(threadErrorText().find("lost earlier"), std::string::npos);
}

TEST_F(ClientTest, OneSessionServesManyThreads) {
    service->onRm([](const proto::RpcMessage& m) {
        // Echo the selection back as the handle seed, so mixed-up replies show.
        std::string sel = m.params.value("selection", "0");
        return replyWith(enumerated(m, {zv::handleOf(static_cast<unsigned char>(std::stoi(sel)))}));
    });
    startLocal();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                std::string sel = std::to_string(t * 25 + i);
                px_enumerate_rsp_t* rsp = nullptr;
                if (px_enumerate_select(session, "Kor.ManagedNode", sel.c_str(), &rsp) != PX_OK ||
                    rsp->handle_count != 1 ||
                    !(rsp->handles[0] == zv::handleOf(static_cast<unsigned char>(t * 25 + i)))) {
                    wrong.fetch_add(1);
                }
                px_free_response(rsp);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(requestsOf("rm.enumerateSelectResources").size(), 200u);
}

}  // namespace
