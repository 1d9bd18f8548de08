// Heartbeats end to end: the daemon's classes are the manager "Kor.ORVRM" of
// host 1's service (the management server) and tune the domain's heartbeat
// to one second, two missed beats; hosts 2 and 3 are managed nodes whose
// own services beat. A client watching the nodes' "Status" on host 1 sees
// each node come alive, fall to 0 within two beats of its service stopping,
// and come back when it beats again.
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"
#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/client/px_event.h"

namespace peerdomaintest {
namespace {

using testsupport::waitFor;

struct StatusEvent {
    std::string host;
    uint32_t status;
};

// A client of host 1's service watching every node's Status.
class StatusWatcher {
public:
    bool start() {
        if (px_start_session(nullptr, 0, 1, &session_) != PX_OK) {
            return false;
        }
        const char* names[] = {"Hostname"};
        px_reg_event_rsp_t* rsp = nullptr;
        int rc =
            px_reg_event_select(session_, 2, orvrm::kManagedNodeClass, nullptr, names, 1,
                                "Status!=Status@P", nullptr, &StatusWatcher::onEvent, this, &rsp);
        px_free_response(rsp);
        if (rc != PX_OK) {
            return false;
        }
        thread_ = std::thread([this] { px_dispatch(session_, 1); });
        return true;
    }
    ~StatusWatcher() {
        if (session_ != nullptr) {
            px_end_session(session_);
        }
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    // The host's latest status (127 when none came).
    uint32_t latest(const std::string& host) {
        std::lock_guard<std::mutex> g(mu_);
        uint32_t out = 127;
        for (const StatusEvent& e : events_) {
            out = e.host == host ? e.status : out;
        }
        return out;
    }
    size_t count(const std::string& host, uint32_t status) {
        std::lock_guard<std::mutex> g(mu_);
        size_t n = 0;
        for (const StatusEvent& e : events_) {
            n += e.host == host && e.status == status ? 1 : 0;
        }
        return n;
    }

private:
    static void onEvent(void*, px_event_2_t* e, void* arg) {
        auto* self = static_cast<StatusWatcher*>(arg);
        StatusEvent ev{"", 127};
        for (uint32_t i = 0; i < e->pe_attr_count; ++i) {
            const px_event_attr_t& a = e->pe_attrs[i];
            if (std::string(a.pe_name) == "Hostname" && a.pe_type == ZN_CHAR_PTR) {
                ev.host = a.pe_value.ptr_char;
            } else if (std::string(a.pe_name) == "Status" && a.pe_type == ZN_UINT32) {
                ev.status = a.pe_value.val_uint32;
            }
        }
        if ((e->pe_flags & PX_EVENT_ERROR) == 0) {
            std::lock_guard<std::mutex> g(self->mu_);
            self->events_.push_back(ev);
        }
        px_free_response(e);
    }

    px_session_t session_ = nullptr;
    std::thread thread_;
    std::mutex mu_;
    std::vector<StatusEvent> events_;
};

class NodeHeartbeatTest : public peertest::PeerDomainTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(startAll());
        ASSERT_EQ(refreshNodeTable(0), 0);
        setenv("ZN_ROOT", hosts_[0].root.c_str(), 1);
        // The classes' own schedules stay still; the heartbeat is the services'.
        zn::setProcessClock(&clock_);
        rmcp_ = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
        for (const orvrm::ClassEntry& e : orvrm::classList()) {
            cu_error_t* err = nullptr;
            std::string name = e.name;
            ASSERT_NE(rmcp_->createRCCP(name.data(), &err), nullptr) << name;
        }
        for (int i = 0; i < 2; ++i) {
            unsigned long id = 0;
            rmcp_->start(&id);
        }
        defineNode(hosts_[1].name.c_str(), hosts_[1].nodeId);
        defineNode(hosts_[2].name.c_str(), hosts_[2].nodeId);
    }
    // Registers the classes with host 1's service: on the link's coming up
    // the domain control class tunes the heartbeat with its settings.
    void connect() {
        tarn_rmf2v::RMServiceConnectionOptions o;
        o.socketPath = hosts_[0].socketPath();
        o.maxBackoff = std::chrono::milliseconds(200);
        o.clock = &zn::systemClock();
        conn_ = std::make_unique<tarn_rmf2v::RMServiceConnection>(*rmcp_, o);
        conn_->start();
        ASSERT_TRUE(waitFor([&] { return conn_->connected(); }));
    }
    void TearDown() override {
        if (conn_ != nullptr) {
            conn_->stop();
        }
        rmcp_.reset();
        zn::setProcessClock(nullptr);
    }
    void defineNode(const char* host, uint64_t id) {
        rm_attribute_value v[3] = {};
        v[0] = {orvrm::kMnHostname, ZN_CHAR_PTR, {}};
        v[0].rm_value.ptr_char = const_cast<char*>(host);
        v[1] = {orvrm::kMnUniversalId, ZN_UINT64, {}};
        v[1].rm_value.val_uint64 = id;
        v[2] = {orvrm::kMnMode, ZN_CHAR_PTR, {}};
        v[2].rm_value.ptr_char = const_cast<char*>(orvrm::kModeManaged);
        cu_error_t* err = nullptr;
        auto* nodes = dynamic_cast<orvrm::ManagedNodeRccp*>(
            rmcp_->findRccpByName(const_cast<char*>(orvrm::kManagedNodeClass)));
        zn_resource_handle* h = nodes->createResource(nullptr, v, 3, &err);
        ASSERT_NE(h, nullptr) << (err != nullptr ? cu_error_text(err) : "");
        std::free(h);
    }
    // The node's Status as the class holds it (127 when it has no node).
    uint32_t status(const std::string& host) {
        auto* nodes = dynamic_cast<orvrm::ManagedNodeRccp*>(
            rmcp_->findRccpByName(const_cast<char*>(orvrm::kManagedNodeClass)));
        orvrm::ManagedNodeRcp* n = nodes->getRcpByHostname(host.c_str());
        if (n == nullptr) {
            return 127;
        }
        uint32_t s = n->getStatus();
        n->unreserve();
        return s;
    }
    orvrm::OrvCtrlRccp* settings() {
        return dynamic_cast<orvrm::OrvCtrlRccp*>(
            rmcp_->findRccpByName(const_cast<char*>(orvrm::kOrvCtrlClass)));
    }

    zn::FakeClock clock_;
    std::unique_ptr<ORVRMRmcp> rmcp_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
};

TEST_F(NodeHeartbeatTest, AWatchingClientSeesNodesComeAliveFallSilentAndReturn) {
    settings()->applyHeartbeat(1, 2);  // no service yet: kept for the link
    connect();
    StatusWatcher watcher;
    ASSERT_TRUE(watcher.start());
    const std::string n2 = hosts_[1].name;
    const std::string n3 = hosts_[2].name;
    // The first beats may come before the watch starts: then the watch
    // sees no change, and only the class shows them.
    ASSERT_TRUE(waitFor([&] { return status(n2) == 1 && status(n3) == 1; })) << hosts_[0].log();

    stop(2);
    auto stopped = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitFor([&] { return watcher.latest(n3) == 0; }));
    // Events come in order: any event of its first beats came before this one.
    size_t raised = watcher.count(n3, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(3500))
        << "within frequency x sensitivity, and a beat's slack";
    EXPECT_EQ(status(n2), 1u);
    EXPECT_EQ(watcher.count(n2, 0), 0u) << "the other node beats on";
    EXPECT_EQ(watcher.count(n3, 0), 1u);

    ASSERT_TRUE(start(2));
    ASSERT_TRUE(waitFor([&] { return watcher.latest(n3) == 1; }));
    EXPECT_EQ(watcher.count(n3, 1), raised + 1) << "raised once more, by its first beat";
}

}  // namespace
}  // namespace peerdomaintest
