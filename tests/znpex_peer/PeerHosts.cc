#include "tests/znpex_peer/PeerHosts.h"

#include <signal.h>
#include <stdlib.h>

#include <fstream>

#include "platform/paths.h"
#include "znhas/sec_keyfile.h"
#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/di/DiCodec.h"
#include "znpex/server/PeerMessages.h"

namespace peertest {

using testsupport::waitFor;
using znpextest::TestClient;

ScriptedManager::ScriptedManager(const std::string& socketPath, const std::string& rmName,
                                 std::vector<std::string> classes, Answer answer)
    : client_(TestClient::local(socketPath)), answer_(std::move(answer)) {
    Json defs = Json::array();
    for (const auto& c : classes) {
        defs.push_back(Json{{"class", c},
                            {"classPersistent", Json::array()},
                            {"classDynamic", Json::array()},
                            {"persistent", Json::array()},
                            {"dynamic", Json::array()},
                            {"classActions", Json::array()},
                            {"actions", Json::array()}});
    }
    RpcMessage r = client_->call("rm.register", Json{{"rm", rmName}, {"classes", defs}});
    registered_ = r.kind == RpcMessage::Kind::Result;
    thread_ = std::thread([this] { serve(); });
}

ScriptedManager::~ScriptedManager() {
    stop_ = true;
    thread_.join();
}

void ScriptedManager::serve() {
    while (!stop_) {
        RpcMessage m;
        if (!client_->next(&m, 50)) {
            continue;
        }
        if (m.kind == RpcMessage::Kind::Notification) {
            std::lock_guard<std::mutex> g(mu_);
            notes_.push_back(std::move(m));
            continue;
        }
        if (m.kind != RpcMessage::Kind::Request) {
            continue;
        }
        {
            std::lock_guard<std::mutex> g(mu_);
            ++requests_;
        }
        if (!answer_) {
            continue;
        }
        Json result = answer_(m.method, m.params);
        if (result.is_null()) {
            continue;
        }
        std::lock_guard<std::mutex> g(writeMu_);
        client_->send(Json{{"jsonrpc", "2.0"}, {"id", m.id}, {"result", std::move(result)}});
    }
}

void ScriptedManager::notify(const std::string& method, const Json& params) {
    std::lock_guard<std::mutex> g(writeMu_);
    client_->send(Json{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
}

std::vector<Json> ScriptedManager::received(const std::string& method) const {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<Json> out;
    for (const RpcMessage& m : notes_) {
        if (m.method == method) {
            out.push_back(m.params);
        }
    }
    return out;
}

size_t ScriptedManager::requests() const {
    std::lock_guard<std::mutex> g(mu_);
    return requests_;
}

std::string Host::socketPath() const {
    return root + zn::paths::kPexSocket;
}

std::unique_ptr<TestClient> Host::root_client() const {
    return TestClient::local(socketPath());
}

const KeyPair& hostKey(size_t i) {
    // Kept for the whole process and never destroyed, so that the key
    // buffers stay reachable to the leak checker at exit.
    static const std::vector<KeyPair>* keys = new std::vector<KeyPair>([] {
        std::vector<KeyPair> k(4);
        for (KeyPair& p : k) {
            if (sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &p.pvt, &p.pub) != 0) {
                ADD_FAILURE() << "no host key could be made";
            }
        }
        return k;
    }());
    return keys->at(i);
}

namespace {

// Records a host's key files under its state root.
void writeHostKeys(const std::string& root, const KeyPair& key) {
    std::string pvt = root + zn::paths::kPrivateKeyFile;
    std::string pub = root + zn::paths::kPublicKeyFile;
    ::setenv("ZNSEC_TESTING_PVTK_FILE", pvt.c_str(), 1);
    ::setenv("ZNSEC_TESTING_PUBK_FILE", pub.c_str(), 1);
    EXPECT_EQ(sec__record_hostid_token(SEC_PRIVATE_KEYFILE, key.pvt), 0);
    EXPECT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, key.pub), 0);
    ::unsetenv("ZNSEC_TESTING_PVTK_FILE");
    ::unsetenv("ZNSEC_TESTING_PUBK_FILE");
}

// Writes the public key of each named host into the trusted host list at `path`.
void trustHosts(const std::string& path,
                const std::vector<std::pair<std::string, const KeyPair*>>& hosts) {
    znpextest::writeText(path, "");
    ::setenv("ZNSEC_TESTING_THL_FILE", path.c_str(), 1);
    for (const auto& [name, key] : hosts) {
        EXPECT_EQ(sec_store_host_token(name.c_str(), key->pub), 0) << name;
    }
    ::unsetenv("ZNSEC_TESTING_THL_FILE");  // the children find their own lists
}

}  // namespace

PeerDomainTest::PeerDomainTest() {
    for (int i = 1; i <= 3; ++i) {
        Host h;
        h.name = "127.0.0." + std::to_string(i);
        h.root = dir_ / ("host" + std::to_string(i));
        h.logPath = dir_ / ("host" + std::to_string(i) + ".stderr");
        znpextest::writeText(h.root + zn::paths::kAclDefaultFile, znpextest::shippedAcl());
        hosts_.push_back(std::move(h));
    }
    for (size_t i = 0; i < hosts_.size(); ++i) {
        writeHostKeys(hosts_[i].root, hostKey(i));
        std::vector<std::pair<std::string, const KeyPair*>> others;
        for (size_t j = 0; j < hosts_.size(); ++j) {
            if (j != i) {
                others.emplace_back(hosts_[j].name, &hostKey(j));
            }
        }
        trustHosts(hosts_[i].root + zn::paths::kThlFile, others);
    }
}

RpcMessage PeerDomainTest::greet(TestClient& c, const std::string& as, const KeyPair& key,
                                 size_t to, bool* answerProved) {
    namespace srv = znpex::server;
    if (answerProved != nullptr) {
        *answerProved = false;
    }
    srv::PeerHello hello;
    hello.host = as;
    hello.nodeId = 99;
    hello.to = hosts_[to].name;
    hello.nonce = znhas::newProofNonce();
    RpcMessage r = c.call(srv::kPeerHello, srv::encodePeerHello(hello));
    if (r.kind != RpcMessage::Kind::Result) {
        return r;
    }
    srv::PeerChallenge challenge = srv::decodePeerChallenge(r.result);
    srv::PeerProve prove;
    std::string why;
    EXPECT_TRUE(znhas::signWithKeyToken(
        key.pvt,
        znhas::proofMessage({srv::kProofOfCaller, as, hosts_[to].name, challenge.challenge}),
        &prove.signature, &why))
        << why;
    r = c.call(srv::kPeerProve, srv::encodePeerProve(prove));
    if (r.kind == RpcMessage::Kind::Result && answerProved != nullptr) {
        srv::PeerHelloResult result = srv::decodePeerHelloResult(r.result);
        *answerProved = znhas::verifyWithKeyToken(
            hostKey(to).pub,
            znhas::proofMessage({srv::kProofOfAnswerer, hosts_[to].name, as, hello.nonce}),
            result.signature, &why);
    }
    return r;
}

std::unique_ptr<TestClient> PeerDomainTest::peerOf(size_t to, size_t as) {
    auto c = std::make_unique<TestClient>(znpextest::connectTcp(port_, hosts_[to].name.c_str()));
    bool proved = false;
    RpcMessage r = greet(*c, hosts_[as].name, hostKey(as), to, &proved);
    EXPECT_EQ(r.kind, RpcMessage::Kind::Result) << r.errorMessage;
    EXPECT_TRUE(proved);
    return c;
}

PeerDomainTest::~PeerDomainTest() {
    for (size_t i = 0; i < hosts_.size(); ++i) {
        stop(i);
    }
}

bool PeerDomainTest::start(size_t i) {
    Host& h = hosts_[i];
    std::vector<std::string> args{"--state-root",
                                  h.root,
                                  "--address",
                                  h.name,
                                  "--port",
                                  std::to_string(port_),
                                  "--host-name",
                                  h.name,
                                  "--request-timeout-ms",
                                  "8000",
                                  "--peer-timeout-ms",
                                  "2000",
                                  "--peer-backoff-max-ms",
                                  "500",
                                  "--threads",
                                  "2"};
    args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
    h.proc = std::make_unique<testsupport::Subprocess>(testsupport::binPath("znpex/server/znpexd"),
                                                       std::move(args), std::vector<std::string>{},
                                                       h.logPath);
    const std::string marker = "listening on tcp " + h.name + " port ";
    std::string text;
    waitFor([&] {
        text = h.log();
        return text.find(marker) != std::string::npos || !h.proc->running();
    });
    size_t at = text.find(marker);
    if (at == std::string::npos) {
        return false;
    }
    uint16_t port = static_cast<uint16_t>(std::atoi(text.c_str() + at + marker.size()));
    if (port_ == 0) {
        port_ = port;
    }
    Json s = status(i);
    if (!s.is_object() || !s.contains("peers") || !s["peers"].contains("nodeId")) {
        return false;
    }
    h.nodeId = std::stoull(s["peers"]["nodeId"].get<std::string>());
    return port == port_;
}

void PeerDomainTest::writeAcl(size_t i, const std::string& extra) {
    std::string acl = znpextest::shippedAcl();
    size_t at = acl.find("OTHER\n");
    ASSERT_NE(at, std::string::npos) << "the shipped list has an OTHER stanza";
    acl.insert(at + 6, extra);
    znpextest::writeText(hosts_[i].root + zn::paths::kAclFile, acl);
}

void PeerDomainTest::stop(size_t i) {
    Host& h = hosts_[i];
    if (h.proc != nullptr && h.proc->running()) {
        h.proc->signal(SIGTERM);
        if (h.proc->wait() == -1) {
            h.proc->signal(SIGKILL);
            h.proc->wait();
        }
    }
    h.proc.reset();
}

bool PeerDomainTest::startAll() {
    // The port is the kernel's pick on 127.0.0.1; another program may hold
    // it on the other addresses, so a few rounds may be needed.
    for (int round = 0; round < 5; ++round) {
        port_ = 0;
        bool ok = true;
        for (size_t i = 0; i < hosts_.size() && ok; ++i) {
            ok = start(i);
        }
        if (ok) {
            return true;
        }
        for (size_t i = 0; i < hosts_.size(); ++i) {
            stop(i);
        }
    }
    ADD_FAILURE() << "the services did not start; host 1 said:\n" << hosts_[0].log();
    return false;
}

int PeerDomainTest::refreshNodeTable(size_t i, const std::vector<std::string>& extraNames) {
    znpex::di::Transaction t;
    t.op = DI_TABLE_ADD;
    t.clearNodes = true;
    for (const Host& h : hosts_) {
        znpex::di::NodeEntry n;
        n.nodeId = h.nodeId;
        n.hostname = h.name;
        n.names = {h.name};
        n.names.insert(n.names.end(), extraNames.begin(), extraNames.end());
        n.addresses = {h.name};
        t.nodes.push_back(std::move(n));
    }
    auto c = hosts_[i].root_client();
    RpcMessage r = c->call(znpex::di::kDiRefresh, znpex::di::encodeTransaction(t), 15000);
    if (r.kind != RpcMessage::Kind::Result || !r.result.contains("code")) {
        return -1;
    }
    return r.result["code"].get<int>();
}

Json PeerDomainTest::nodes(size_t i) {
    auto c = hosts_[i].root_client();
    RpcMessage r = c->call(znpex::di::kDiNodes);
    return r.kind == RpcMessage::Kind::Result ? r.result : Json(nullptr);
}

Json PeerDomainTest::status(size_t i) {
    auto c = hosts_[i].root_client();
    RpcMessage r = c->call("service.status");
    return r.kind == RpcMessage::Kind::Result ? r.result : Json(nullptr);
}

}  // namespace peertest
