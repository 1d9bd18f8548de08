// znpexd as a process, with a real resource manager connection: either start
// order, a service restart under a connected manager, SIGHUP re-reading the
// access list (a list that does not parse changes nothing), one service per
// socket, and a clean stop.
#include <fcntl.h>  // Subprocess.h uses open flags
#include <gtest/gtest.h>

#include <regex>

#include "platform/paths.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMServiceCall.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"
#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/proto/ProtocolError.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using Kind = RpcMessage::Kind;
using testsupport::waitFor;

// Runs znpexd under the test's state root on 127.0.0.1 with a kernel-chosen port.
class Daemon {
public:
    Daemon(const testsupport::TempDir& dir, const std::string& name)
        : log_(dir / (name + ".stderr")),
          proc_(testsupport::binPath("znpex/server/znpexd"),
                {"--state-root", dir.path(), "--address", "127.0.0.1", "--port", "0",
                 "--request-timeout-ms", "3000"},
                {}, log_) {}
    // Waits until it listens; returns its TCP port (0 when it did not start).
    uint16_t waitListening() {
        std::smatch m;
        static const std::regex re("listening on tcp 127.0.0.1 port ([0-9]+)");
        bool ok = waitFor([&] {
            std::string text = testsupport::readFile(log_);
            return std::regex_search(text, m, re) || !proc_.running();
        });
        std::string text = testsupport::readFile(log_);
        if (!ok || !std::regex_search(text, m, re)) {
            return 0;
        }
        return static_cast<uint16_t>(std::stoi(m[1].str()));
    }
    std::string log() const { return testsupport::readFile(log_); }
    testsupport::Subprocess& proc() { return proc_; }

private:
    std::string log_;
    testsupport::Subprocess proc_;
};

class WidgetRccp : public tarn_rmf2v::RMRccp {
public:
    explicit WidgetRccp(tarn_rmf2v::RMRmcp* m) : RMRccp(kClass, RM_OBJECT_CLASS, m) {}
    void enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) override {
        zn_resource_handle h[3];
        makeResourceHandles(3, 1, 0, h);
        rsp->done(h, 3);
    }
    void connectionChanged(rm_conn_changed state) override {
        (state == RM_CONNECTION_ESTABLISHED ? established : lost)++;
    }
    std::atomic<int> established{0};
    std::atomic<int> lost{0};
};

class DaemonTest : public ServiceTest {
protected:
    DaemonTest() : rmcp_(kRmName, 1, nullptr, 0, 1) {
        rccp_ = new WidgetRccp(&rmcp_);
        rmcp_.start(nullptr);
        connOptions_.minBackoff = std::chrono::milliseconds(20);
        connOptions_.maxBackoff = std::chrono::milliseconds(200);
    }
    ~DaemonTest() override {
        if (conn_) {
            conn_->stop();
        }
        rmcp_.cleanup();
    }
    void startManager() {
        conn_ = std::make_unique<tarn_rmf2v::RMServiceConnection>(rmcp_, connOptions_);
        conn_->start();
    }
    std::string sock() const { return zn::paths::resolve(zn::paths::kPexSocket); }
    // A root client's enumeration of the test class.
    RpcMessage enumerate() {
        return TestClient::local(sock())->call("rm.enumerateResources", Json{{"class", kClass}});
    }

    tarn_rmf2v::RMRmcp rmcp_;
    WidgetRccp* rccp_;
    tarn_rmf2v::RMServiceConnectionOptions connOptions_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
};

TEST_F(DaemonTest, EitherStartOrderAndARestart) {
    for (bool serviceFirst : {true, false}) {
        SCOPED_TRACE(serviceFirst ? "service first" : "manager first");
        std::unique_ptr<Daemon> d;
        if (serviceFirst) {
            d = std::make_unique<Daemon>(dir_, "first");
            ASSERT_NE(d->waitListening(), 0) << d->log();
        }
        startManager();
        if (!serviceFirst) {
            // It tries, finds nobody and keeps trying.
            ASSERT_TRUE(waitFor([&] { return conn_->attempts() >= 3; }));
            EXPECT_FALSE(conn_->connected());
            d = std::make_unique<Daemon>(dir_, "second");
            ASSERT_NE(d->waitListening(), 0) << d->log();
        }
        ASSERT_TRUE(waitFor([&] { return conn_->connected(); }));
        RpcMessage r = enumerate();
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
        EXPECT_EQ(r.result["handles"].size(), 3u);

        // The service goes and comes back: the manager is told and registers again.
        d->proc().signal(SIGTERM);
        ASSERT_EQ(d->proc().wait(), 0);
        ASSERT_TRUE(waitFor([&] { return rccp_->lost.load() >= 1; }));
        EXPECT_FALSE(conn_->connected());
        Daemon again(dir_, "again");
        ASSERT_NE(again.waitListening(), 0) << again.log();
        ASSERT_TRUE(waitFor([&] { return conn_->connected(); }));
        EXPECT_EQ(enumerate().kind, Kind::Result);
        EXPECT_GE(conn_->registrations(), 2u);
        conn_->stop();
        conn_.reset();
        again.proc().signal(SIGTERM);
        ASSERT_EQ(again.proc().wait(), 0);
        rccp_->established = 0;
        rccp_->lost = 0;
    }
}

TEST_F(DaemonTest, SighupRereadsTheList) {
    Daemon d(dir_, "hup");
    uint16_t port = d.waitListening();
    ASSERT_NE(port, 0) << d.log();
    // The one request an unauthenticated caller may make, if the list lets it.
    FakeManager manager(sock(), kRmName,
                        Json::array({classDef("Kor.NodeAuthenticate",
                                              {"SetACL", "ClearACL", "RequestNodeManagement"})}));
    auto remote = TestClient::tcp(port);
    const Json params{{"class", "Kor.NodeAuthenticate"}, {"actionId", 2}};
    EXPECT_EQ(remote->call("rm.invokeClassAction", params).errorCode, proto::kPermissionDenied);

    writeText(aclPath(), shippedAcl() + "Kor.NodeAuthenticate\n\tUNAUTHENT C w\n");
    d.proc().signal(SIGHUP);
    ASSERT_TRUE(
        waitFor([&] { return remote->call("rm.invokeClassAction", params).kind == Kind::Result; }));

    writeText(aclPath(), "Kor.NodeAuthenticate\n\tUNAUTHENT Z r\n");
    d.proc().signal(SIGHUP);
    ASSERT_TRUE(waitFor([&] { return d.log().find("previous rules stay") != std::string::npos; }));
    EXPECT_NE(d.log().find("unknown type 'Z'"), std::string::npos);
    EXPECT_EQ(remote->call("rm.invokeClassAction", params).kind, Kind::Result);

    // The same refresh by request, as the resource manager asks for it.
    std::string why;
    EXPECT_EQ(tarn_rmf2v::serviceCall(sock(), "service.refreshAcl", Json::object(), nullptr, &why,
                                      std::chrono::seconds(5)),
              -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_NE(why.find("2660-003"), std::string::npos) << why;
    writeText(aclPath(), shippedAcl());
    Json result;
    ASSERT_EQ(tarn_rmf2v::serviceCall(sock(), "service.refreshAcl", Json::object(), &result, &why,
                                      std::chrono::seconds(5)),
              0)
        << why;
    EXPECT_EQ(result["ok"], true);
    EXPECT_EQ(remote->call("rm.enumerateResources", params).errorCode, proto::kPermissionDenied);
}

TEST_F(DaemonTest, OneServicePerSocketAndACleanStop) {
    Daemon d(dir_, "one");
    ASSERT_NE(d.waitListening(), 0) << d.log();
    Daemon second(dir_, "two");
    ASSERT_EQ(second.proc().wait(), 1 << 8);  // exit status 1
    EXPECT_NE(second.log().find("another service already listens"), std::string::npos);
    // The first one is undisturbed.
    EXPECT_EQ(TestClient::local(sock())->call("class.list").kind, Kind::Result);
    d.proc().signal(SIGINT);
    EXPECT_EQ(d.proc().wait(), 0);
    EXPECT_NE(::access(sock().c_str(), F_OK), 0);  // the socket file is gone
    // The service made its own list from the platform default.
    EXPECT_EQ(testsupport::readFile(aclPath()), shippedAcl());
}

}  // namespace
}  // namespace znpextest
