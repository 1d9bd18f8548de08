#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <set>
#include <thread>

#include "tarn_base/CException.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tests/support/TempDir.h"

namespace {

using namespace tarn_rmf2v;

std::vector<std::string> g_defects;
std::mutex g_defectMu;

class DefectRecorder {
public:
    DefectRecorder() {
        setResponseDefectHandler([](const std::string& w) {
            std::lock_guard<std::mutex> g(g_defectMu);
            g_defects.push_back(w);
        });
    }
    ~DefectRecorder() {
        setResponseDefectHandler(nullptr);
        std::lock_guard<std::mutex> g(g_defectMu);
        g_defects.clear();
    }
    std::vector<std::string> defects() {
        std::lock_guard<std::mutex> g(g_defectMu);
        return g_defects;
    }
};

std::atomic<int> g_rcpsAlive{0};

class TestRcp : public RMRcp {
public:
    TestRcp(const zn_resource_handle* h, RMRccp* c) : RMRcp(h, c, 1) { ++g_rcpsAlive; }
    ~TestRcp() override {
        alive = false;
        --g_rcpsAlive;
    }
    void getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int n) override {
        lockRcp guard(this);
        for (unsigned i = 0; i < n; ++i) {
            rm_attribute_value v{ids[i], ZN_UINT32, {}};
            v.rm_value.val_uint32 = 100u + static_cast<unsigned>(ids[i]);
            rsp->addValue(&v, 1);
        }
        rsp->done();
    }
    std::atomic<bool> alive{true};
};

// Actions: 1 throws a catalogued error, 2 finishes twice, 3 never finishes,
// 4 throws std::bad_alloc, 5 answers with data.
class TestRccp : public RMRccp {
public:
    explicit TestRccp(RMRmcp* m) : RMRccp("Kor.Test", RM_OBJECT_CLASS, m) {}
    void invokeClassAction(RMActionResponse* rsp, int actionId, zn_structured_data*) override {
        lockRccp guard(this);
        switch (actionId) {
            case 1: {
                cu_error_t* e = nullptr;
                cu_pkg_error_1(&e, 0x18000, nullptr, "Kor.ORVRM.cat", 1, 50,
                               "2655-050 Invalid input to action.\n");
                throw tarn_base::CErrorException("bad input", 0, e);
            }
            case 2:
                rsp->done(nullptr);
                rsp->done(nullptr);
                return;
            case 3:
                return;
            case 4:
                throw std::bad_alloc();
            default: {
                zn_structured_data* sd = zn_sd_new(1);
                sd->elements[0].data_type = ZN_INT32;
                sd->elements[0].value.val_int32 = -7;
                rsp->returnData(sd);
                zn_value_t v;
                v.ptr_sd = sd;
                zn_value_free(ZN_SD_PTR, v);
                rsp->done(nullptr);
            }
        }
    }
    TestRcp* add() {
        zn_resource_handle h;
        makeResourceHandles(1, 7, 0, &h);
        auto* rcp = new TestRcp(&h, this);
        addRcp(rcp);
        return rcp;
    }
};

class Dispatch : public ::testing::Test {
protected:
    Dispatch() : root_(true), rmcp_("Kor.Test.RM", 1, nullptr, 0, 1) {
        rccp_ = new TestRccp(&rmcp_);  // owned by rmcp_
    }
    RMReply classOp(RMRequestOp op, std::vector<int> ids = {}, int actionId = 0) {
        RMRequest r;
        r.op = op;
        r.className = "Kor.Test";
        r.ids = std::move(ids);
        r.actionId = actionId;
        return rmcp_.dispatchSync(r);
    }
    testsupport::TempDir root_;
    DefectRecorder defects_;
    RMRmcp rmcp_;
    TestRccp* rccp_;
};

int errorId(const zn::ErrorPtr& e) { return e ? e->cu_error_id : 0; }

TEST_F(Dispatch, UnknownClassAndHandleAreCommonErrors) {
    RMRequest r;
    r.op = RMRequestOp::EnumerateResources;
    r.className = "kor.test";  // case matters
    EXPECT_EQ(errorId(rmcp_.dispatchSync(r).error), tarn_rmf::RM_EINVALIDCLASS);
    RMRequest g;
    g.op = RMRequestOp::GetAttributeValues;
    g.className = "Kor.Test";
    g.ids = {0};
    EXPECT_EQ(errorId(rmcp_.dispatchSync(g).error), tarn_rmf::RM_EINVALIDHANDLE);
}

TEST_F(Dispatch, DefaultsAnswerEveryIdAndOperation) {
    RMReply get = classOp(RMRequestOp::GetClassAttributeValues, {0, 4, 9});
    ASSERT_EQ(get.items.size(), 3u);
    for (const auto& item : get.items) {
        EXPECT_EQ(errorId(item.error), tarn_rmf::RM_EINVALIDATTRID);
    }
    EXPECT_FALSE(get.error);
    EXPECT_EQ(errorId(classOp(RMRequestOp::DefineResource).error), tarn_rmf::RM_ENOTSUPPORTED);
    EXPECT_EQ(errorId(classOp(RMRequestOp::StartMonitoringMatchSet).error),
              tarn_rmf::RM_ENOTSUPPORTED);
    EXPECT_FALSE(classOp(RMRequestOp::RefreshConfig).error);
    EXPECT_TRUE(defects_.defects().empty());
}

TEST_F(Dispatch, ResourceRequestsReachTheirControlPoint) {
    TestRcp* rcp = rccp_->add();
    RMRequest r;
    r.op = RMRequestOp::GetAttributeValues;
    r.className = "Kor.Test";
    r.handle = *rcp->getResourceHandle();
    r.ids = {2, 3};
    RMReply reply = rmcp_.dispatchSync(r);
    ASSERT_EQ(reply.values.size(), 2u);
    EXPECT_EQ(reply.values[1].id, 3);
    EXPECT_EQ(reply.values[1].value.value().val_uint32, 103u);
    r.op = RMRequestOp::Online;
    EXPECT_EQ(errorId(rmcp_.dispatchSync(r).error), tarn_rmf::RM_ENOTSUPPORTED);
    RMReply all = classOp(RMRequestOp::EnumerateResources);
    ASSERT_EQ(all.handles.size(), 1u);
    EXPECT_TRUE(all.handles[0] == *rcp->getResourceHandle());
}

TEST_F(Dispatch, ExceptionsAreMappedAtTheBoundary) {
    RMReply thrown = classOp(RMRequestOp::InvokeClassAction, {}, 1);
    ASSERT_TRUE(thrown.error);
    EXPECT_EQ(thrown.error->cu_error_id, 0x18000);
    EXPECT_EQ(cu_error_text(thrown.error.get()), "2655-050 Invalid input to action.\n");
    EXPECT_EQ(errorId(classOp(RMRequestOp::InvokeClassAction, {}, 4).error), tarn_rmf::RM_ENOMEM);
    RMReply data = classOp(RMRequestOp::InvokeClassAction, {}, 5);
    EXPECT_FALSE(data.error);
    ASSERT_EQ(data.actionData.size(), 1u);
    EXPECT_EQ(data.actionData[0]->elements[0].value.val_int32, -7);
    EXPECT_TRUE(defects_.defects().empty());
}

TEST_F(Dispatch, FinishingTwiceOrNeverIsReportedAndTheClientStillGetsOneAnswer) {
    RMReply twice = classOp(RMRequestOp::InvokeClassAction, {}, 2);
    EXPECT_FALSE(twice.error);
    ASSERT_EQ(defects_.defects().size(), 1u);
    EXPECT_NE(defects_.defects()[0].find("finished twice"), std::string::npos);
    RMReply never = classOp(RMRequestOp::InvokeClassAction, {}, 3);
    EXPECT_EQ(errorId(never.error), tarn_rmf::RM_EINTERNAL);
    ASSERT_EQ(defects_.defects().size(), 2u);
    EXPECT_NE(defects_.defects()[1].find("without finishing"), std::string::npos);
}

TEST_F(Dispatch, SubmittedRequestsRunOnTheDispatchThreads) {
    RMRequest early;
    early.className = "Kor.Test";
    std::promise<RMReply> refused;
    rmcp_.submit(std::move(early), [&](RMReply&& r) { refused.set_value(std::move(r)); });
    EXPECT_EQ(errorId(refused.get_future().get().error), tarn_rmf::RM_ENOTCONNECTED);

    for (int i = 0; i < 5; ++i) {
        unsigned long tid = 0;
        rmcp_.start(&tid);
        EXPECT_NE(tid, 0u);
    }
    EXPECT_EQ(rmcp_.dispatchThreadCount(), 5u);
    constexpr int kRequests = 200;
    std::atomic<int> answered{0};
    std::promise<void> all;
    for (int i = 0; i < kRequests; ++i) {
        RMRequest r;
        r.op = RMRequestOp::InvokeClassAction;
        r.className = "Kor.Test";
        r.actionId = 5;
        rmcp_.submit(std::move(r), [&](RMReply&& reply) {
            EXPECT_FALSE(reply.error);
            if (++answered == kRequests) {
                all.set_value();
            }
        });
    }
    ASSERT_EQ(all.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    rmcp_.cleanup();
    EXPECT_EQ(rmcp_.dispatchThreadCount(), 0u);
}

// A reserved control point outlives its deletion until the holder lets go.
TEST_F(Dispatch, ReservationKeepsAControlPointAliveAcrossDeletion) {
    TestRcp* rcp = rccp_->add();
    zn_resource_handle h = *rcp->getResourceHandle();
    RMRcp* held = rccp_->findAndReserveRcp(&h);
    ASSERT_EQ(held, rcp);
    int before = g_rcpsAlive.load();
    rcp->deleteRcp();
    EXPECT_EQ(rccp_->findRcpByHandle(&h), nullptr);
    EXPECT_EQ(g_rcpsAlive.load(), before) << "destroyed under its holder";
    EXPECT_TRUE(static_cast<TestRcp*>(held)->alive.load());
    held->unreserve();
    EXPECT_EQ(g_rcpsAlive.load(), before - 1);
}

TEST_F(Dispatch, ReserveAndDeleteRaceNeverTouchesAFreedControlPoint) {
    constexpr int kRcps = 300;
    std::vector<zn_resource_handle> handles;
    for (int i = 0; i < kRcps; ++i) {
        handles.push_back(*rccp_->add()->getResourceHandle());
    }
    std::atomic<bool> stop{false};
    std::atomic<long> touched{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&, t] {
            for (int round = 0; !stop; ++round) {
                const auto& h = handles[static_cast<size_t>((round * 7 + t) % kRcps)];
                if (RMRcp* r = rccp_->findAndReserveRcp(&h)) {
                    EXPECT_TRUE(static_cast<TestRcp*>(r)->alive.load());
                    ++touched;
                    r->unreserve();
                }
            }
        });
    }
    // Deletion starts only once the readers are busy, so the race is real.
    while (touched.load() < 1000) {
        std::this_thread::yield();
    }
    for (const auto& h : handles) {
        if (RMRcp* r = rccp_->findAndReserveRcp(&h)) {
            r->unreserve();
            r->deleteRcp();  // safe: removal defers destruction past reservations
        }
    }
    stop = true;
    for (auto& t : readers) {
        t.join();
    }
    EXPECT_EQ(rccp_->rcpCount(), 0u);
    EXPECT_GT(touched.load(), 0);
}

TEST_F(Dispatch, HandlesAreUniqueAndCarryTheNodeId) {
    std::vector<zn_resource_handle> hs(2000);
    rccp_->makeResourceHandles(2000, 0x0102, 0, hs.data());
    std::set<std::string> seen;
    uint64_t node = rmcp_.getNodeId();
    ASSERT_NE(node, 0u);
    for (const auto& h : hs) {
        seen.emplace(reinterpret_cast<const char*>(h.bytes), sizeof h.bytes);
        uint64_t inHandle = 0;
        for (int k = 0; k < 8; ++k) {
            inHandle = (inHandle << 8) | h.bytes[4 + k];
        }
        EXPECT_EQ(inHandle, node);
        EXPECT_EQ(h.bytes[2], 0x01);
        EXPECT_EQ(h.bytes[3], 0x02);
    }
    EXPECT_EQ(seen.size(), hs.size());
}

TEST(NodeId, KeptAcrossRestartsAndDistinctPerHost) {
    uint64_t first, again, other;
    {
        testsupport::TempDir root(true);
        {
            RMRmcp a("rm", 1, nullptr, 0, 1);
            first = a.getNodeId();
        }
        RMRmcp b("rm", 1, nullptr, 0, 1);
        again = b.getNodeId();
        EXPECT_STREQ(b.getClusterName(), "IW");
    }
    {
        testsupport::TempDir root(true);
        RMRmcp c("rm", 1, nullptr, 0, 1);
        other = c.getNodeId();
    }
    EXPECT_NE(first, 0u);
    EXPECT_EQ(first, again);
    EXPECT_NE(first, other);
}

// Records what would go to the monitoring service.
class RecordingLink : public RMServiceLink {
public:
    void resourcesUndefined(const std::string& c, const std::vector<zn_resource_handle>& h) override {
        events.push_back("undefined " + c + " " + std::to_string(h.size()));
    }
    void attributesModified(const std::string& c, const zn_resource_handle* h, bool pers,
                            const rm_attribute_value* v, unsigned int n) override {
        events.push_back(std::string(pers ? "pers " : "dyn ") + c + (h ? " rsrc " : " class ") +
                         std::to_string(n) + " id" + std::to_string(n ? v[0].rm_attribute_id : -1));
    }
    void sendPeerMessage(int type, int subtype, const void*, unsigned int len) override {
        events.push_back("peer " + std::to_string(type) + "/" + std::to_string(subtype) + " " +
                         std::to_string(len));
    }
    std::vector<std::string> events;
};

TEST_F(Dispatch, NotificationsAndPeerMessagesGoToTheServiceLink) {
    rmcp_.sendPEXMessage(2, 0, nullptr, 0);  // before the link: kept
    ASSERT_EQ(rmcp_.unsentPeerMessages().size(), 1u);
    RecordingLink link;
    rmcp_.setServiceLink(&link);
    EXPECT_TRUE(rmcp_.unsentPeerMessages().empty());
    TestRcp* rcp = rccp_->add();
    rm_attribute_value v{1, ZN_UINT32, {}};
    rcp->notifyDynamicResourceAttrsModified(&v, 1);
    rccp_->notifyPersistentClassAttrsModified(&v, 1);
    zn_resource_handle h = *rcp->getResourceHandle();
    zn_resource_handle* hp = &h;
    rccp_->notifyResourcesUndefined(&hp, 1);
    rmcp_.setServiceLink(nullptr);
    EXPECT_EQ(link.events, (std::vector<std::string>{"peer 2/0 0", "dyn Kor.Test rsrc 1 id1",
                                                     "pers Kor.Test class 1 id1",
                                                     "undefined Kor.Test 1"}));
}

}  // namespace
