// What callers may cost the service: unauthenticated callers send small
// frames and are dropped when a frame stalls, when they fall silent, or when
// they stop reading (their requests stop being read first, so their answers
// cannot pile up); authenticated callers keep large frames and may idle; and
// when the buffers of all connections pass the budget, the oldest
// unauthenticated holders go first.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/proto/Frame.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using Kind = RpcMessage::Kind;
using testsupport::waitFor;

std::string header(size_t n) {
    std::string h;
    proto::appendFrameHeader(h, n);
    return h;
}

class LimitsTest : public ServiceTest {
protected:
    Json limits() {
        RpcMessage r = root()->call("service.status");
        return r.kind == Kind::Result ? r.result["limits"] : Json();
    }
};

TEST_F(LimitsTest, UnauthenticatedFramesAreSmallAuthenticatedOnesAreNot) {
    startService();
    auto tcp = unauthenticated();
    tcp->sendRaw(header(options_.router.unauthenticatedMaxFrame + 1));
    RpcMessage r;
    ASSERT_TRUE(tcp->next(&r));
    EXPECT_EQ(r.errorCode, proto::kInvalidRequest);
    EXPECT_NE(r.errorMessage.find("not authenticated"), std::string::npos) << r.errorMessage;
    EXPECT_TRUE(tcp->closedWithin(5000));

    // Just under the cap is read and answered (and parsed no further than that).
    auto ok = unauthenticated();
    std::string pad(options_.router.unauthenticatedMaxFrame - 100, 'x');
    r = ok->call("class.list", Json{{"pad", pad}});
    EXPECT_EQ(r.kind, Kind::Result) << r.errorMessage;

    // The local socket's callers are known to the kernel: a megabyte is fine.
    auto local = root();
    r = local->call("class.list", Json{{"pad", std::string(1u << 20, 'y')}});
    EXPECT_EQ(r.kind, Kind::Result) << r.errorMessage;
}

TEST_F(LimitsTest, ParamsThatAreNotAnObjectAreRefused) {
    startService();
    auto c = root();
    c->send(Json{{"jsonrpc", "2.0"}, {"id", 7}, {"method", "class.list"}, {"params", {1}}});
    RpcMessage r;
    ASSERT_TRUE(c->next(&r));
    EXPECT_EQ(r.kind, Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kInvalidParams);
    EXPECT_EQ(c->call("class.list").kind, Kind::Result) << "the connection stays usable";
}

TEST_F(LimitsTest, StalledFramesAndSilentUnauthenticatedCallersAreClosed) {
    options_.router.readTimeout = std::chrono::milliseconds(300);
    options_.router.unauthenticatedIdle = std::chrono::milliseconds(600);
    startService();
    auto partial = unauthenticated();
    partial->sendRaw(header(1000) + std::string(10, '{'));
    auto silent = unauthenticated();
    auto local = root();
    local->sendRaw(header(1000) + std::string(10, '{'));
    auto idleLocal = root();

    EXPECT_TRUE(partial->closedWithin(5000));
    EXPECT_TRUE(silent->closedWithin(5000));
    // Authenticated callers get four times as long for a frame, and may idle.
    EXPECT_TRUE(local->closedWithin(5000));
    EXPECT_FALSE(idleLocal->closedWithin(1500));
    EXPECT_EQ(idleLocal->call("class.list").kind, Kind::Result);
    Json closed = limits()["closed"];
    EXPECT_GE(closed["readTimeout"].get<int>(), 2);
    EXPECT_GE(closed["idle"].get<int>(), 1);
}

TEST_F(LimitsTest, ACallerThatNeverReadsStopsBeingReadAndIsDropped) {
    options_.router.writeTimeout = std::chrono::milliseconds(1500);
    startService();
    int fd = connectTcp(service_->tcpPort());
    ASSERT_GE(fd, 0);
    int small = 4096;  // keep the kernel's share small: the service's is measured
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    // Each request names an unknown method of 30 KB, which the error echoes:
    // 400 of them ask for 12 MB of answers.
    std::string method(30000, 'm');
    std::string batch;
    for (int i = 0; i < 400; ++i) {
        std::string payload = proto::dumpJson(proto::makeRequest(i, method, nullptr));
        batch += header(payload.size()) + payload;
    }
    std::thread writer([&] {
        size_t at = 0;
        while (at < batch.size()) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, 3000) <= 0) {
                break;  // the service stopped reading: as it should
            }
            ssize_t n = ::send(fd, batch.data() + at, batch.size() - at, MSG_NOSIGNAL);
            if (n <= 0) {
                break;
            }
            at += static_cast<size_t>(n);
        }
    });
    // While it does not read, the service holds little of its answers.
    size_t most = 0;
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        most = std::max(most, limits()["held"].get<size_t>());
    }
    EXPECT_LT(most, 256u << 10) << "answers to a caller that does not read piled up";
    EXPECT_TRUE(waitFor([&] { return limits()["closed"]["writeTimeout"].get<int>() >= 1; }));
    writer.join();
    ::close(fd);
    EXPECT_EQ(root()->call("class.list").kind, Kind::Result);
}

TEST_F(LimitsTest, OverTheBudgetTheOldestUnauthenticatedHoldersGoFirst) {
    options_.router.bufferBudget = 1u << 20;
    options_.router.readTimeout = std::chrono::seconds(30);
    startService();
    // An authenticated holder first: the oldest, but the last to go.
    auto local = root();
    local->sendRaw(header(60000) + std::string(100, ' '));
    std::vector<std::unique_ptr<TestClient>> holders;
    for (int i = 0; i < 24; ++i) {
        holders.push_back(unauthenticated());
        holders.back()->sendRaw(header(60000) + std::string(100, ' '));
        // One at a time, so the order in which they began holding is known.
        size_t expect = static_cast<size_t>(i + 2) * 60000;
        waitFor([&] {
            return limits()["held"].get<size_t>() >= std::min<size_t>(expect, 1u << 20) ||
                   limits()["closed"]["budget"].get<int>() > 0;
        });
    }
    ASSERT_TRUE(waitFor([&] { return limits()["closed"]["budget"].get<int>() > 0; }));
    // Closing is asynchronous: what the condemned hold counts until they go.
    EXPECT_TRUE(waitFor([&] { return limits()["held"].get<size_t>() <= size_t{1} << 20; }))
        << limits().dump();
    EXPECT_TRUE(holders.front()->closedWithin(3000)) << "the oldest holder goes first";
    EXPECT_FALSE(holders.back()->closedWithin(200)) << "the newest stays";
    EXPECT_FALSE(local->closedWithin(200)) << "authenticated callers go last";
}

}  // namespace
}  // namespace znpextest
