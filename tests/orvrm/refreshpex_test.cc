#include "orvrm/refreshpex.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "orvrm/pexaclrefresh.h"
#include "platform/paths.h"
#include "tests/support/TempDir.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace {

namespace proto = znpex::proto;

// Stands in for the service on its local socket: takes one connection, reads
// one request and answers with `reply` (nothing when empty, until the caller
// gives up and closes).
class OneShotService {
public:
    // `method` receives what was asked; read it after this object is gone.
    OneShotService(std::string reply, std::string* method)
        : reply_(std::move(reply)), method_(method) {
        std::string path = zn::paths::resolve(zn::paths::kPexSocket);
        EXPECT_EQ(zn::paths::ensureParentDir(path), 0);
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(::listen(fd_, 4), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~OneShotService() {
        thread_.join();
        ::close(fd_);
    }

private:
    void serve() {
        int c = ::accept(fd_, nullptr, nullptr);
        if (c < 0) {
            return;
        }
        proto::FdFrameReader reader(c);
        std::string payload;
        if (reader.next(payload, 5000) == proto::IoStatus::Ok) {
            proto::RpcMessage m = proto::parseMessage(payload);
            *method_ = m.method;
            if (!reply_.empty()) {
                std::string text = reply_;
                // The reply names the request's id.
                text.replace(text.find("ID"), 2, proto::dumpJson(m.id));
                proto::writeFrame(c, text, 5000);
            }
        }
        // Wait for the caller to close, so an unanswered request really waits.
        char b;
        while (::read(c, &b, 1) > 0) {
        }
        ::close(c);
    }
    std::string reply_;
    std::string* method_;
    int fd_ = -1;
    std::thread thread_;
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
        int rc = 0;
        int err = 0;
        std::string method;
        {
            OneShotService service(c.reply, &method);
            errno = 0;
            rc = requestPexAclRefresh(std::chrono::milliseconds(300));
            err = errno;
        }
        EXPECT_EQ(method, "service.refreshAcl");
        EXPECT_EQ(rc, c.rc);
        if (c.rc != 0) {
            EXPECT_EQ(err, c.err);
        }
    }
}

TEST(RefreshPexTest, RefreshpexFollowsTheRequest) {
    testsupport::TempDir root(true);
    std::string method;
    {
        OneShotService service(R"({"jsonrpc":"2.0","id":ID,"result":{"ok":true}})", &method);
        EXPECT_EQ(refreshpex(), 0);
    }
    EXPECT_EQ(method, "service.refreshAcl");
}

}  // namespace
