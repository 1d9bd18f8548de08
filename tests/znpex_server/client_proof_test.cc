// TCP clients proving the host they run on with its host key: a good proof
// makes the connection "root@<host>" under the access list; a wrong key, an
// unlisted host, a replayed signature, a 512-bit key, this host's own names
// and a proof meant for another host are all refused. Through the client
// library too: a readable key proves, an unreadable one leaves the session
// unauthenticated, which then sees a permission error rather than "class not
// known".
#include <gtest/gtest.h>

#include "platform/paths.h"

#include "platform/cu_error.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znhas/sec_keyfile.h"
#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/Base64.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ProtocolError.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using Kind = RpcMessage::Kind;
using Bytes = std::vector<uint8_t>;

struct KeyPair {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
};

// Made once per process (key generation takes a while); never released, so
// the buffers stay reachable at exit.
const KeyPair& key(int which) {
    static const std::vector<KeyPair>* keys = new std::vector<KeyPair>([] {
        std::vector<KeyPair> k(3);
        int types[] = {SEC_KEYTYPE_RSA1024, SEC_KEYTYPE_RSA1024, SEC_KEYTYPE_RSA512};
        for (size_t i = 0; i < k.size(); ++i) {
            EXPECT_EQ(sec_generate_rsa_localhost_token(types[i], &k[i].pvt, &k[i].pub), 0);
        }
        return k;
    }());
    return keys->at(which);
}
const KeyPair& nodeKey() {
    return key(0);
}
const KeyPair& otherKey() {
    return key(1);
}
const KeyPair& weakKey() {
    return key(2);
}

class ClientProofTest : public ServiceTest {
protected:
    void SetUp() override {
        options_.router.hostName = "mgmt";
        startService();
        writeText(zn::paths::resolve(zn::paths::kThlFile), "");
        // The trusted host list: node1 with a good key, weak1 with a 512-bit one.
        ASSERT_EQ(sec_store_host_token("node1", nodeKey().pub), 0);
        ASSERT_EQ(sec_store_host_token("weak1", weakKey().pub), 0);
    }

    std::unique_ptr<TestClient> tcp() { return unauthenticated(); }

    // "auth.hello" naming `host`, reached as `to`; the challenge in *nonce.
    RpcMessage hello(TestClient& c, const std::string& host, Bytes* nonce,
                     const std::string& to = "127.0.0.1") {
        RpcMessage r = c.call(proto::kAuthHello, proto::encodeAuthHello({host, to}));
        if (r.kind == Kind::Result) {
            *nonce = proto::decodeAuthChallenge(r.result).challenge;
        }
        return r;
    }

    static Bytes sign(const KeyPair& k, const std::string& host, const Bytes& nonce,
                      const std::string& to = "127.0.0.1") {
        Bytes sig;
        std::string why;
        EXPECT_TRUE(znhas::signWithKeyToken(
            k.pvt, znhas::proofMessage({proto::kProofOfClient, host, to, nonce}), &sig, &why))
            << why;
        return sig;
    }

    // The whole proof as `host` with `k`; the signature sent in *sent.
    RpcMessage prove(TestClient& c, const std::string& host, const KeyPair& k,
                     Bytes* sent = nullptr) {
        Bytes nonce;
        RpcMessage r = hello(c, host, &nonce);
        if (r.kind != Kind::Result) {
            return r;
        }
        EXPECT_EQ(nonce.size(), znhas::kProofNonceBytes);
        Bytes sig = sign(k, host, nonce);
        if (sent != nullptr) {
            *sent = sig;
        }
        return c.call(proto::kAuthProve, proto::encodeAuthProve(sig));
    }
};

TEST_F(ClientProofTest, AProvenHostActsAsRootOfThatHostUnderTheAccessList) {
    replaceAcl(shippedAcl() + "Test.Widget\n\troot@node1\t* rw\n");
    FakeManager manager(socketPath(), {kClass});
    auto c = tcp();
    RpcMessage r = prove(*c, "node1", nodeKey());
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result.value("identity", ""), "root@node1");
    r = c->call("session.start", Json{{"client", "test"}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result.value("identity", ""), "root@node1");
    r = c->call("rm.enumerateResources", Json{{"class", kClass}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["seen"]["identity"], "root@node1");
    // Authenticated: what needs it is open, and the large frames too.
    EXPECT_EQ(c->call("di.nodes").kind, Kind::Result);
}

TEST_F(ClientProofTest, EveryHelloNamesTheHostThisServiceGreetsOthersUnder) {
    auto plain = tcp();
    RpcMessage r = plain->call(proto::kAuthHello, Json::object());
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(proto::decodeAuthChallenge(r.result).host, "mgmt");
    auto claiming = tcp();
    Bytes nonce;
    r = hello(*claiming, "node1", &nonce);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(proto::decodeAuthChallenge(r.result).host, "mgmt");
    // A host not listed yet is refused, and may still greet plainly to learn it.
    auto unlisted = tcp();
    EXPECT_EQ(hello(*unlisted, "node9", &nonce).kind, Kind::Error);
    r = unlisted->call(proto::kAuthHello, Json::object());
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(proto::decodeAuthChallenge(r.result).host, "mgmt");
}

TEST_F(ClientProofTest, ProofsThatProveNothingAreRefused) {
    struct Case {
        const char* name;
        std::string host;
        std::string to;
        const KeyPair* key;
        bool atHello;      // refused at "auth.hello" (else at "auth.prove")
        const char* text;  // in the refusal
    };
    const Case cases[] = {
        {"wrong key", "node1", "127.0.0.1", &otherKey(), false, "no proof of host node1's key"},
        {"unlisted host", "node9", "127.0.0.1", nullptr, true, "not in the trusted host list"},
        // A 512-bit key cannot sign a proof: any signature is checked against it and fails.
        {"512-bit key", "weak1", "127.0.0.1", &nodeKey(), false, "8193"},
        {"this host's address", "127.0.0.1", "127.0.0.1", nullptr, true, "this host's names"},
        {"LOCALHOST", "LOCALHOST", "127.0.0.1", nullptr, true, "this host's names"},
        {"localhost", "localhost", "127.0.0.1", nullptr, true, "this host's names"},
        {"meant for another host", "node1", "127.0.0.5", nullptr, true, "not for this host"},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        auto c = tcp();
        Bytes nonce;
        RpcMessage r = hello(*c, k.host, &nonce, k.to);
        if (k.atHello) {
            ASSERT_EQ(r.kind, Kind::Error);
            EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
            EXPECT_NE(r.errorMessage.find(k.text), std::string::npos) << r.errorMessage;
            // Still open and still unauthenticated: a node not managed yet goes on.
            r = c->call("session.start", Json{{"client", "test"}});
            ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
            EXPECT_EQ(r.result.value("identity", ""), "UNAUTHENT");
            continue;
        }
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
        r = c->call(proto::kAuthProve, proto::encodeAuthProve(sign(*k.key, k.host, nonce)));
        ASSERT_EQ(r.kind, Kind::Error);
        EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
        EXPECT_NE(r.errorMessage.find(k.text), std::string::npos) << r.errorMessage;
        EXPECT_TRUE(c->closedWithin(2000));
    }
}

TEST_F(ClientProofTest, ASignatureProvesOnceForItsOwnChallengeOnly) {
    auto first = tcp();
    Bytes sig;
    RpcMessage r = prove(*first, "node1", nodeKey(), &sig);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    // Answered once: a second answer on the same connection has no challenge.
    r = first->call(proto::kAuthProve, proto::encodeAuthProve(sig));
    ASSERT_EQ(r.kind, Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    // Nor may a proven connection begin again, as a client or a peer.
    Bytes nonce;
    EXPECT_EQ(hello(*first, "node1", &nonce).errorCode, proto::kPermissionDenied);
    // Replayed on a new connection, against a new challenge: refused and closed.
    auto second = tcp();
    ASSERT_EQ(hello(*second, "node1", &nonce).kind, Kind::Result);
    r = second->call(proto::kAuthProve, proto::encodeAuthProve(sig));
    ASSERT_EQ(r.kind, Kind::Error);
    EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    EXPECT_NE(r.errorMessage.find("no proof of host node1's key"), std::string::npos);
    EXPECT_TRUE(second->closedWithin(2000));
    // A proof with no challenge asked for is refused without closing.
    auto third = tcp();
    r = third->call(proto::kAuthProve, proto::encodeAuthProve(sig));
    EXPECT_EQ(r.errorCode, proto::kPermissionDenied);
    EXPECT_EQ(third->call("session.start", Json::object()).kind, Kind::Result);
}

TEST_F(ClientProofTest, MalformedGreetingsAreRefusedAsSuch) {
    auto c = tcp();
    for (const Json& params :
         {Json{{"host", "node1"}}, Json{{"host", "no de"}, {"to", "127.0.0.1"}},
          Json{{"host", 7}, {"to", "127.0.0.1"}},
          Json{{"host", std::string(300, 'a')}, {"to", "x"}}}) {
        RpcMessage r = c->call(proto::kAuthHello, params);
        ASSERT_EQ(r.kind, Kind::Error) << params.dump();
        EXPECT_EQ(r.errorCode, proto::kInvalidParams) << params.dump();
    }
    Bytes nonce;
    ASSERT_EQ(hello(*c, "node1", &nonce).kind, Kind::Result);
    for (const Json& params : {Json::object(), Json{{"signature", "not base64!"}},
                               Json{{"signature", std::string(2000, 'A')}}}) {
        RpcMessage r = c->call(proto::kAuthProve, params);
        ASSERT_EQ(r.kind, Kind::Error) << params.dump();
        EXPECT_EQ(r.errorCode, proto::kInvalidParams) << params.dump();
    }
}

// The calling thread's last error as text.
std::string lastError() {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    std::string text = cu_error_text(e);
    cu_rel_error_1(e);
    return text;
}

class ClientLibraryProofTest : public ClientProofTest {
protected:
    px_session_t start() {
        std::string contact = "127.0.0.1:" + std::to_string(service_->tcpPort());
        px_contact_t c{contact.c_str()};
        px_session_t s = nullptr;
        EXPECT_EQ(px_start_session(&c, 1, PX_SCOPE_LOCAL, &s), PX_OK) << lastError();
        return s;
    }
    void TearDown() override { px_set_client_host(nullptr); }
};

TEST_F(ClientLibraryProofTest, AReadableHostKeyProvesTheNamedHost) {
    replaceAcl(shippedAcl() + "Test.Widget\n\troot@node1\t* rw\n");
    FakeManager manager(socketPath(), {kClass});
    ASSERT_EQ(px_set_client_host("node1"), PX_OK);

    // No key file here yet: the session stays unauthenticated, and a class
    // it may not see is a permission error, not an unknown class.
    px_session_t s = start();
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(px_session_identity(s), "UNAUTHENT");
    EXPECT_STREQ(px_session_service_host(s), "mgmt");
    px_enumerate_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_enumerate_select(s, kClass, nullptr, &rsp), PX_EACCESS);
    std::string text = lastError();
    EXPECT_NE(text.find("2660-001"), std::string::npos) << text;  // the service's refusal
    px_resources_rsp_t* actionRsp = nullptr;
    EXPECT_EQ(px_invoke_class_action(s, kClass, "Go", nullptr, &actionRsp), PX_EACCESS);
    text = lastError();  // refused before asking: the class list does not show it
    EXPECT_NE(text.find("2661-012"), std::string::npos) << text;
    EXPECT_NE(text.find("UNAUTHENT"), std::string::npos) << text;
    px_end_session(s);

    // This host's key (node1's) under the state root: the session proves it.
    ASSERT_EQ(sec__record_hostid_token(SEC_PRIVATE_KEYFILE, nodeKey().pvt), 0);
    ASSERT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, nodeKey().pub), 0);
    s = start();
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(px_session_identity(s), "root@node1");
    EXPECT_STREQ(px_session_service_host(s), "mgmt");
    ASSERT_EQ(px_enumerate_select(s, kClass, nullptr, &rsp), PX_OK);
    px_free_response(rsp);
    px_end_session(s);

    // Claiming a host the service does not list (a node not managed yet):
    // unauthenticated, and it still learns the service's name.
    ASSERT_EQ(px_set_client_host("node9"), PX_OK);
    s = start();
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(px_session_identity(s), "UNAUTHENT");
    EXPECT_STREQ(px_session_service_host(s), "mgmt");
    px_end_session(s);
    EXPECT_STREQ(px_session_service_host(nullptr), "");

    // Claiming a host whose key this is not: the service refuses the proof.
    ASSERT_EQ(px_set_client_host("weak1"), PX_OK);
    std::string contact = "127.0.0.1:" + std::to_string(service_->tcpPort());
    px_contact_t c{contact.c_str()};
    EXPECT_EQ(px_start_session(&c, 1, PX_SCOPE_LOCAL, &s), PX_EACCESS);
    EXPECT_EQ(px_set_client_host("not a name"), PX_EINVAL);
}

}  // namespace
}  // namespace znpextest
