// Trust between the hosts' services, tried as an attacker would: a caller
// that has not authenticated must never reach another host; only a host
// that proves its key is a peer, whatever address it comes from, whatever
// the node table says and whoever runs it on the host; a peer cannot take
// this host's names; a table copy stamped beyond any clock of the domain
// cannot freeze the tables; and a peer is checked as a peer.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <set>
#include <thread>

#include "platform/paths.h"
#include "tests/znpex_peer/PeerHosts.h"
#include "znhas/sec_proof.h"
#include "znpex/di/DiCodec.h"
#include "znpex/di/DiStore.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/PeerMessages.h"

namespace peertest {
namespace {

namespace proto = znpex::proto;
namespace srv = znpex::server;
using testsupport::waitFor;
using znpextest::TestClient;
using Kind = RpcMessage::Kind;

constexpr int kDiEinval = 4;

// A manager of "Test.Widget" that records the identity of every request.
class RecordingManager {
public:
    explicit RecordingManager(const Host& h)
        : manager_(h.socketPath(), "Test.RM", {"Test.Widget"},
                   [this](const std::string&, const Json& params) {
                       std::lock_guard<std::mutex> g(mu_);
                       identities_.push_back(params.value("identity", ""));
                       return Json{{"values", Json::array()},
                                   {"items", Json::array()},
                                   {"handles", Json::array()},
                                   {"actionData", Json::array()}};
                   }) {}
    bool registered() const { return manager_.registered(); }
    std::vector<std::string> identities() const {
        std::lock_guard<std::mutex> g(mu_);
        return identities_;
    }

private:
    mutable std::mutex mu_;
    std::vector<std::string> identities_;
    ScriptedManager manager_;
};

Json whole(const std::vector<std::string>& names) {
    znpex::di::Transaction t;
    t.op = DI_TABLE_ADD;
    t.clearNodes = t.clearGroups = true;
    for (const std::string& n : names) {
        znpex::di::NodeEntry e;
        e.hostname = n;
        e.nodeId = 1000 + t.nodes.size();
        e.names = {n};
        e.addresses = {"127.0.0.1"};
        t.nodes.push_back(std::move(e));
    }
    return znpex::di::encodeTransaction(t);
}

bool hasHost(const Json& nodes, const std::string& name) {
    for (const Json& n : nodes) {
        if (n.value("hostname", "") == name) {
            return true;
        }
    }
    return false;
}

TEST_F(PeerDomainTest, AnUnauthenticatedCallerNeverReachesAnotherHost) {
    for (size_t i = 0; i < hosts_.size(); ++i) {
        // Rules as generous as an administrator might write: any
        // authenticated identity may do anything.
        writeAcl(i, "\t*\t* rw\n");
    }
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), 0) << hosts_[0].log();
    ASSERT_TRUE(waitFor([&] { return nodes(1).size() == 3; }));
    RecordingManager far(hosts_[1]);
    ASSERT_TRUE(far.registered());

    TestClient tcp(znpextest::connectTcp(port_, "127.0.0.1"));
    RpcMessage r = tcp.call("session.start", Json{{"options", 4}, {"client", "intruder"}});
    ASSERT_EQ(r.kind, Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    EXPECT_NE(r.errorMessage.find("authenticated"), std::string::npos) << r.errorMessage;
    r = tcp.call("rm.enumerateResources", Json{{"class", "Test.Widget"}});
    EXPECT_EQ(r.kind, Kind::Error) << "UNAUTHENT has no rights here";
    // Nothing reached the other host's manager, as anybody.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(far.identities().empty());

    // A proven peer forwards only users its kernel could vouch for.
    auto peer = peerOf(1, 0);
    for (const char* user : {"UNAUTHENT", "*", "", "root@elsewhere", "ro ot"}) {
        r = peer->call("rm.enumerateResources", Json{{"class", "Test.Widget"}, {"user", user}});
        ASSERT_EQ(r.kind, Kind::Error) << user;
        EXPECT_EQ(r.errorCode, proto::kInvalidParams) << user;
    }
    EXPECT_TRUE(far.identities().empty());
    r = peer->call("rm.enumerateResources", Json{{"class", "Test.Widget"}, {"user", "operator"}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(far.identities(), std::vector<std::string>{"operator@127.0.0.1"});
}

TEST_F(PeerDomainTest, OnlyAHostThatProvesItsKeyIsAPeer) {
    ASSERT_TRUE(startAll());
    Json deliver{{"rm", "Test.RM"}, {"type", 1}, {"subtype", 2}, {"data", ""}};
    {
        TestClient plain(znpextest::connectTcp(port_, "127.0.0.2"));
        for (const char* method : {"peer.deliver", "di.replicate"}) {
            EXPECT_EQ(plain.call(method, deliver).errorCode, proto::kMethodNotFound) << method;
        }
    }
    std::string nonce = std::string(43, 'A') + "=";  // 32 bytes
    struct Case {
        Json params;
        int code;
        const char* why;
    };
    const Case refused[] = {
        {Json{{"host", "127.0.0.9"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", nonce}},
         proto::kPermissionDenied, "trusted host list"},
        {Json{{"host", "LOCALHOST"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", nonce}},
         proto::kPermissionDenied, "every host's own self"},
        {Json{{"host", "localhost"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", nonce}},
         proto::kPermissionDenied, "every host's own self"},
        {Json{{"host", "127.0.0.2"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", nonce}},
         proto::kPermissionDenied, "this host's own name"},
        {Json{{"host", "127.0.0.1"}, {"nodeId", "1"}, {"to", "127.0.0.3"}, {"nonce", nonce}},
         proto::kPermissionDenied, "not for this host"},
        {Json{{"host", "root@127.0.0.1"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", nonce}},
         proto::kInvalidParams, "params.host"},
        {Json{{"host", "127.0.0.1"}, {"nodeId", "1"}, {"to", "127.0.0.2"}}, proto::kInvalidParams,
         "\"nonce\""},
        {Json{{"host", "127.0.0.1"}, {"nodeId", "1"}, {"to", "127.0.0.2"}, {"nonce", "AAAA"}},
         proto::kInvalidParams, "params.nonce"},
        {Json{{"host", 5}, {"nodeId", "1"}}, proto::kInvalidParams, "params.host"},
    };
    for (const Case& c : refused) {
        TestClient plain(znpextest::connectTcp(port_, "127.0.0.2"));
        RpcMessage r = plain.call("peer.hello", c.params);
        ASSERT_EQ(r.kind, Kind::Error) << c.params.dump();
        EXPECT_EQ(r.errorCode, c.code) << c.params.dump();
        EXPECT_NE(r.errorMessage.find(c.why), std::string::npos) << r.errorMessage;
    }
    auto local = hosts_[1].root_client();
    EXPECT_EQ(local->call("peer.hello", refused[0].params).errorCode, proto::kPermissionDenied);

    // A proof no greeting asked for, and a proof with a key the host is not
    // listed under: refused, and the connection ends.
    {
        TestClient c(znpextest::connectTcp(port_, "127.0.0.2"));
        RpcMessage r = c.call("peer.prove", Json{{"signature", "AAAA"}});
        EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    }
    {
        TestClient c(znpextest::connectTcp(port_, "127.0.0.2"));
        RpcMessage r = greet(c, "127.0.0.1", hostKey(3), 1);
        ASSERT_EQ(r.kind, Kind::Error);
        EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
        EXPECT_NE(r.errorMessage.find("does not match"), std::string::npos) << r.errorMessage;
        EXPECT_TRUE(c.closedWithin(3000));
    }
    // The real key makes a peer, and the answering host proves its own.
    TestClient c(znpextest::connectTcp(port_, "127.0.0.2"));
    bool answerProved = false;
    RpcMessage r = greet(c, "127.0.0.1", hostKey(0), 1, &answerProved);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["identity"], "127.0.0.1@PEER");
    EXPECT_TRUE(answerProved);
    EXPECT_EQ(c.call("peer.hello", refused[0].params).errorCode, proto::kPermissionDenied)
        << "one greeting per connection";
    // Five refused greetings, one on the local socket, two refused proofs,
    // one greeting too many.
    EXPECT_EQ(status(1)["peers"].value("refusedGreetings", 0u), 9u);
}

TEST_F(PeerDomainTest, ATableFromAPeerMakesNoNameTrusted) {
    ASSERT_TRUE(startAll());
    auto peer = peerOf(1, 2);
    // The forged table lists "ghost" and "localhost" at the caller's address.
    RpcMessage r = peer->call("di.replicate",
                              Json{{"stamp", "1000"}, {"tables", whole({"ghost", "localhost"})}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    ASSERT_TRUE(hasHost(nodes(1), "ghost"));
    for (const char* name : {"ghost", "localhost"}) {
        TestClient c(znpextest::connectTcp(port_, "127.0.0.2"));
        r = greet(c, name, hostKey(0), 1);
        ASSERT_EQ(r.kind, Kind::Error) << name;
        EXPECT_EQ(r.errorCode, proto::kPermissionDenied) << name;
    }
}

TEST_F(PeerDomainTest, AnUnprivilegedLocalUserCannotActAsItsHost) {
    if (!znpextest::canSwitchUser()) {
        GTEST_SKIP() << "needs root to run a child as nobody";
    }
    ASSERT_TRUE(startAll());
    // The child runs as nobody on host 1's machine: it can bind that host's
    // address, not read its key. Codes: 0 refused as it should be.
    std::string key = hosts_[0].root + zn::paths::kPrivateKeyFile;
    std::vector<uint8_t> garbage(128, 0x42);
    std::string to = hosts_[1].name;
    uint16_t port = port_;
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(10);
        }
        int fd = ::open(key.c_str(), O_RDONLY);
        if (fd >= 0 || errno != EACCES) {
            ::_exit(11);  // the key must be out of its reach
        }
        TestClient c(znpextest::connectTcp(port, to.c_str()));
        srv::PeerHello hello;
        hello.host = "127.0.0.1";
        hello.nodeId = 1;
        hello.to = to;
        hello.nonce.assign(32, 1);
        RpcMessage r = c.call(srv::kPeerHello, srv::encodePeerHello(hello));
        if (r.kind != Kind::Result) {
            ::_exit(12);  // the greeting itself may be answered: the name is trusted
        }
        srv::PeerProve prove;
        prove.signature = garbage;
        r = c.call(srv::kPeerProve, srv::encodePeerProve(prove));
        if (r.kind != Kind::Error || r.errorCode != proto::kPermissionDenied) {
            ::_exit(13);
        }
        ::_exit(c.closedWithin(3000) ? 0 : 14);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the child's exit codes above";
}

TEST_F(PeerDomainTest, AStampBeyondAnyClockIsRefusedAndCannotFreezeTheTables) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), 0) << hosts_[0].log();
    ASSERT_TRUE(waitFor([&] { return nodes(1).size() == 3; }));
    auto peer = peerOf(1, 2);
    RpcMessage r = peer->call(
        "di.replicate", Json{{"stamp", std::to_string(ULLONG_MAX)}, {"tables", whole({"poison"})}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["code"], kDiEinval);
    EXPECT_NE(r.result.value("reason", "").find("ahead"), std::string::npos) << r.result.dump();
    EXPECT_FALSE(hasHost(nodes(1), "poison"));
    EXPECT_EQ(status(1)["peers"].value("refusedStamps", 0u), 1u);

    // Real changes still flow.
    ASSERT_EQ(refreshNodeTable(0, {"fresh"}), 0);
    EXPECT_TRUE(waitFor([&] {
        Json n = nodes(1);
        return n.is_array() && !n.empty() &&
               n[0]["names"].dump().find("fresh") != std::string::npos;
    }));

    // A store that kept such a stamp (from an older version that took any)
    // starts at this clock instead, so its next change reaches the others.
    stop(1);
    {
        znpex::di::DiStore store(hosts_[1].root + zn::paths::kDiTablesDir + "/tables.db");
        ASSERT_EQ(store.setStamp(ULLONG_MAX), 0);
    }
    ASSERT_TRUE(start(1)) << hosts_[1].log();
    EXPECT_NE(hosts_[1].log().find("ahead of this host's clock"), std::string::npos);
    ASSERT_EQ(refreshNodeTable(1, {"after-restart"}), 0) << hosts_[1].log();
    EXPECT_TRUE(waitFor([&] {
        Json n = nodes(0);
        return n.is_array() && !n.empty() &&
               n[0]["names"].dump().find("after-restart") != std::string::npos;
    })) << hosts_[0].log();
}

TEST_F(PeerDomainTest, APeerListsClassesAsAPeerNotAsAnUnauthenticatedCaller) {
    znpextest::writeText(hosts_[1].root + zn::paths::kAclFile,
                         "Test.Open\n\t*\tC r\nTest.Unauth\n\tUNAUTHENT\tC r\n"
                         "Kor.NodeAuthenticate\n\tUNAUTHENT\tC r\n"
                         "OTHER\n\troot@LOCALHOST\t* rw\n");
    ASSERT_TRUE(startAll());
    ScriptedManager m(hosts_[1].socketPath(), "Test.RM",
                      {"Test.Open", "Test.Unauth", "Kor.NodeAuthenticate"});
    ASSERT_TRUE(m.registered());
    auto names = [](const RpcMessage& r) {
        std::set<std::string> out;
        for (const Json& e : r.result) {
            out.insert(e["class"].get<std::string>());
        }
        return out;
    };
    TestClient plain(znpextest::connectTcp(port_, "127.0.0.2"));
    // Before authenticating, only the class a node asks to be managed through,
    // whatever else the list grants UNAUTHENT.
    EXPECT_EQ(names(plain.call("class.list")), std::set<std::string>{"Kor.NodeAuthenticate"});
    auto peer = peerOf(1, 0);
    EXPECT_EQ(names(peer->call("class.list")), std::set<std::string>{"Test.Open"});
}

}  // namespace
}  // namespace peertest
