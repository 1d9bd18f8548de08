// Pipelining: a request per resource goes out with up to the window of them
// on the wire, answers are matched by id whatever their order, and a failure
// ends the batch without leaving the session out of step.
#include <algorithm>
#include <mutex>

#include "tests/znpex_client/ClientFixture.h"
#include "znpex/client/Session.h"

using namespace testsupport;
namespace zv = testsupport::zv;
namespace proto = znpex::proto;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;

namespace {

class PipelineTest : public ClientTest {
protected:
    void SetUp() override {
        ClientTest::SetUp();
        for (unsigned char i = 1; i <= kCount; ++i) {
            handles.push_back(zv::handleOf(i));
        }
    }
    // The name a resource's answer carries: its place among the handles.
    std::string nameOf(const zn_resource_handle& h) const {
        auto it = std::find(handles.begin(), handles.end(), h);
        return "n" + std::to_string(it - handles.begin());
    }
    proto::Json answerFor(const proto::RpcMessage& m) const {
        auto op = proto::opFromRmMethod(m.method);
        RMRequest r = proto::decodeRequestParams(*op, m.params);
        RMReply reply;
        reply.values.push_back({0, zv::str(nameOf(r.handle).c_str())});
        return FakeService::result(m, proto::encodeReply(reply));
    }
    px_resources_rsp_t* queryAll() {
        const char* names[] = {"Hostname"};
        px_resources_rsp_t* rsp = nullptr;
        last = px_query_persistent_attrs(session, "Kor.ManagedNode", handles.data(),
                                         static_cast<uint32_t>(handles.size()), names, 1, &rsp);
        return rsp;
    }
    void expectEachAnswerAtItsHandle(const px_resources_rsp_t* rsp) {
        ASSERT_NE(rsp, nullptr);
        ASSERT_EQ(rsp->resource_count, handles.size());
        for (size_t i = 0; i < handles.size(); ++i) {
            const px_resource_rsp_t& e = rsp->resources[i];
            EXPECT_TRUE(e.handle == handles[i]);
            ASSERT_EQ(e.attr_count, 1u);
            EXPECT_EQ(std::string(e.attrs[0].pv_value.ptr_char), "n" + std::to_string(i));
        }
    }
    static constexpr unsigned char kCount = 40;
    std::vector<zn_resource_handle> handles;
    int last = PX_OK;
};

TEST_F(PipelineTest, AnswersInAnyOrderLandAtTheirOwnResourceAndTheWindowHolds) {
    // Answers are held until a full window waits (or the last request came),
    // then sent newest first.
    std::mutex mu;
    std::vector<proto::Json> held;
    size_t seen = 0;
    size_t most = 0;
    service->onRm([&](const proto::RpcMessage& m) {
        std::lock_guard<std::mutex> g(mu);
        held.push_back(answerFor(m));
        ++seen;
        most = std::max(most, held.size());
        FakeService::Answer a;
        if (held.size() == znpex::client::kPipelineWindow || seen == kCount) {
            for (auto it = held.rbegin(); it != held.rend(); ++it) {
                a.before.push_back(proto::dumpJson(*it));
            }
            held.clear();
        }
        return a;
    });
    startLocal();
    px_resources_rsp_t* rsp = queryAll();
    ASSERT_EQ(last, PX_OK) << threadErrorText();
    expectEachAnswerAtItsHandle(rsp);
    px_free_response(rsp);
    std::lock_guard<std::mutex> g(mu);
    EXPECT_EQ(seen, kCount);
    EXPECT_GT(most, 1u);  // several on the wire at once
    EXPECT_EQ(most, znpex::client::kPipelineWindow);
}

TEST_F(PipelineTest, AnErrorAnswerEndsTheBatchAndTheNextCallIsInStep) {
    std::mutex mu;
    size_t seen = 0;
    bool failOnce = true;
    service->onRm([&](const proto::RpcMessage& m) {
        std::lock_guard<std::mutex> g(mu);
        FakeService::Answer a;
        if (++seen == 5 && failOnce) {
            failOnce = false;
            a.reply = FakeService::error(m, -32003, "not allowed");
        } else {
            a.reply = answerFor(m);
        }
        return a;
    });
    startLocal();
    px_resources_rsp_t* rsp = queryAll();
    EXPECT_NE(last, PX_OK);
    EXPECT_EQ(rsp, nullptr);
    EXPECT_NE(threadErrorText().find("not allowed"), std::string::npos) << threadErrorText();
    // Answers to the rest of the failed batch may still arrive; the next call
    // must skip them and read only its own.
    rsp = queryAll();
    ASSERT_EQ(last, PX_OK) << threadErrorText();
    expectEachAnswerAtItsHandle(rsp);
    px_free_response(rsp);
}

}  // namespace
