// The resource manager's connection to the monitoring service, against a
// scripted service on a local socket: registration, requests and replies,
// notifications and peer messages, loss and reconnection with the control
// point told, a service that starts late, refuses or does not answer, replies
// for a replaced connection, and a service that stops reading. Backoff and
// timeouts run on a fake clock where a test is about them.
#include "tarn_rmf2v/link/RMServiceConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/paths.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "tests/tarn_rmf2v/link/FakePexService.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace {

using namespace tarn_rmf2v;
namespace proto = znpex::proto;
using proto::Json;
using proto::RpcMessage;
using Kind = RpcMessage::Kind;

constexpr char kClass[] = "Test.Widget";

// The service side of registration: "rm.register" is answered, refused the
// first `refuseFirst` times, or left unanswered the first `ignoreFirst` times;
// every other message is only kept.
class FakeService : public testsupport::FakePexService {
public:
    explicit FakeService(int refuseFirst = 0, int ignoreFirst = 0)
        : refuseLeft_(refuseFirst), ignoreLeft_(ignoreFirst) {
        start([this](const RpcMessage& m) -> std::optional<std::string> {
            if (m.method != "rm.register") {
                return std::nullopt;
            }
            ++attempts_;
            if (ignoreLeft_ > 0) {
                --ignoreLeft_;
                return std::nullopt;
            }
            if (refuseLeft_ > 0) {
                --refuseLeft_;
                return proto::dumpJson(proto::makeError(m.id, proto::kOperationFailed, "no"));
            }
            ++registrations_;
            return proto::dumpJson(proto::makeResult(m.id, Json{{"ok", true}}));
        });
    }
    ~FakeService() { stop(); }
    int registrations() const { return registrations_.load(); }
    int attempts() const { return attempts_.load(); }

private:
    int refuseLeft_;
    int ignoreLeft_;
    std::atomic<int> registrations_{0};
    std::atomic<int> attempts_{0};
};

// A class whose action 9 waits until released, and which counts connection notices.
class WidgetRccp : public RMRccp {
public:
    explicit WidgetRccp(RMRmcp* m) : RMRccp(kClass, RM_OBJECT_CLASS, m) {
        RMClassDef def;
        def.name = kClass;
        def.persistent.push_back(RMAttrDef{"Name", 0, ZN_CHAR_PTR, 1});
        def.classActions.push_back(RMActionDef{"Hold", 9, {ZN_UINT32}});
        setClassDef(def);
    }
    void enumerateResources(RMEnumResourcesResponse* rsp) override {
        zn_resource_handle h[2];
        makeResourceHandles(2, 3, 0, h);
        rsp->done(h, 2);
    }
    void invokeClassAction(RMActionResponse* rsp, int, zn_structured_data*) override {
        holding = true;
        std::unique_lock<std::mutex> lk(holdMu);
        holdCv.wait(lk, [this] { return released; });
        rsp->done(nullptr);
    }
    void connectionChanged(rm_conn_changed state) override {
        (state == RM_CONNECTION_ESTABLISHED ? established : lost)++;
    }
    void release() {
        std::lock_guard<std::mutex> g(holdMu);
        released = true;
        holdCv.notify_all();
    }
    std::atomic<int> established{0};
    std::atomic<int> lost{0};
    std::atomic<bool> holding{false};
    std::mutex holdMu;
    std::condition_variable holdCv;
    bool released = false;
};

class PeerRmcp : public RMRmcp {
public:
    PeerRmcp() : RMRmcp("Test.RM", 1, nullptr, 0, 1) {}
    void PEXMessageReceived(int type, int subtype, void* data, unsigned int length) override {
        std::lock_guard<std::mutex> g(mu);
        peers.push_back(std::to_string(type) + "/" + std::to_string(subtype) + ":" +
                        std::string(static_cast<char*>(data), length));
    }
    std::mutex mu;
    std::vector<std::string> peers;
};

class ServiceConnectionTest : public ::testing::Test {
protected:
    ServiceConnectionTest() : root_(true) {
        rccp_ = new WidgetRccp(&rmcp_);  // owned by rmcp_
        for (int i = 0; i < 2; ++i) {
            rmcp_.start(nullptr);
        }
        options_.minBackoff = std::chrono::milliseconds(10);
        options_.maxBackoff = std::chrono::milliseconds(100);
    }
    ~ServiceConnectionTest() override {
        rccp_->release();
        if (conn_) {
            conn_->stop();
        }
        rmcp_.cleanup();
    }
    void connect() {
        conn_ = std::make_unique<RMServiceConnection>(rmcp_, options_);
        conn_->start();
    }
    bool connectAndWait() {
        connect();
        return testsupport::waitFor([&] { return conn_->connected(); });
    }

    testsupport::TempDir root_;
    zn::FakeClock clock_;  // for the tests that give it to the connection; outlives it
    PeerRmcp rmcp_;
    WidgetRccp* rccp_;
    RMServiceConnectionOptions options_;
    std::unique_ptr<RMServiceConnection> conn_;
};

TEST_F(ServiceConnectionTest, RegistersItsNameAndEveryClass) {
    FakeService service;
    connect();
    RpcMessage reg;
    ASSERT_TRUE(service.takeMethod("rm.register", &reg));
    EXPECT_EQ(reg.params["rm"], "Test.RM");
    ASSERT_EQ(reg.params["classes"].size(), 1u);
    const Json& def = reg.params["classes"][0];
    EXPECT_EQ(def["class"], kClass);
    EXPECT_EQ(def["persistent"][0]["name"], "Name");
    EXPECT_EQ(def["classActions"][0]["id"], 9);
    ASSERT_TRUE(testsupport::waitFor([&] { return conn_->connected(); }));
    EXPECT_EQ(rmcp_.serviceLink(), conn_.get());
    EXPECT_EQ(rccp_->established.load(), 1);
    EXPECT_EQ(conn_->registrations(), 1u);
}

TEST_F(ServiceConnectionTest, RequestsReachTheControlPointAndRepliesComeBack) {
    FakeService service;
    ASSERT_TRUE(connectAndWait());
    service.send(proto::makeRequest(7, "rm.enumerateResources",
                                    Json{{"class", kClass}, {"identity", "root@LOCALHOST"}}));
    RpcMessage r;
    ASSERT_TRUE(service.takeReply(7, &r));
    ASSERT_EQ(r.kind, Kind::Result);
    EXPECT_EQ(r.result["handles"].size(), 2u);
    EXPECT_FALSE(r.result.contains("error"));

    service.send(proto::makeRequest(8, "rm.enumerateResources", Json{{"class", "No.Such"}}));
    ASSERT_TRUE(service.takeReply(8, &r));
    ASSERT_EQ(r.kind, Kind::Result);  // the control point's own answer: an error reply
    EXPECT_EQ(r.result["error"]["id"], tarn_rmf::RM_EINVALIDCLASS);

    struct Case {
        const char* method;
        Json params;
        int code;
    };
    const Case bad[] = {
        {"rm.bogus", Json{{"class", kClass}}, proto::kMethodNotFound},
        {"session.start", Json::object(), proto::kMethodNotFound},
        {"rm.getAttributeValues", Json{{"class", kClass}}, proto::kInvalidParams},
        {"rm.enumerateResources", Json{{"class", 3}}, proto::kInvalidParams},
    };
    int id = 100;
    for (const Case& c : bad) {
        SCOPED_TRACE(c.method);
        service.send(proto::makeRequest(id, c.method, c.params));
        ASSERT_TRUE(service.takeReply(id, &r));
        EXPECT_EQ(r.kind, Kind::Error);
        EXPECT_EQ(r.errorCode, c.code);
        ++id;
    }
    EXPECT_TRUE(conn_->connected());  // bad requests do not end the connection
}

TEST_F(ServiceConnectionTest, NotificationsAndPeerMessages) {
    // Sent before any connection: kept by the control point, sent once registered.
    rmcp_.sendPEXMessage(2, 0, const_cast<char*>("hi"), 2);
    FakeService service;
    connect();
    RpcMessage m;
    ASSERT_TRUE(service.takeMethod("peer.send", &m));
    EXPECT_EQ(m.params["type"], 2);
    EXPECT_EQ(m.params["data"], "aGk=");

    zn_resource_handle h;
    rccp_->makeResourceHandles(1, 3, 0, &h);
    zn_resource_handle* hp = &h;
    rccp_->notifyResourcesUndefined(&hp, 1);
    ASSERT_TRUE(service.takeMethod("notify.resourcesUndefined", &m));
    EXPECT_EQ(m.kind, Kind::Notification);
    EXPECT_EQ(m.params["class"], kClass);
    EXPECT_EQ(m.params["handles"].size(), 1u);

    rm_attribute_value v{4, ZN_UINT32, {}};
    v.rm_value.val_uint32 = 77;
    rccp_->notifyDynamicClassAttrsModified(&v, 1);
    ASSERT_TRUE(service.takeMethod("notify.attributesModified", &m));
    EXPECT_EQ(m.params["persistent"], false);
    EXPECT_FALSE(m.params.contains("handle"));
    EXPECT_EQ(m.params["values"][0], (Json{{"id", 4}, {"t", 3}, {"v", 77}}));

    service.send(proto::makeNotification("peer.received",
                                         Json{{"type", 5}, {"subtype", 1}, {"data", "aGVsbG8="}}));
    service.send(proto::makeNotification("rm.connectionChanged", Json{{"connected", true}}));
    ASSERT_TRUE(testsupport::waitFor([&] {
        std::lock_guard<std::mutex> g(rmcp_.mu);
        return !rmcp_.peers.empty();
    }));
    std::lock_guard<std::mutex> g(rmcp_.mu);
    EXPECT_EQ(rmcp_.peers, (std::vector<std::string>{"5/1:hello"}));
}

TEST_F(ServiceConnectionTest, ReconnectsAfterLossAndTellsTheControlPoint) {
    FakeService service;
    ASSERT_TRUE(connectAndWait());
    zn_resource_handle h[1]{};
    h[0].bytes[19] = 1;
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        // What the lost service watched is forgotten with it.
        rccp_->getMonitor()->startMonitoring(&h[0], 0);
        rccp_->getMonitor()->enablePersistent(nullptr, 0);
        service.dropConnection();
        ASSERT_TRUE(testsupport::waitFor([&] { return rccp_->lost.load() == round; }));
        EXPECT_FALSE(rccp_->getMonitor()->isMonitored(&h[0], 0));
        EXPECT_FALSE(rccp_->getMonitor()->isPersistentEnabled(nullptr, 0));
        ASSERT_TRUE(
            testsupport::waitFor([&] { return conn_->registrations() == uint64_t(round) + 1; }));
        EXPECT_EQ(rccp_->established.load(), round + 1);
        EXPECT_EQ(rmcp_.serviceLink(), conn_.get());
    }
    EXPECT_EQ(service.registrations(), 4);
    conn_->stop();
    EXPECT_EQ(rmcp_.serviceLink(), nullptr);
    EXPECT_FALSE(conn_->connected());
}

// Waits until the connection's thread waits on the fake clock (its backoff);
// how long that wait is, in milliseconds (-1: it never waited).
long long backoff(const zn::FakeClock& clock) {
    std::optional<zn::Clock::Duration> wake;
    testsupport::waitFor([&] {
        wake = clock.nextWake();
        return wake.has_value();
    });
    if (!wake) {
        return -1;
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(*wake - clock.monoNow()).count();
}

TEST_F(ServiceConnectionTest, FindsAServiceThatStartsLaterBackingOffMeanwhile) {
    options_.clock = &clock_;
    connect();
    // Each failed try waits twice as long as the one before, up to the most.
    using std::chrono::milliseconds;
    const std::vector<milliseconds> waits{milliseconds(10), milliseconds(20),  milliseconds(40),
                                          milliseconds(80), milliseconds(100), milliseconds(100)};
    for (size_t i = 0; i < waits.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(backoff(clock_), waits[i].count());
        EXPECT_EQ(conn_->attempts(), i + 1);
        clock_.advance(waits[i]);
        ASSERT_TRUE(testsupport::waitFor([&] { return conn_->attempts() == i + 2; }));
    }
    EXPECT_FALSE(conn_->connected());
    EXPECT_EQ(rmcp_.serviceLink(), nullptr);
    EXPECT_EQ(rccp_->lost.load(), 0);  // never connected, nothing lost
    FakeService service;
    ASSERT_EQ(backoff(clock_), options_.maxBackoff.count());
    clock_.advance(options_.maxBackoff);
    ASSERT_TRUE(testsupport::waitFor([&] { return conn_->connected(); }));
    EXPECT_EQ(rccp_->established.load(), 1);
}

TEST_F(ServiceConnectionTest, ARegistrationLeftUnansweredIsGivenUpAtItsTimeout) {
    options_.clock = &clock_;
    options_.registerTimeout = std::chrono::seconds(10);
    FakeService service(/*refuseFirst=*/0, /*ignoreFirst=*/1);
    connect();
    RpcMessage reg;
    ASSERT_TRUE(service.takeMethod("rm.register", &reg));
    clock_.advance(std::chrono::seconds(10));
    EXPECT_EQ(backoff(clock_), options_.minBackoff.count());  // gave the connection up
    EXPECT_FALSE(conn_->connected());
    EXPECT_EQ(rccp_->established.load(), 0);
    EXPECT_EQ(rccp_->lost.load(), 0);  // never registered, nothing lost
    clock_.advance(options_.minBackoff);
    ASSERT_TRUE(service.takeMethod("rm.register", &reg));
    ASSERT_TRUE(testsupport::waitFor([&] { return conn_->connected(); }));
    EXPECT_EQ(conn_->attempts(), 2u);
    EXPECT_EQ(service.attempts(), 2);
}

TEST_F(ServiceConnectionTest, RefusedRegistrationIsTriedAgain) {
    FakeService service(/*refuseFirst=*/2);
    ASSERT_TRUE(connectAndWait());
    EXPECT_EQ(service.attempts(), 3);
    EXPECT_EQ(conn_->registrations(), 1u);
    EXPECT_EQ(rccp_->established.load(), 1);
    EXPECT_EQ(rccp_->lost.load(), 0);  // a refused connection was never established
}

TEST_F(ServiceConnectionTest, ReplyMeantForAReplacedConnectionIsDropped) {
    FakeService service;
    ASSERT_TRUE(connectAndWait());
    service.send(proto::makeRequest(
        5, "rm.invokeClassAction",
        Json{{"class", kClass}, {"actionId", 9}, {"input", {{"t", 11}, {"v", Json::array()}}}}));
    ASSERT_TRUE(testsupport::waitFor([&] { return rccp_->holding.load(); }));
    service.dropConnection();
    ASSERT_TRUE(testsupport::waitFor([&] { return conn_->registrations() == 2; }));
    rccp_->release();
    RpcMessage r;
    EXPECT_FALSE(service.takeReply(5, &r, 300));
    // The new connection works as usual.
    service.send(proto::makeRequest(6, "rm.enumerateResources", Json{{"class", kClass}}));
    EXPECT_TRUE(service.takeReply(6, &r));
}

TEST_F(ServiceConnectionTest, AServiceThatStopsReadingNeverBlocksTheSenders) {
    options_.clock = &clock_;
    options_.maxQueuedBytes = 256 << 10;
    options_.stallTimeout = std::chrono::seconds(5);
    FakeService service;
    ASSERT_TRUE(connectAndWait());
    service.pause(true);
    std::vector<unsigned char> big(64 << 10, 'x');
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) {  // ~6 MiB, far more than the socket and queue hold
        rmcp_.sendPEXMessage(1, i, big.data(), static_cast<unsigned int>(big.size()));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_GT(conn_->dropped(), 0u);  // what did not fit was dropped, not kept
    // The stuck connection is given up once nothing could be written for the
    // stall timeout (time moves a second per look until then)...
    ASSERT_TRUE(testsupport::waitFor([&] {
        if (rccp_->lost.load() == 1) {
            return true;
        }
        clock_.advance(std::chrono::seconds(1));
        return false;
    }));
    EXPECT_EQ(conn_->registrations(), 1u);
    // ...and made again once the service reads (time moving on for the backoff).
    service.pause(false);
    ASSERT_TRUE(testsupport::waitFor([&] {
        if (conn_->registrations() == 2) {
            return true;
        }
        clock_.advance(options_.minBackoff);
        return false;
    }));
}

}  // namespace
