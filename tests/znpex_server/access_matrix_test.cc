// Who may do what through the service: root and another user on this host
// and an unauthenticated TCP client, each asking a class read, a class
// write, a resource read and a resource write, under the shipped list, an
// edited list after a refresh, and the previous list kept when an edit does
// not parse.
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

// Expected outcome per operation, in the order of operations().
struct Row {
    const char* who;
    bool allowed[4];
};

class AccessMatrixTest : public ServiceTest {
protected:
    void SetUp() override {
        startService();
        manager_ = std::make_unique<FakeManager>(socketPath(), std::vector<std::string>{kClass});
        ASSERT_EQ(manager_->registration().kind, RpcMessage::Kind::Result);
    }

    RpcMessage ask(const std::string& who, const Op& op) {
        if (who == "root") {
            return root()->call(op.method, op.params);
        }
        if (who == "UNAUTHENT") {
            return unauthenticated()->call(op.method, op.params);
        }
        std::string payload = callAsNobody(socketPath(), op.method, op.params);
        EXPECT_FALSE(payload.empty());
        return payload.empty() ? RpcMessage{} : proto::parseMessage(payload);
    }

    void check(const std::vector<Row>& rows) {
        auto ops = operations();
        for (const Row& row : rows) {
            if (std::string(row.who) == "nobody" && !canSwitchUser()) {
                ADD_FAILURE() << "cannot run a client as nobody";  // skipped by the caller
                continue;
            }
            std::string identity = std::string(row.who) == "UNAUTHENT"
                                       ? "UNAUTHENT"
                                       : std::string(row.who) + "@LOCALHOST";
            for (size_t i = 0; i < ops.size(); ++i) {
                SCOPED_TRACE(std::string(row.who) + ": " + ops[i].name);
                RpcMessage r = ask(row.who, ops[i]);
                if (row.allowed[i]) {
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
        }
    }

    std::vector<Row> withNobody(std::vector<Row> rows) {
        if (!canSwitchUser()) {
            std::erase_if(rows, [](const Row& r) { return std::string(r.who) == "nobody"; });
        }
        return rows;
    }

    std::unique_ptr<FakeManager> manager_;
};

TEST_F(AccessMatrixTest, ShippedList) {
    if (!canSwitchUser()) {
        std::cerr << "not root: the other-user rows are left out\n";
    }
    check(withNobody({{"root", {true, true, true, true}},
                      {"nobody", {true, false, true, false}},
                      {"UNAUTHENT", {false, false, false, false}}}));
    EXPECT_EQ(manager_->requestsSeen(), canSwitchUser() ? 6u : 4u);
}

TEST_F(AccessMatrixTest, EditedListAfterRefresh) {
    replaceAcl(shippedAcl() +
               "Test.Widget\n"
               "\t                root@LOCALHOST\tC rw\n"
               "\t              nobody@LOCALHOST\tR rw\n"
               "\t                     UNAUTHENT\tC r\n"
               "\t                     UNAUTHENT\tR w\n");
    check(withNobody({{"root", {true, true, false, false}},
                      {"nobody", {false, false, true, true}},
                      {"UNAUTHENT", {true, false, false, true}}}));
}

TEST_F(AccessMatrixTest, AListThatDoesNotParseKeepsTheRulesInForce) {
    replaceAcl(shippedAcl() + "Test.Widget\n\t                     UNAUTHENT\t* r\n");
    writeText(aclPath(), "Test.Widget\n\tUNAUTHENT * rw\n\tbroken entry here now\n");
    RpcMessage r = root()->call("service.refreshAcl");
    ASSERT_EQ(r.kind, RpcMessage::Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kOperationFailed);
    EXPECT_EQ(errorId(r), znpex::server::ZNPEX_EACLFILE);
    EXPECT_NE(r.errorData.value("text", "").find("line 3"), std::string::npos);
    // Still the list before the failed edit: UNAUTHENT reads, root has nothing.
    check(withNobody(
        {{"UNAUTHENT", {true, false, true, false}}, {"root", {false, false, false, false}}}));
    // The status names the failure until a good list is read.
    auto status = root()->call("service.status");
    ASSERT_EQ(status.kind, RpcMessage::Kind::Result);
    EXPECT_NE(status.result["acl"].value("lastError", "").find("line 3"), std::string::npos);
}

}  // namespace
}  // namespace znpextest
