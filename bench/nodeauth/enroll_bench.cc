// Node enrollment through the running daemons (znpexd and orvrmd as children
// under a fresh state root, a frame key provisioned, this host's key file in
// place):
//  1. rate: signed requests to be managed, one after the other on one
//     session of the client library, then from several sessions at once;
//     enrollments per second (target: at least 500/s);
//  2. storm: N simulated nodes (default 10,000) enroll at once: every
//     request sent straight to the action on a few connections, each with
//     many requests in flight (pipelined, Connection::callMany); the time to
//     the last reply (target: under 60 s), then the check that every node
//     was answered once, is defined once and is "Managed".
// Usage: nodeauth_enroll_bench [storm nodes] [connections] [in flight per connection]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/orvrm/BenchDaemons.h"
#include "bench/znpex/SpawnService.h"
#include "common/FrameKeyStore.h"
#include "common/NodeRequest.h"
#include "platform/paths.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"
#include "znpex/client/Connection.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/RequestCodec.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr char kMtms[] = "8233-E8B*1000ABC";
constexpr int kRequestNodeManagement = 2;

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::vector<uint8_t> tokenFor(int i) {
    std::vector<uint8_t> key(64, static_cast<uint8_t>(i));
    std::memcpy(key.data(), &i, sizeof i);
    sec_buffer_t t = nullptr;
    sec_create_host_token("node", static_cast<int>(key.size()), key.data(), SEC_KEYTYPE_RSA1024,
                          &t);
    std::vector<uint8_t> out(static_cast<uint8_t*>(t->value),
                             static_cast<uint8_t*>(t->value) + t->length);
    sec_release_host_token(&t);
    return out;
}

// Nodes are named by loopback addresses (127.x.y.z, x from the plane), so
// that every name resolves without a name server when the node is published.
std::string address(int plane, int i) {
    int z = i % 254 + 1;
    int y = (i / 254) % 256;
    int x = i / (254 * 256) + 1 + plane;
    return "127." + std::to_string(x) + "." + std::to_string(y) + "." + std::to_string(z);
}

constexpr int kSeqPlane = 0;
constexpr int kParPlane = 16;
constexpr int kStormPlane = 32;

WEX_COMMON::NodeRequestSpec nodeSpec(int plane, int i, const std::vector<uint8_t>& key) {
    WEX_COMMON::NodeRequestSpec s;
    s.protocol = 512;
    s.hostname = address(plane, i);
    s.universalId = (static_cast<uint64_t>(plane + 1) << 32) + static_cast<uint64_t>(i);
    s.mtms = kMtms;
    s.token = tokenFor(i);
    s.frameKey = key;
    return s;
}

// One enrollment through the client library: true when answered without error.
bool enrollOne(px_session_t s, const WEX_COMMON::NodeRequestSpec& spec) {
    zn::SdPtr rq = WEX_COMMON::makeNodeRequest(spec);
    px_resources_rsp_t* rsp = nullptr;
    bool ok = px_invoke_class_action(s, "Kor.NodeAuthenticate", "RequestNodeManagement", rq.get(),
                                     &rsp) == PX_OK &&
              rsp != nullptr && rsp->hdr.pr_error == nullptr && rsp->resource_count == 1 &&
              rsp->resources[0].error == nullptr && rsp->resources[0].data_count == 1;
    px_free_response(rsp);
    return ok;
}

// Nodes whose host name starts with `prefix`, and how many of them are "Managed".
void countNodes(const std::string& prefix, size_t* defined, size_t* managed) {
    px_session_t s = nullptr;
    px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &s);
    px_set_timeouts(s, 600000);
    const char* names[] = {"Hostname", "Mode"};
    px_resources_rsp_t* rsp = nullptr;
    *defined = 0;
    *managed = 0;
    if (px_query_persistent_attrs_select(s, "Kor.ManagedNode", nullptr, names, 2, &rsp) == PX_OK &&
        rsp != nullptr) {
        for (uint32_t i = 0; i < rsp->resource_count; ++i) {
            const px_resource_rsp_t& r = rsp->resources[i];
            std::string host, mode;
            for (uint32_t a = 0; a < r.attr_count; ++a) {
                if (r.attrs[a].pv_value.ptr_char == nullptr)
                    continue;
                if (std::strcmp(r.attrs[a].pv_name, "Hostname") == 0)
                    host = r.attrs[a].pv_value.ptr_char;
                if (std::strcmp(r.attrs[a].pv_name, "Mode") == 0)
                    mode = r.attrs[a].pv_value.ptr_char;
            }
            if (host.rfind(prefix, 0) == 0) {
                ++*defined;
                *managed += mode == "Managed" ? 1 : 0;
            }
        }
    }
    px_free_response(rsp);
    px_end_session(s);
}

}  // namespace

int main(int argc, char** argv) {
    int stormNodes = argc > 1 ? std::atoi(argv[1]) : 10000;
    int connections = argc > 2 ? std::atoi(argv[2]) : 4;
    int window = argc > 3 ? std::atoi(argv[3]) : 64;
    char tmpl[] = "/tmp/orvrm-enroll-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string root = tmpl;
    setenv("ZN_ROOT", root.c_str(), 1);
    unsigned char hostKey[128];
    std::memset(hostKey, 'H', sizeof hostKey);
    sec_buffer_t local = nullptr;
    sec_create_host_token("mgmt", sizeof hostKey, hostKey, SEC_KEYTYPE_RSA1024, &local);
    zn::paths::ensureParentDir(zn::paths::resolve(zn::paths::kPublicKeyFile));
    sec__record_hostid_token(SEC_PUBLIC_KEYFILE, local);
    sec_release_host_token(&local);
    std::string secret, why;
    if (WEX_COMMON::FrameKeyStore().add(kMtms, &secret, &why) != 0) {
        std::fprintf(stderr, "key store: %s\n", why.c_str());
        return 1;
    }
    std::vector<uint8_t> key = fromHex(secret);
    benchsupport::BenchDaemons d(root, "Kor.NodeAuthenticate");
    if (!d.connected()) {
        std::fprintf(stderr, "the daemons did not come up (logs under %s)\n", root.c_str());
        return 1;
    }
    px_set_default_timeouts(5000, 600000);

    // 1. Rate: one session, one request at a time; then four sessions. The
    // round trip of an action that does nothing is the floor.
    const int sequential = 1000;
    px_session_t s = nullptr;
    px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &s);
    auto t = Clock::now();
    for (int i = 0; i < sequential; ++i) {
        px_resources_rsp_t* rsp = nullptr;
        px_invoke_class_action(s, "Kor.NodeAuthenticate", "SupportedProtocols", nullptr, &rsp);
        px_free_response(rsp);
    }
    double floorS = secondsSince(t);
    std::printf("round trip of an empty action: %.0f/s\n", sequential / floorS);
    int failures = 0;
    t = Clock::now();
    for (int i = 0; i < sequential; ++i) {
        failures += enrollOne(s, nodeSpec(kSeqPlane, i, key)) ? 0 : 1;
    }
    double seqS = secondsSince(t);
    px_end_session(s);
    std::printf("sequential: %d signed enrollments in %.2f s: %.0f/s (%d failed)\n", sequential,
                seqS, sequential / seqS, failures);

    const int parallelSessions = 4;
    const int perSession = 500;
    std::atomic<int> parFailures{0};
    t = Clock::now();
    std::vector<std::thread> threads;
    for (int k = 0; k < parallelSessions; ++k) {
        threads.emplace_back([&, k] {
            px_session_t ps = nullptr;
            px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &ps);
            for (int i = 0; i < perSession; ++i) {
                if (!enrollOne(ps, nodeSpec(kParPlane, k * perSession + i, key)))
                    ++parFailures;
            }
            px_end_session(ps);
        });
    }
    for (auto& th : threads)
        th.join();
    double parS = secondsSince(t);
    int parallelTotal = parallelSessions * perSession;
    std::printf("%d sessions: %d signed enrollments in %.2f s: %.0f/s (%d failed)\n",
                parallelSessions, parallelTotal, parS, parallelTotal / parS, parFailures.load());

    // 2. Storm: every request built first, then all sent at once.
    std::vector<std::vector<znpex::client::Connection::Request>> batches(connections);
    for (int i = 0; i < stormNodes; ++i) {
        zn::SdPtr rq = WEX_COMMON::makeNodeRequest(nodeSpec(kStormPlane, i, key));
        tarn_rmf2v::RMRequest r;
        r.op = tarn_rmf2v::RMRequestOp::InvokeClassAction;
        r.className = "Kor.NodeAuthenticate";
        r.actionId = kRequestNodeManagement;
        r.input = std::move(rq);
        batches[i % connections].push_back(
            {znpex::proto::rmMethod(r.op), znpex::proto::encodeRequestParams(r)});
    }
    std::atomic<int> answered{0}, refused{0}, lost{0};
    t = Clock::now();
    threads.clear();
    for (int c = 0; c < connections; ++c) {
        threads.emplace_back([&, c] {
            znpex::client::Contact contact;
            std::string w;
            auto conn = znpex::client::Connection::open(contact, 5000, &w);
            if (!conn) {
                lost += static_cast<int>(batches[c].size());
                return;
            }
            size_t n = batches[c].size();
            std::vector<znpex::proto::RpcMessage> replies;
            auto st = conn->callMany(std::move(batches[c]), static_cast<size_t>(window), 600000,
                                     replies, &w);
            if (st != znpex::client::Connection::Status::Ok) {
                std::fprintf(stderr, "connection %d: %s\n", c, w.c_str());
            }
            for (size_t i = 0; i < n; ++i) {
                if (i >= replies.size() ||
                    replies[i].kind != znpex::proto::RpcMessage::Kind::Result) {
                    ++lost;
                } else if (replies[i].result.is_object() && replies[i].result.contains("error")) {
                    ++refused;
                } else {
                    ++answered;
                }
            }
        });
    }
    for (auto& th : threads)
        th.join();
    double stormS = secondsSince(t);
    size_t defined = 0, managed = 0;
    countNodes("127." + std::to_string(kStormPlane + 1) + ".", &defined, &managed);
    std::printf(
        "storm: %d nodes on %d connections, %d in flight each: %.2f s (%.0f/s); answered %d, "
        "refused %d, lost %d; defined %zu, managed %zu\n",
        stormNodes, connections, window, stormS, stormNodes / stormS, answered.load(),
        refused.load(), lost.load(), defined, managed);
    bool ok = failures == 0 && parFailures == 0 && answered == stormNodes &&
              defined == static_cast<size_t>(stormNodes) &&
              managed == static_cast<size_t>(stormNodes) && stormS < 60.0 &&
              sequential / seqS >= 500.0;
    std::printf("%s\n", ok ? "targets met" : "targets NOT met");
    return ok ? 0 : 1;
}
