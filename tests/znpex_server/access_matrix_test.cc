// Who may do what through the service: root and another user on this host
// and an unauthenticated TCP client, each asking a class read, a class
// write, a resource read and a resource write, under the shipped list, an
// edited list after a refresh, and the previous list kept when an edit does
// not parse. A caller that has not authenticated gets none of it.
#include <gtest/gtest.h>

#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/ServiceErrors.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;

struct Op {
    const char* name;
    const char* method;
    Json params;
};

std::vector<Op> operations() {
    return {
        {"class read", "rm.enumerateResources", Json{{"class", kClass}}},
        {"class write", "rm.invokeClassAction",
         Json{{"class", kClass}, {"actionId", 1}, {"input", {{"t", 11}, {"v", Json::array()}}}}},
        {"resource read", "rm.getAttributeValues",
         Json{{"class", kClass}, {"handle", kHandle}, {"ids", {1, 2}}}},
        {"resource write", "rm.setAttributeValues",
         Json{{"class", kClass},
              {"handle", kHandle},
              {"values", Json::array({Json{{"id", 1}, {"t", 3}, {"v", 5}}})}}},
    };
}

// Whether each operation of operations() is allowed, per identity.
struct Expected {
    bool root[4];
    bool nobody[4];
    bool unauthenticated[4];
};

// One identity per instance: "root", "nobody" (another local user, run in a
// child process) or "UNAUTHENT" (over TCP).
class AccessMatrixTest : public ServiceTest, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        who_ = GetParam();
        if (who_ == "nobody" && !canSwitchUser()) {
            GTEST_SKIP() << "running a client as user nobody needs root";
        }
        startService();
        manager_ = std::make_unique<FakeManager>(socketPath(), std::vector<std::string>{kClass});
        ASSERT_EQ(manager_->registration().kind, RpcMessage::Kind::Result);
    }

    RpcMessage ask(const Op& op) {
        if (who_ == "root") {
            return root()->call(op.method, op.params);
        }
        if (who_ == "UNAUTHENT") {
            return unauthenticated()->call(op.method, op.params);
        }
        std::string payload = callAsNobody(socketPath(), op.method, op.params);
        EXPECT_FALSE(payload.empty());
        return payload.empty() ? RpcMessage{} : proto::parseMessage(payload);
    }

    void check(const Expected& e) {
        const bool* allowed = who_ == "root"     ? e.root
                              : who_ == "nobody" ? e.nobody
                                                 : e.unauthenticated;
        std::string identity = who_ == "UNAUTHENT" ? who_ : who_ + "@LOCALHOST";
        auto ops = operations();
        size_t before = manager_->requestsSeen();
        size_t forwarded = 0;
        for (size_t i = 0; i < ops.size(); ++i) {
            SCOPED_TRACE(who_ + ": " + ops[i].name);
            RpcMessage r = ask(ops[i]);
            if (allowed[i]) {
                ++forwarded;
                ASSERT_EQ(r.kind, RpcMessage::Kind::Result) << r.errorMessage;
                EXPECT_EQ(r.result["seen"]["method"], ops[i].method);
                // The manager hears who asked, as the service saw it.
                EXPECT_EQ(r.result["seen"]["identity"], identity);
            } else {
                ASSERT_EQ(r.kind, RpcMessage::Kind::Error);
                EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
                EXPECT_EQ(errorId(r), znpex::server::ZNPEX_EPERM);
                std::string text = r.errorData.value("text", "");
                EXPECT_NE(text.find("2660-001"), std::string::npos) << text;
                EXPECT_NE(text.find(identity), std::string::npos) << text;
            }
        }
        // Nothing refused ever reached the manager.
        EXPECT_EQ(manager_->requestsSeen() - before, forwarded);
    }

    std::string who_;
    std::unique_ptr<FakeManager> manager_;
};

// Operations: class read, class write, resource read, resource write.
TEST_P(AccessMatrixTest, ShippedList) {
    check({{true, true, true, true}, {true, false, true, false}, {false, false, false, false}});
}

TEST_P(AccessMatrixTest, EditedListAfterRefresh) {
    replaceAcl(shippedAcl() +
               "Test.Widget\n"
               "\t                root@LOCALHOST\tC rw\n"
               "\t              nobody@LOCALHOST\tR rw\n"
               "\t                     UNAUTHENT\tC r\n"
               "\t                     UNAUTHENT\tR w\n");
    // What the list grants UNAUTHENT here is held back: before authenticating,
    // a caller may only ask to be managed (enrollment_gate_test.cc).
    check({{true, true, false, false}, {false, false, true, true}, {false, false, false, false}});
}

TEST_P(AccessMatrixTest, AListThatDoesNotParseKeepsTheRulesInForce) {
    replaceAcl(shippedAcl() + "Test.Widget\n\t              nobody@LOCALHOST\t* r\n");
    writeText(aclPath(), "Test.Widget\n\tUNAUTHENT * rw\n\tbroken entry here now\n");
    RpcMessage r = root()->call("service.refreshAcl");
    ASSERT_EQ(r.kind, RpcMessage::Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kOperationFailed);
    EXPECT_EQ(errorId(r), znpex::server::ZNPEX_EACLFILE);
    EXPECT_NE(r.errorData.value("text", "").find("line 3"), std::string::npos);
    // Still the list before the failed edit: nobody reads, no one else anything.
    check({{false, false, false, false}, {true, false, true, false}, {false, false, false, false}});
    // The status names the failure until a good list is read.
    auto status = root()->call("service.status");
    ASSERT_EQ(status.kind, RpcMessage::Kind::Result);
    EXPECT_NE(status.result["acl"].value("lastError", "").find("line 3"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Identities, AccessMatrixTest,
                         ::testing::Values("root", "nobody", "UNAUTHENT"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                             return std::string(i.param);
                         });

}  // namespace
}  // namespace znpextest
