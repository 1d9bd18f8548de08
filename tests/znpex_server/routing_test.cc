// Requests on their way through the service: forwarding and answers,
// managers that leave, stay silent or claim what is not theirs, malformed
// input that closes only its own connection, the service's own methods and
// the notifications a manager sends to the clients watching.
#include <gtest/gtest.h>

#include <fcntl.h>  // Subprocess.h uses open flags
#include "tarn_rmf/RMCommonErrors.h"

#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/ServiceErrors.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using Kind = RpcMessage::Kind;

const Json kEnumerate = Json{{"class", kClass}};

void expectFailure(const RpcMessage& r, int code, int errorIdWanted) {
    ASSERT_EQ(r.kind, Kind::Error) << r.errorMessage;
    EXPECT_EQ(r.errorCode, code) << r.errorMessage;
    EXPECT_EQ(errorId(r), errorIdWanted) << r.errorData.dump();
}

class RoutingTest : public ServiceTest {};

TEST_F(RoutingTest, ManagerThatLeavesGivesNotConnectedUntilItIsBack) {
    startService();
    auto client = root();
    {
        FakeManager manager(socketPath(), {kClass});
        RpcMessage r = client->call("rm.enumerateResources", kEnumerate);
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
        manager.disconnect();
        ASSERT_TRUE(testsupport::waitFor([&] {
            RpcMessage again = client->call("rm.enumerateResources", kEnumerate);
            return again.kind == Kind::Error && again.errorCode == proto::kNotConnected;
        }));
    }
    RpcMessage down = client->call("rm.enumerateResources", kEnumerate);
    expectFailure(down, proto::kNotConnected, tarn_rmf::RM_ENOTCONNECTED);
    EXPECT_NE(down.errorData.value("text", "").find(kRmName), std::string::npos);
    // The class list still shows the class, not connected.
    RpcMessage list = client->call("class.list");
    ASSERT_EQ(list.kind, Kind::Result);
    ASSERT_EQ(list.result.size(), 1u);
    EXPECT_EQ(list.result[0]["connected"], false);

    FakeManager again(socketPath(), {kClass});
    ASSERT_EQ(again.registration().kind, Kind::Result);
    RpcMessage r = client->call("rm.enumerateResources", kEnumerate);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(client->call("class.list").result[0]["connected"], true);
}

TEST_F(RoutingTest, WaitingRequestsEndWhenTheManagerLeaves) {
    startService();
    FakeManager manager(socketPath(), {kClass}, /*silent=*/true);
    auto client = root();
    client->send(proto::makeRequest(41, "rm.enumerateResources", kEnumerate));
    client->send(proto::makeRequest("forty-two", "rm.getAttributeValues",
                                    Json{{"class", kClass}, {"handle", kHandle}}));
    ASSERT_TRUE(testsupport::waitFor([&] { return manager.requestsSeen() == 2; }));
    manager.disconnect();
    std::set<std::string> ids;
    for (int i = 0; i < 2; ++i) {
        RpcMessage m;
        ASSERT_TRUE(client->next(&m));
        expectFailure(m, proto::kNotConnected, tarn_rmf::RM_ENOTCONNECTED);
        ids.insert(m.id.dump());
    }
    EXPECT_EQ(ids, (std::set<std::string>{"41", "\"forty-two\""}));
}

TEST_F(RoutingTest, SilentManagerTimesOut) {
    options_.router.requestTimeout = std::chrono::milliseconds(300);
    startService();
    FakeManager manager(socketPath(), {kClass}, /*silent=*/true);
    auto client = root();
    auto start = std::chrono::steady_clock::now();
    RpcMessage r = client->call("rm.enumerateResources", kEnumerate);
    auto took = std::chrono::steady_clock::now() - start;
    expectFailure(r, proto::kOperationFailed, znpex::server::ZNPEX_ETIMEDOUT);
    EXPECT_GE(took, std::chrono::milliseconds(250));
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_NE(r.errorData.value("text", "").find("rm.enumerateResources"), std::string::npos);
    // The connection stays usable.
    EXPECT_EQ(client->call("class.list").kind, Kind::Result);
    EXPECT_EQ(root()->call("service.status").result["requests"]["timedOut"], 1);
}

TEST_F(RoutingTest, TooManyWaitingRequestsOfOneClient) {
    options_.router.maxPendingPerConnection = 2;
    startService();
    FakeManager manager(socketPath(), {kClass}, /*silent=*/true);
    auto client = root();
    client->send(proto::makeRequest(1, "rm.enumerateResources", kEnumerate));
    client->send(proto::makeRequest(2, "rm.enumerateResources", kEnumerate));
    RpcMessage third = client->call("rm.enumerateResources", kEnumerate);
    expectFailure(third, proto::kOperationFailed, znpex::server::ZNPEX_EBUSY);
    // Another client is not held back by this one.
    EXPECT_TRUE(testsupport::waitFor([&] { return manager.requestsSeen() == 2; }));
}

TEST_F(RoutingTest, UnknownClassAndBadParams) {
    startService();
    FakeManager manager(socketPath(), {kClass});
    auto client = root();
    expectFailure(client->call("rm.enumerateResources", Json{{"class", "No.Such"}}),
                  proto::kOperationFailed, tarn_rmf::RM_EINVALIDCLASS);
    struct Case {
        const char* method;
        Json params;
    };
    const Case bad[] = {
        {"rm.enumerateResources", Json::array({kClass})},
        {"rm.enumerateResources", Json::object()},
        {"rm.enumerateResources", Json{{"class", 5}}},
        {"rm.getAttributeValues", Json{{"class", kClass}}},  // no handle
        {"rm.getAttributeValues", Json{{"class", kClass}, {"handle", "xyz"}}},
        {"rm.setAttributeValues",
         Json{{"class", kClass}, {"handle", kHandle}, {"values", {{{"id", 1}, {"t", 99}}}}}},
        {"session.start", Json{{"options", "many"}}},
        {"rm.register", Json{{"rm", kRmName}}},
    };
    for (const Case& c : bad) {
        SCOPED_TRACE(c.method + std::string(" ") + c.params.dump());
        RpcMessage r = client->call(c.method, c.params);
        ASSERT_EQ(r.kind, Kind::Error);
        EXPECT_EQ(r.errorCode, proto::kInvalidParams) << r.errorMessage;
    }
    EXPECT_EQ(manager.requestsSeen(), 0u);  // nothing bad reached the manager
    EXPECT_EQ(client->call("rm.nonsense", kEnumerate).errorCode, proto::kMethodNotFound);
    // None of that closed the connection.
    EXPECT_EQ(client->call("rm.enumerateResources", kEnumerate).kind, Kind::Result);
}

TEST_F(RoutingTest, MalformedFramesCloseOnlyTheirConnection) {
    startService();
    FakeManager manager(socketPath(), {kClass});
    auto bystander = root();
    auto frame = [](const std::string& payload) {
        std::string f;
        proto::appendFrameHeader(f, payload.size());
        return f + payload;
    };
    struct Case {
        const char* name;
        std::string bytes;
        int code;
    };
    const Case cases[] = {
        {"over the size cap", std::string("\x7f\xff\xff\xff", 4) + "junk", proto::kInvalidRequest},
        {"cap plus one", std::string("\x01\x00\x00\x01", 4), proto::kInvalidRequest},
        {"not JSON", frame("{\"jsonrpc\":\"2.0\",\"id\":1,"), proto::kParseError},
        {"empty frame", frame(""), proto::kParseError},
        {"not an object", frame("[1,2,3]"), proto::kInvalidRequest},
        {"wrong version", frame(R"({"jsonrpc":"1.0","id":1,"method":"class.list"})"),
         proto::kInvalidRequest},
        {"method not a string", frame(R"({"jsonrpc":"2.0","id":1,"method":7})"),
         proto::kInvalidRequest},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (bool tcp : {false, true}) {
            auto victim = tcp ? unauthenticated() : root();
            victim->sendRaw(c.bytes);
            RpcMessage m;
            ASSERT_TRUE(victim->next(&m, 5000));
            ASSERT_EQ(m.kind, Kind::Error);
            EXPECT_EQ(m.errorCode, c.code) << m.errorMessage;
            EXPECT_TRUE(victim->closedWithin(5000));
        }
        EXPECT_EQ(bystander->call("rm.enumerateResources", kEnumerate).kind, Kind::Result);
    }
    EXPECT_GE(root()->call("service.status").result["requests"]["malformed"].get<int>(), 14);
}

TEST_F(RoutingTest, RegistrationRules) {
    startService();
    Json reg = Json{{"rm", "Other.RM"}, {"classes", Json::array({Json{{"class", "Other.Class"}}})}};
    RpcMessage overTcp = unauthenticated()->call("rm.register", reg);
    EXPECT_EQ(overTcp.errorCode, proto::kMethodNotFound);
    if (canSwitchUser()) {
        auto asNobody = proto::parseMessage(callAsNobody(socketPath(), "rm.register", reg));
        EXPECT_EQ(asNobody.errorCode, proto::kMethodNotFound);
        EXPECT_NE(asNobody.errorMessage.find("nobody@LOCALHOST"), std::string::npos);
    }
    FakeManager first(socketPath(), {kClass});
    FakeManager rival(socketPath(), {"Rival.Class", kClass}, false, "Rival.RM");
    expectFailure(rival.registration(), proto::kOperationFailed, znpex::server::ZNPEX_EREGISTER);
    EXPECT_NE(rival.registration().errorData.value("text", "").find(kClass), std::string::npos);
    RpcMessage list = root()->call("class.list");
    ASSERT_EQ(list.result.size(), 1u);
    EXPECT_EQ(list.result[0]["rm"], kRmName);
    EXPECT_EQ(list.result[0]["class"], kClass);
}

TEST_F(RoutingTest, ServiceMethodsAndWhoMayUseThem) {
    options_.router.hostName = "svc1";
    startService();
    FakeManager manager(socketPath(), {kClass});
    auto local = root();
    auto remote = unauthenticated();

    RpcMessage s = local->call("session.start", Json{{"options", 1025}, {"client", "test"}});
    ASSERT_EQ(s.kind, Kind::Result);
    EXPECT_EQ(s.result["identity"], "root@LOCALHOST");
    EXPECT_GT(s.result["session"].get<uint64_t>(), 0u);
    EXPECT_EQ(local->call("session.end").kind, Kind::Result);
    // Domain scope is for callers the kernel vouches for.
    RpcMessage t = remote->call("session.start", Json{{"options", 4}, {"client", "remote"}});
    EXPECT_EQ(t.errorCode, proto::kPermissionDenied);
    t = remote->call("session.start", Json{{"options", 1025}, {"client", "remote"}});
    EXPECT_EQ(t.result["identity"], "UNAUTHENT");
    EXPECT_NE(t.result["session"], s.result["session"]);

    RpcMessage hello = remote->call("auth.hello");
    ASSERT_EQ(hello.kind, Kind::Result);
    EXPECT_EQ(
        hello.result,
        (Json{{"identity", "UNAUTHENT"}, {"methods", Json::array({"hostkey"})}, {"host", "svc1"}}));

    // Local only, or root only.
    EXPECT_EQ(remote->call("service.status").errorCode, proto::kMethodNotFound);
    EXPECT_EQ(remote->call("service.refreshAcl").errorCode, proto::kMethodNotFound);
    if (canSwitchUser()) {
        auto m = proto::parseMessage(callAsNobody(socketPath(), "service.refreshAcl", {}));
        EXPECT_EQ(m.errorCode, proto::kMethodNotFound);
        auto st = proto::parseMessage(callAsNobody(socketPath(), "service.status", {}));
        EXPECT_EQ(st.kind, Kind::Result);
    }
    // Manager notifications are not requests.
    EXPECT_EQ(local->call("notify.resourcesUndefined", Json{{"class", kClass}}).errorCode,
              proto::kMethodNotFound);

    // Describing a class is reading it: UNAUTHENT sees nothing under the shipped list.
    EXPECT_EQ(remote->call("class.list").result, Json::array());
    ASSERT_EQ(local->call("class.list").result.size(), 1u);

    RpcMessage st = local->call("service.status");
    ASSERT_EQ(st.kind, Kind::Result);
    EXPECT_GE(st.result["connections"].get<int>(), 3);
    EXPECT_EQ(st.result["managers"][0]["rm"], kRmName);
    EXPECT_EQ(st.result["managers"][0]["connected"], true);
    EXPECT_EQ(st.result["acl"]["loaded"], true);
    EXPECT_EQ(st.result["acl"]["path"], aclPath());
}

TEST_F(RoutingTest, ClientsCannotClaimAnotherIdentity) {
    startService();
    replaceAcl(shippedAcl() + "Kor.NodeAuthenticate\n\tUNAUTHENT * rw\n");
    FakeManager manager(socketPath(), kRmName,
                        Json::array({classDef("Kor.NodeAuthenticate",
                                              {"SetACL", "ClearACL", "RequestNodeManagement"})}));
    Json params{{"class", "Kor.NodeAuthenticate"}, {"actionId", 2}};
    params["identity"] = "root@LOCALHOST";
    RpcMessage r = unauthenticated()->call("rm.invokeClassAction", params);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["seen"]["identity"], "UNAUTHENT");
}

TEST_F(RoutingTest, NotificationsReachTheClientsWatching) {
    startService();
    FakeManager manager(socketPath(), {kClass});
    FakeManager other(socketPath(), {"Other.Class"}, false, "Other.RM");
    auto watcher = root();
    auto idle = root();
    RpcMessage w = watcher->call(
        "rm.startMonitoringResourceAttrs",
        Json{
            {"class", kClass}, {"handle", kHandle}, {"monitoring", {{{"id", 1}, {"options", 0}}}}});
    ASSERT_EQ(w.kind, Kind::Result) << w.errorMessage;

    Json changed = {{"class", kClass},
                    {"handle", kHandle},
                    {"persistent", false},
                    {"values", Json::array({Json{{"id", 1}, {"t", 3}, {"v", 7}}})}};
    // A manager speaks only for its own classes: this one is dropped.
    other.notify("notify.attributesModified", changed);
    manager.notify("notify.attributesModified", changed);
    manager.notify("notify.resourcesUndefined",
                   Json{{"class", kClass}, {"handles", Json::array({kHandle})}});
    // Malformed notifications are dropped too.
    manager.notify("notify.attributesModified", Json{{"class", kClass}});

    RpcMessage n;
    ASSERT_TRUE(watcher->next(&n));
    EXPECT_EQ(n.kind, Kind::Notification);
    EXPECT_EQ(n.method, "notify.attributesModified");
    EXPECT_EQ(n.params, changed);
    ASSERT_TRUE(watcher->next(&n));
    EXPECT_EQ(n.method, "notify.resourcesUndefined");
    EXPECT_FALSE(watcher->next(&n, 300));
    EXPECT_FALSE(idle->next(&n, 300));
    EXPECT_EQ(root()->call("service.status").result["notifications"], 2);
}

}  // namespace
}  // namespace znpextest
