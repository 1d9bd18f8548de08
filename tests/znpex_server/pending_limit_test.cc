// The cap on connections from one address that have not authenticated yet:
// the counting itself, the service refusing past it with a log line, a
// proof or a close freeing a place, and a storm of nodes asking to be
// managed from one loopback address staying under the default.
#include <gtest/gtest.h>

#include "platform/paths.h"

#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/PendingLimit.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using Kind = RpcMessage::Kind;
using znpex::server::PendingLimit;

TEST(PendingLimit, CountsPerAddressUntilReleased) {
    PendingLimit limit(2);
    EXPECT_TRUE(limit.admit(1, "10.0.0.1"));
    EXPECT_TRUE(limit.admit(2, "10.0.0.1"));
    EXPECT_FALSE(limit.admit(3, "10.0.0.1"));  // the third from one address
    EXPECT_TRUE(limit.admit(4, "10.0.0.2"));   // other addresses have their own
    EXPECT_EQ(limit.pending("10.0.0.1"), 2u);
    EXPECT_EQ(limit.refused(), 1u);
    limit.release(3);  // never admitted: nothing changes
    EXPECT_EQ(limit.pending("10.0.0.1"), 2u);
    limit.release(1);
    limit.release(1);  // twice (proven, then closed): counted once
    EXPECT_EQ(limit.pending("10.0.0.1"), 1u);
    EXPECT_TRUE(limit.admit(5, "10.0.0.1"));
    limit.release(2);
    limit.release(5);
    limit.release(4);
    EXPECT_EQ(limit.pending("10.0.0.1"), 0u);
    EXPECT_EQ(limit.pending("10.0.0.2"), 0u);

    PendingLimit none(0);  // no cap
    for (uint64_t id = 1; id <= 5000; ++id) {
        ASSERT_TRUE(none.admit(id, "10.0.0.1"));
    }
}

class PendingLimitTest : public ServiceTest {};

TEST_F(PendingLimitTest, PastTheCapConnectionsAreRefusedUntilOneProvesOrCloses) {
    options_.router.maxPendingPerAddress = 3;
    startService();
    static sec_buffer_t pvt = nullptr, pub = nullptr;
    if (pvt == nullptr) {
        ASSERT_EQ(sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub), 0);
    }
    writeText(zn::paths::resolve(zn::paths::kThlFile), "");
    ASSERT_EQ(sec_store_host_token("node1", pub), 0);

    std::vector<std::unique_ptr<TestClient>> held;
    for (int i = 0; i < 3; ++i) {
        held.push_back(unauthenticated());
        ASSERT_EQ(held.back()->call("auth.hello").kind, Kind::Result);
    }
    ::testing::internal::CaptureStderr();
    auto refused = unauthenticated();
    EXPECT_TRUE(refused->closedWithin(2000));
    std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("refusing connections from 127.0.0.1: 3 of its connections are waiting "
                       "to authenticate already"),
              std::string::npos)
        << log;
    // Local callers are not counted.
    EXPECT_EQ(root()->call("service.status").kind, Kind::Result);
    Json status = root()->call("service.status").result;
    EXPECT_EQ(status["limits"]["refusedPending"], 1);
    EXPECT_EQ(status["limits"]["pendingPerAddress"], 3);

    // One proves its host key: it no longer waits, and a place is free.
    TestClient& c = *held[0];
    RpcMessage r = c.call(proto::kAuthHello, proto::encodeAuthHello({"node1", "127.0.0.1"}));
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    std::vector<uint8_t> sig;
    std::string why;
    ASSERT_TRUE(znhas::signWithKeyToken(
        pvt,
        znhas::proofMessage({proto::kProofOfClient, "node1", "127.0.0.1",
                             proto::decodeAuthChallenge(r.result).challenge}),
        &sig, &why));
    ASSERT_EQ(c.call(proto::kAuthProve, proto::encodeAuthProve(sig)).kind, Kind::Result);
    held.push_back(unauthenticated());
    EXPECT_EQ(held.back()->call("auth.hello").kind, Kind::Result);

    // Full again; one that closes frees its place.
    EXPECT_TRUE(unauthenticated()->closedWithin(2000));
    held[1].reset();
    ASSERT_TRUE(testsupport::waitFor([&] {
        auto next = unauthenticated();
        return next->call("auth.hello", Json::object(), 500).kind == Kind::Result;
    }));
}

TEST_F(PendingLimitTest, AStormOfNodesFromOneLoopbackAddressStaysUnderTheDefault) {
    startService();
    FakeManager manager(socketPath(), "Kor.ORVRM",
                        Json::array({classDef("Kor.NodeAuthenticate",
                                              {"SetACL", "ClearACL", "RequestNodeManagement"})}));
    replaceAcl("Kor.NodeAuthenticate\n\tUNAUTHENT\tC rw\n");
    // Many nodes at once, each on its own connection, all waiting to be
    // answered before any closes.
    constexpr int kNodes = 300;
    std::vector<std::unique_ptr<TestClient>> nodes;
    for (int i = 0; i < kNodes; ++i) {
        nodes.push_back(unauthenticated());
    }
    Json ask{{"class", "Kor.NodeAuthenticate"}, {"actionId", 2}};
    int answered = 0;
    for (auto& n : nodes) {
        RpcMessage r = n->call("rm.invokeClassAction", ask);
        answered += r.kind == Kind::Result ? 1 : 0;
    }
    EXPECT_EQ(answered, kNodes);
    Json status = root()->call("service.status").result;
    EXPECT_EQ(status["limits"]["refusedPending"], 0);
}

}  // namespace
}  // namespace znpextest
