// Managed nodes through the running daemons: znpexd and orvrmd run as
// children under a fresh state root for each size. Nodes are named by
// loopback addresses (127.x.y.z, so every name resolves without a name
// server) and have two addresses each, hence two interfaces.
//
// Per size (default 10,000 and 100,000): define every node with the bulk
// import (`znpex define --file`, JSON lines) keeping several requests in
// flight; orvrmd's resident memory per node with its interfaces; a list
// with a selection; one attribute changed on every node; undefine all; then
// the same define one request at a time. Prints nodes per second, the
// 100k/10k time ratios (linear: at most 12) and the memory per node.
// Targets: at least 2,000 nodes/s defined, at most 4 KiB per node.
// Usage: managednode_node_bench [sizes, comma-separated] [jobs]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/orvrm/BenchDaemons.h"
#include "bench/znpex/SpawnService.h"
#include "platform/paths.h"
#include "znpex/client/px_client.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// Resident memory of a process in KiB (0 when it cannot be read).
long rssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

// Node i's name and its second address: 127.x.y.z with z in 1..254.
std::string address(int i, int plane) {
    int z = i % 254 + 1;
    int y = (i / 254) % 256;
    int x = i / (254 * 256) + 1 + plane;
    return "127." + std::to_string(x) + "." + std::to_string(y) + "." + std::to_string(z);
}

void writeNodes(const std::string& path, int count) {
    std::ofstream out(path);
    for (int i = 0; i < count; ++i) {
        out << "{\"Hostname\":\"" << address(i, 0) << "\",\"UniversalId\":" << i + 1
            << ",\"ConnectivityIPAddrs\":[\"" << address(i, 0) << "\",\"" << address(i, 64)
            << "\"]}\n";
    }
}

// Runs a program to its end; returns its exit status (-1 when it could not run).
int runQuietly(const std::vector<std::string>& args, const std::string& log) {
    pid_t pid = benchsupport::spawnService(
        args[0].c_str(), std::vector<std::string>(args.begin() + 1, args.end()), log);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Seconds of a bulk define, or -1 when the import did not define every node.
double importNodes(const std::string& root, const std::string& file, int jobs) {
    auto t = Clock::now();
    int rc = runQuietly({ZNPEX_PATH, "--timeout", "600000", "define", "Kor.ManagedNode", "--file",
                         file, "--jobs", std::to_string(jobs)},
                        root + "/import.log");
    double s = secondsSince(t);
    if (rc != 0) {
        std::fprintf(stderr, "import failed (status %d), see %s/import.log\n", rc, root.c_str());
        return -1;
    }
    return s;
}

struct Figures {
    double defineInFlight = -1, defineSerial = -1, list = -1, setAll = -1, undefineAll = -1;
    long bytesPerNode = 0;
    size_t listed = 0;
};

Figures runSize(int count, int jobs) {
    Figures f;
    char tmpl[] = "/tmp/orvrm-node-bench-XXXXXX";
    std::string root = mkdtemp(tmpl);
    benchsupport::BenchDaemons d(root, "Kor.ManagedNode");
    if (!d.connected()) {
        std::fprintf(stderr, "the daemons did not come up; see %s\n", root.c_str());
        return f;
    }
    std::string file = root + "/nodes.jsonl";
    writeNodes(file, count);
    long before = rssKiB(d.daemon());
    f.defineInFlight = importNodes(root, file, jobs);
    f.bytesPerNode = (rssKiB(d.daemon()) - before) * 1024 / count;

    px_session_t s = nullptr;
    px_start_session(nullptr, 0, 1, &s);
    px_set_timeouts(s, 600000);
    const char* names[] = {"Hostname", "Mode"};
    px_resources_rsp_t* rsp = nullptr;
    auto t = Clock::now();
    if (px_query_persistent_attrs_select(s, "Kor.ManagedNode", "UniversalId <= 1000", names, 2,
                                         &rsp) == PX_OK) {
        f.list = secondsSince(t);
        f.listed = rsp->resource_count;
    }
    px_free_response(rsp);

    px_attr_t comment{"UserComment", ZN_CHAR_PTR, {}};
    comment.pa_value.ptr_char = const_cast<char*>("benchmark");
    rsp = nullptr;
    t = Clock::now();
    if (px_set_attrs_select(s, "Kor.ManagedNode", "", &comment, 1, &rsp) == PX_OK &&
        rsp->hdr.pr_error == nullptr) {
        f.setAll = secondsSince(t);
    }
    px_free_response(rsp);

    rsp = nullptr;
    t = Clock::now();
    if (px_undefine_select(s, "Kor.ManagedNode", "", nullptr, &rsp) == PX_OK &&
        rsp->hdr.pr_error == nullptr) {
        f.undefineAll = secondsSince(t);
    }
    px_free_response(rsp);
    px_end_session(s);

    f.defineSerial = importNodes(root, file, 1);
    return f;
}

double rate(int count, double seconds) {
    return seconds > 0 ? count / seconds : 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> sizes;
    std::stringstream list(argc > 1 ? argv[1] : "10000,100000");
    for (std::string item; std::getline(list, item, ',');) {
        sizes.push_back(std::atoi(item.c_str()));
    }
    int jobs = argc > 2 ? std::atoi(argv[2]) : 8;
    std::map<int, Figures> results;
    for (int n : sizes) {
        Figures f = runSize(n, jobs);
        results[n] = f;
        std::printf(
            "%7d nodes: define %6.0f nodes/s (%d in flight), %6.0f nodes/s (one at a time)\n", n,
            rate(n, f.defineInFlight), jobs, rate(n, f.defineSerial));
        std::printf(
            "               list %zu nodes by selection %.1f ms; set one attribute on "
            "every node %.2f s (%.0f nodes/s); undefine all %.2f s (%.0f nodes/s)\n",
            f.listed, f.list * 1000, f.setAll, rate(n, f.setAll), f.undefineAll,
            rate(n, f.undefineAll));
        std::printf(
            "               orvrmd resident memory %ld bytes per node with 2 interfaces "
            "(target <= 4096)\n",
            f.bytesPerNode);
        std::fflush(stdout);
    }
    if (results.count(10000) != 0 && results.count(100000) != 0) {
        const Figures& a = results[10000];
        const Figures& b = results[100000];
        std::printf(
            "100k/10k time ratio: define in flight %.1f, one at a time %.1f, set %.1f, "
            "undefine %.1f (linear: <= 12)\n",
            b.defineInFlight / a.defineInFlight, b.defineSerial / a.defineSerial,
            b.setAll / a.setAll, b.undefineAll / a.undefineAll);
    }
    return 0;
}
