// Test fixture for a management domain of three hosts on one machine: three
// znpexd children listening on 127.0.0.1, .2 and .3 on one common port, each
// under its own state root with its own node id, its own host key pair and a
// trusted host list holding the other two's public keys (hosts are named by
// their addresses). The test process can greet a host as any of them (it
// holds every key), or as a stranger with a key nobody trusts. Plus a
// scripted resource manager that records the notifications it gets and
// answers "rm.*" requests through a callback.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znhas/sec_buffer.h"

namespace peertest {

using znpex::proto::Json;
using znpex::proto::RpcMessage;

class ScriptedManager {
public:
    // Answers a request (method, params) with a result; null: never answers.
    using Answer = std::function<Json(const std::string& method, const Json& params)>;

    ScriptedManager(const std::string& socketPath, const std::string& rmName,
                    std::vector<std::string> classes, Answer answer = nullptr);
    ~ScriptedManager();
    bool registered() const { return registered_; }
    void notify(const std::string& method, const Json& params);
    // The params of every notification named `method` received so far.
    std::vector<Json> received(const std::string& method) const;
    size_t requests() const;

private:
    void serve();
    std::unique_ptr<znpextest::TestClient> client_;
    Answer answer_;
    bool registered_ = false;
    mutable std::mutex mu_;
    std::vector<RpcMessage> notes_;
    size_t requests_ = 0;
    std::mutex writeMu_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// A host key pair as the host-authentication library makes it.
struct KeyPair {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
};
// The keys of the three hosts (0..2) and of a stranger (3); made once per process.
const KeyPair& hostKey(size_t i);

struct Host {
    std::string name;  // its address, which is also its host name
    std::string root;
    uint64_t nodeId = 0;
    std::unique_ptr<testsupport::Subprocess> proc;
    std::string logPath;

    std::string socketPath() const;
    std::string log() const { return testsupport::readFile(logPath); }
    bool running() const { return proc != nullptr && proc->running(); }
    std::unique_ptr<znpextest::TestClient> root_client() const;
};

class PeerDomainTest : public ::testing::Test {
protected:
    PeerDomainTest();
    ~PeerDomainTest() override;

    // Starts the three services on one port; false (with a failure) when
    // they could not be started.
    bool startAll();
    // (Re)starts host `i` (0-based) on the domain's port; false when it did not listen.
    bool start(size_t i);
    // Writes host `i`'s access list: the shipped one plus `extra` lines in
    // its stanza (the service reads it at start).
    void writeAcl(size_t i, const std::string& extra);
    // Stops host `i` with SIGTERM.
    void stop(size_t i);
    // Refreshes the node table naming all three hosts on host `i`; returns
    // the "di.refresh" result's code (-1 when no result came).
    int refreshNodeTable(size_t i, const std::vector<std::string>& extraNames = {});
    // The node table of host `i` as "di.nodes" returns it (null on failure).
    Json nodes(size_t i);
    // The "service.status" result of host `i`.
    Json status(size_t i);
    // Greets host `to` over `c` as the host named `as`, proving with `key`:
    // "peer.hello" then "peer.prove". Returns the first refusal or the
    // proof's reply; `answerProved` says whether the answering host's own
    // proof checked out against hostKey(to).
    RpcMessage greet(znpextest::TestClient& c, const std::string& as, const KeyPair& key, size_t to,
                     bool* answerProved = nullptr);
    // A new TCP connection to host `to`, greeted as host `as` (0..2) with its own key.
    std::unique_ptr<znpextest::TestClient> peerOf(size_t to, size_t as);

    testsupport::TempDir dir_;
    std::vector<Host> hosts_;
    // More znpexd options for every host (set before startAll).
    std::vector<std::string> extraArgs_;
    uint16_t port_ = 0;
};

}  // namespace peertest
