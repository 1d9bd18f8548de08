// Who may ask what of the enrollment class and of the node class: a caller
// that has not authenticated, a node proven by its host key (root@node1),
// root on this host and another user on this host, each sending every class
// and resource operation and each enrollment-class action, under a list
// that grants "UNAUTHENT" the whole enrollment class. Only the request to be
// managed and the protocols action stay open before authentication; the rest
// is a permission error, whatever the list says.
#include <gtest/gtest.h>

#include "platform/paths.h"

#include "tests/znpex_server/ServiceHarness.h"
#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/MethodTable.h"
#include "znpex/server/ServiceErrors.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using tarn_rmf2v::RMRequestOp;
using Kind = RpcMessage::Kind;

constexpr char kAuthClass[] = "Kor.NodeAuthenticate";
constexpr char kNodeClass[] = "Kor.ManagedNode";
const std::vector<std::string> kAuthActions = {"SetACL",
                                               "ClearACL",
                                               "RequestNodeManagement",
                                               "SupportedProtocols",
                                               "InvokeNodeStatusCmd",
                                               "StopStatusLogging",
                                               "SetupMMPeerDomain"};

const char kAcl[] =
    "Kor.NodeAuthenticate\n"
    "\t*\tC rw\n"
    "\tUNAUTHENT\tC rw\n"
    "Kor.ManagedNode\n"
    "\troot@node1\t* rw\n"
    "\troot@LOCALHOST\t* rw\n"
    "\tLOCALHOST\t* r\n"
    "OTHER\n"
    "\troot@LOCALHOST\t* rw\n"
    "\tLOCALHOST\t* r\n";

struct Request {
    std::string what;  // for messages
    std::string method;
    Json params;
    std::string className;
    bool resource = false;
    bool write = false;
    std::string action;  // class actions: the action's name
};

// Every manager operation on both classes, and each class action of the
// enrollment class by itself.
std::vector<Request> requests() {
    std::vector<Request> out;
    for (int i = 0; i <= static_cast<int>(RMRequestOp::SetResourceACL); ++i) {
        auto op = static_cast<RMRequestOp>(i);
        const znpex::server::MethodInfo& info = znpex::server::methodOf(op);
        for (const char* cls : {kAuthClass, kNodeClass}) {
            Request r{info.name + " " + cls,
                      info.name,
                      Json{{"class", cls}},
                      cls,
                      info.target == znpex::server::OpTarget::Resource,
                      info.access == znpex::server::OpAccess::Write,
                      ""};
            if (r.resource) {
                r.params["handle"] = kHandle;
            }
            if (op == RMRequestOp::InvokeClassAction && cls == std::string(kAuthClass)) {
                for (size_t a = 0; a < kAuthActions.size(); ++a) {
                    Request act = r;
                    act.what = kAuthActions[a];
                    act.action = kAuthActions[a];
                    act.params["actionId"] = static_cast<int>(a);
                    out.push_back(act);
                }
                continue;
            }
            if (op == RMRequestOp::InvokeClassAction || op == RMRequestOp::InvokeAction) {
                r.params["actionId"] = 0;
            }
            out.push_back(r);
        }
    }
    return out;
}

// What each identity may do under kAcl, written out per identity.
bool allowed(const std::string& who, const Request& r) {
    if (who == "UNAUTHENT") {
        return r.action == "RequestNodeManagement" || r.action == "SupportedProtocols";
    }
    if (r.className == kAuthClass) {
        return !r.resource;  // "*" has the class, nobody its (absent) resources
    }
    if (who == "nobody@LOCALHOST") {
        return !r.write;
    }
    return true;  // root@node1 and root@LOCALHOST: rw on the node class
}

class EnrollmentGateTest : public ServiceTest, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        who_ = GetParam();
        if (who_ == "nobody@LOCALHOST" && !canSwitchUser()) {
            GTEST_SKIP() << "running a client as user nobody needs root";
        }
        startService();
        replaceAcl(kAcl);
        manager_ = std::make_unique<FakeManager>(
            socketPath(), "Kor.ORVRM",
            Json::array({classDef(kAuthClass, kAuthActions), classDef(kNodeClass)}));
        ASSERT_EQ(manager_->registration().kind, Kind::Result);
        if (who_ == "UNAUTHENT" || who_ == "root@node1") {
            tcp_ = unauthenticated();
        }
        if (who_ == "root@node1") {
            prove();
        }
    }

    void prove() {
        static sec_buffer_t pvt = nullptr, pub = nullptr;
        if (pvt == nullptr) {
            ASSERT_EQ(sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub), 0);
        }
        writeText(zn::paths::resolve(zn::paths::kThlFile), "");
        ASSERT_EQ(sec_store_host_token("node1", pub), 0);
        RpcMessage r =
            tcp_->call(proto::kAuthHello, proto::encodeAuthHello({"node1", "127.0.0.1"}));
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
        auto nonce = proto::decodeAuthChallenge(r.result).challenge;
        std::vector<uint8_t> sig;
        std::string why;
        ASSERT_TRUE(znhas::signWithKeyToken(
            pvt, znhas::proofMessage({proto::kProofOfClient, "node1", "127.0.0.1", nonce}), &sig,
            &why));
        r = tcp_->call(proto::kAuthProve, proto::encodeAuthProve(sig));
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    }

    RpcMessage ask(const std::string& method, const Json& params) {
        if (tcp_ != nullptr) {
            return tcp_->call(method, params);
        }
        if (who_ == "root@LOCALHOST") {
            return root()->call(method, params);
        }
        std::string payload = callAsNobody(socketPath(), method, params);
        EXPECT_FALSE(payload.empty());
        return payload.empty() ? RpcMessage{} : proto::parseMessage(payload);
    }

    std::string who_;
    std::unique_ptr<FakeManager> manager_;
    std::unique_ptr<TestClient> tcp_;
};

TEST_P(EnrollmentGateTest, EveryOperationAndAction) {
    size_t forwarded = 0;
    size_t before = manager_->requestsSeen();
    for (const Request& q : requests()) {
        SCOPED_TRACE(who_ + ": " + q.what);
        RpcMessage r = ask(q.method, q.params);
        if (allowed(who_, q)) {
            ++forwarded;
            ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
            EXPECT_EQ(r.result["seen"]["identity"], who_);
        } else {
            ASSERT_EQ(r.kind, Kind::Error);
            EXPECT_EQ(r.errorCode, proto::kPermissionDenied) << r.errorMessage;
            EXPECT_EQ(errorId(r), znpex::server::ZNPEX_EPERM);
            EXPECT_NE(r.errorData.value("text", "").find(who_), std::string::npos);
        }
    }
    EXPECT_EQ(manager_->requestsSeen() - before, forwarded);
}

TEST_P(EnrollmentGateTest, ClassListAndWatches) {
    RpcMessage r = ask("class.list", Json::object());
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    std::set<std::string> names;
    for (const Json& c : r.result) {
        names.insert(c.value("class", ""));
    }
    std::set<std::string> expected{kAuthClass, kNodeClass};
    if (who_ == "UNAUTHENT") {
        expected = {kAuthClass};  // what asking to be managed needs, nothing more
    }
    EXPECT_EQ(names, expected);
    r = ask("event.register", Json{{"class", kNodeClass}, {"expression", "Status!=Status@P"}});
    if (who_ == "UNAUTHENT") {
        ASSERT_EQ(r.kind, Kind::Error);
        EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    } else {
        EXPECT_NE(r.errorCode, proto::kPermissionDenied) << r.errorMessage;
    }
}

INSTANTIATE_TEST_SUITE_P(Identities, EnrollmentGateTest,
                         ::testing::Values("UNAUTHENT", "root@node1", "root@LOCALHOST",
                                           "nobody@LOCALHOST"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                             std::string n = i.param;
                             for (char& ch : n) {
                                 if (ch == '@') {
                                     ch = '_';
                                 }
                             }
                             return n;
                         });

}  // namespace
}  // namespace znpextest
