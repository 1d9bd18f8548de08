#include "orvrm/refreshpex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "orvrm/pexaclrefresh.h"
#include "tests/support/TempDir.h"
#include "tests/tarn_rmf2v/link/FakePexService.h"

namespace {

namespace proto = znpex::proto;
using proto::RpcMessage;

// The service answering every request with `reply`, its "ID" replaced by the
// request's id (nothing when empty: the caller waits and gives up).
class OneShotService : public testsupport::FakePexService {
public:
    explicit OneShotService(std::string reply) : reply_(std::move(reply)) {
        start([this](const RpcMessage& m) -> std::optional<std::string> {
            if (reply_.empty()) {
                return std::nullopt;
            }
            std::string text = reply_;
            return text.replace(text.find("ID"), 2, proto::dumpJson(m.id));
        });
    }
    ~OneShotService() { stop(); }
    // The method of the request, once one came.
    std::string method() {
        RpcMessage m;
        return take([](const RpcMessage&) { return true; }, &m) ? m.method : "(none)";
    }

private:
    std::string reply_;
};

TEST(RefreshPexTest, NoServiceFailsWithENOENT) {
    testsupport::TempDir root(true);
    errno = 0;
    EXPECT_EQ(requestPexAclRefresh(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(refreshpex(), -1);
}

TEST(RefreshPexTest, AnswerDecidesTheResult) {
    struct Case {
        const char* name;
        const char* reply;
        int rc;
        int err;
    };
    const Case cases[] = {
        {"accepted", R"({"jsonrpc":"2.0","id":ID,"result":{"ok":true}})", 0, 0},
        {"list did not parse",
         R"({"jsonrpc":"2.0","id":ID,"error":{"code":-32001,"message":"failed"}})", -1, EIO},
        {"not root", R"({"jsonrpc":"2.0","id":ID,"error":{"code":-32601,"message":"not allowed"}})",
         -1, EACCES},
        {"garbage", "ID not json", -1, EPROTO},
        {"no answer", "", -1, ETIMEDOUT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testsupport::TempDir root(true);
        OneShotService service(c.reply);
        errno = 0;
        int rc = requestPexAclRefresh(std::chrono::milliseconds(300));
        int err = errno;
        EXPECT_EQ(service.method(), "service.refreshAcl");
        EXPECT_EQ(rc, c.rc);
        if (c.rc != 0) {
            EXPECT_EQ(err, c.err);
        }
    }
}

TEST(RefreshPexTest, RefreshpexFollowsTheRequest) {
    testsupport::TempDir root(true);
    OneShotService service(R"({"jsonrpc":"2.0","id":ID,"result":{"ok":true}})");
    EXPECT_EQ(refreshpex(), 0);
    EXPECT_EQ(service.method(), "service.refreshAcl");
}

}  // namespace
