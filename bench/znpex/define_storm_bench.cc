// A define storm: 10,000 nodes named by loopback addresses enter the node
// table one change at a time, as the node class publishes each define.
// With publication on, two in-process services on 127.0.0.1 and .2 (one
// state root, one key pair) run and every other node has no service (a
// powered-off host: its link is refused and backs off); each change is
// acknowledged before the next. With publication off, one service alone
// applies the same changes. Prints nodes/s, bytes replicated, the process's
// CPU time and resident memory for each. Usage: [nodes] (default 10000).
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include "bench/znpex/SharedHostKey.h"
#include "platform/paths.h"
#include "znpex/server/Service.h"

namespace {

namespace srv = znpex::server;
namespace di = znpex::di;

srv::ServiceOptions optionsFor(const std::string& root, int n, uint16_t port, bool peers) {
    srv::ServiceOptions o;
    o.socketPath = root + "/s" + std::to_string(n) + ".sock";
    o.diPath = root + "/tables" + std::to_string(n) + ".db";
    o.tcpAddress = "127.0.0." + std::to_string(n);
    o.tcpPort = port;
    o.peers = peers;
    o.router.hostName = o.tcpAddress;
    o.router.nodeId = static_cast<uint64_t>(n);
    // A host that never answers is not tried more than twice a minute.
    o.router.peerBackoffMax = std::chrono::seconds(30);
    return o;
}

double cpuSeconds() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

long rssKb() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

// Node i's address: 127.1.0.0 upwards (never .0.0.1 or .0.0.2).
std::string address(int i) {
    return "127." + std::to_string(1 + i / 65536) + "." + std::to_string(i / 256 % 256) + "." +
           std::to_string(i % 256);
}

di::NodeEntry entry(const std::string& addr, uint64_t id) {
    return di::NodeEntry{id, addr, {addr}, {addr}};
}

// Defines `nodes` nodes on `a`, one change each, waiting for each answer.
void storm(srv::Service& a, int nodes, const char* what) {
    double cpu0 = cpuSeconds();
    long rss0 = rssKb();
    auto begin = std::chrono::steady_clock::now();
    int partial = 0;
    for (int i = 0; i < nodes; ++i) {
        di::Transaction t;
        t.nodes.push_back(entry(address(i), 1000 + static_cast<uint64_t>(i)));
        std::promise<int> done;
        a.router().replicateChange(t, [&](int code, const std::string&) { done.set_value(code); });
        partial += done.get_future().get() != 0 ? 1 : 0;
    }
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    znpex::proto::Json s = a.router().status();
    unsigned long long bytes = s["peers"].value("bytesReplicated", 0ull);
    std::printf(
        "%s: %d nodes in %.2f s = %.0f nodes/s; %llu bytes replicated (%.0f per node); "
        "%d answered partial; CPU %.2f s; RSS %ld -> %ld KiB\n",
        what, nodes, took, nodes / took, bytes, static_cast<double>(bytes) / nodes, partial,
        cpuSeconds() - cpu0, rss0, rssKb());
}

}  // namespace

int main(int argc, char** argv) {
    int nodes = argc > 1 ? std::atoi(argv[1]) : 10000;
    char tmpl[] = "/tmp/znpex-storm-bench-XXXXXX";
    std::string root = ::mkdtemp(tmpl);
    ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
    if (!benchsupport::shareOneHostKey({"127.0.0.1", "127.0.0.2"})) {
        return 1;
    }
    {
        srv::Service alone(optionsFor(root, 3, 0, false));
        alone.start();
        storm(alone, nodes, "publication off (one service)");
        alone.stop();
    }
    {
        srv::Service a(optionsFor(root, 1, 0, true));
        a.start();
        srv::Service b(optionsFor(root, 2, a.tcpPort(), true));
        b.start();
        di::Transaction t;
        t.clearNodes = true;
        t.nodes = {entry("127.0.0.1", 1), entry("127.0.0.2", 2)};
        std::promise<int> done;
        a.router().replicateChange(t, [&](int code, const std::string&) { done.set_value(code); });
        done.get_future().get();
        storm(a, nodes, "publication on (two services, the rest powered off)");
        size_t onB = b.router().diStore().nodes().size();
        std::printf("the second service holds %zu nodes (want %d)\n", onB, nodes + 2);
        a.stop();
        b.stop();
    }
    std::filesystem::remove_all(root);
    return 0;
}
