// znpexd: the monitoring service daemon. Listens on the local socket and on
// TCP, routes clients' requests to the resource managers registered with it,
// and enforces the access control list. SIGHUP re-reads the list;
// SIGTERM/SIGINT stop it.
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "platform/paths.h"
#include "znpex/server/Service.h"
#include "znpex/server/ServiceLog.h"
#include "znpex/server/ServiceMetrics.h"

namespace {

// Idle connections cost one descriptor each: take what the hard limit allows.
void raiseDescriptorLimit() {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        znpex::server::serviceLog("descriptor limit %llu",
                                  static_cast<unsigned long long>(rl.rlim_cur));
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"znpexd: the monitoring service daemon"};
    znpex::server::ServiceOptions opts;
    std::string stateRoot;
    unsigned timeoutMs = 60000;
    bool noTcp = false;
    app.add_option("--port", opts.tcpPort, "TCP port (0: any free port)")->capture_default_str();
    app.add_option("--address", opts.tcpAddress, "TCP address to listen on")->capture_default_str();
    app.add_flag("--no-tcp", noTcp, "Listen on the local socket only");
    bool noPeers = false;
    app.add_flag("--no-peers", noPeers,
                 "Act alone: no links to the other hosts of the node table, no replication");
    app.add_option("--state-root", stateRoot,
                   "Folder under which every system path lives (default: $ZN_ROOT, or /)");
    app.add_option("--threads", opts.threads, "I/O threads")->capture_default_str();
    app.add_option("--request-timeout-ms", timeoutMs,
                   "How long a resource manager may take to answer")
        ->capture_default_str();
    app.add_option("--max-connections", opts.router.maxConnections, "Open connections at most")
        ->capture_default_str();
    app.add_option("--max-pending-per-address", opts.router.maxPendingPerAddress,
                   "TCP connections from one address that have not authenticated yet, at most "
                   "(0: no limit)")
        ->capture_default_str();
    unsigned peerTimeoutMs = 3000;
    unsigned peerBackoffMaxMs = 30000;
    app.add_option("--host-name", opts.router.hostName,
                   "This host's name as the other hosts' services know it (default: the "
                   "system's host name)");
    app.add_option("--peer-port", opts.router.peerPort,
                   "TCP port of the other hosts' services (0: the port this one listens on)")
        ->capture_default_str();
    app.add_option("--peer-timeout-ms", peerTimeoutMs,
                   "How long another host's service may take to answer one request")
        ->capture_default_str();
    app.add_option("--peer-backoff-max-ms", peerBackoffMaxMs,
                   "Longest pause between attempts to reach a host that is down "
                   "(ten times this for a host that never answered)")
        ->capture_default_str();
    unsigned budgetMb = static_cast<unsigned>(opts.router.bufferBudget >> 20);
    unsigned readTimeoutMs = static_cast<unsigned>(opts.router.readTimeout.count());
    unsigned idleTimeoutMs = static_cast<unsigned>(opts.router.unauthenticatedIdle.count());
    unsigned writeTimeoutMs = static_cast<unsigned>(opts.router.writeTimeout.count());
    unsigned skewMs = static_cast<unsigned>(opts.router.maxStampSkew.count());
    app.add_option("--buffer-budget-mb", budgetMb,
                   "What all connections together may hold in their buffers, in MiB")
        ->capture_default_str()
        ->check(CLI::Range(1u, 1u << 20));
    app.add_option("--read-timeout-ms", readTimeoutMs,
                   "How long an unauthenticated caller's frame may take to arrive whole "
                   "(authenticated callers: four times as long)")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600000u));
    app.add_option("--idle-timeout-ms", idleTimeoutMs,
                   "How long an unauthenticated caller may send nothing")
        ->capture_default_str()
        ->check(CLI::Range(1u, 86400000u));
    app.add_option("--write-timeout-ms", writeTimeoutMs,
                   "How long output to an unauthenticated caller may make no progress")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600000u));
    app.add_option("--max-stamp-skew-ms", skewMs,
                   "How far ahead of this host's clock another host's table stamp may be")
        ->capture_default_str()
        ->check(CLI::Range(0u, 86400000u));
    const char* metricsEnv = std::getenv(znpex::server::kMetricsAddressEnv);
    opts.metricsAddress = metricsEnv != nullptr ? metricsEnv : "";
    app.add_option("--metrics-address", opts.metricsAddress,
                   std::string("Serve Prometheus metrics on host:port (default: $") +
                       znpex::server::kMetricsAddressEnv + "; unset: not served)");
    size_t chunkBytes = opts.router.replicationChunk;
    app.add_option("--replication-chunk-bytes", chunkBytes,
                   "The largest table replication message: larger changes go as whole "
                   "copies, larger copies in parts")
        ->capture_default_str()
        ->check(CLI::Range(size_t{1024}, size_t{8} << 20));
    CLI11_PARSE(app, argc, argv);
    opts.router.replicationChunk = chunkBytes;
    opts.router.bufferBudget = static_cast<size_t>(budgetMb) << 20;
    opts.router.readTimeout = std::chrono::milliseconds(readTimeoutMs);
    opts.router.unauthenticatedIdle = std::chrono::milliseconds(idleTimeoutMs);
    opts.router.writeTimeout = std::chrono::milliseconds(writeTimeoutMs);
    opts.router.maxStampSkew = std::chrono::milliseconds(skewMs);
    opts.router.peerTimeout = std::chrono::milliseconds(peerTimeoutMs);
    opts.router.peerBackoffMax = std::chrono::milliseconds(std::max(peerBackoffMaxMs, 1u));
    opts.tcp = !noTcp;
    opts.peers = !noPeers;
    opts.router.requestTimeout = std::chrono::milliseconds(timeoutMs);
    if (!stateRoot.empty()) {
        setenv(zn::paths::kRootEnv, stateRoot.c_str(), 1);
    }

    // Block the control signals before any thread starts, so only the
    // sigwait below sees them.
    sigset_t control;
    sigemptyset(&control);
    sigaddset(&control, SIGTERM);
    sigaddset(&control, SIGINT);
    sigaddset(&control, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &control, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    // Large buffers (frames, queued output) get pages of their own, so the
    // memory of a caller that goes is handed back rather than kept in the
    // heap; the allocator would otherwise raise this threshold as it goes.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);

    znpex::server::Service service(opts);
    try {
        service.start();
    } catch (const std::exception& e) {
        znpex::server::serviceLog("cannot start: %s", e.what());
        return 1;
    }
    for (;;) {
        int sig = 0;
        if (sigwait(&control, &sig) != 0) {
            continue;
        }
        if (sig == SIGHUP) {
            service.reloadAcl(nullptr);
            continue;
        }
        znpex::server::serviceLog("stopping on signal %d", sig);
        break;
    }
    service.stop();
    return 0;
}
