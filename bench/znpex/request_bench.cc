// Requests per second through the monitoring service: znpexd runs as a child
// under a temporary state root, a small resource manager registers from this
// process, and 1 or 8 client threads (one session each) enumerate its class
// as fast as answers come, over the local socket and over loopback TCP.
// Each figure runs for a fixed time (default 2 s, first argument), so the
// whole program ends in seconds. Prints one line per figure.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/znpex/BenchManager.h"
#include "bench/znpex/SpawnService.h"
#include "platform/paths.h"
#include "znpex/client/px_client.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Everyone may read: TCP clients are unauthenticated.
void writeAcl() {
    std::string path = zn::paths::resolve(zn::paths::kAclFile);
    zn::paths::ensureParentDir(path);
    std::ofstream(path) << "OTHER\n"
                           "\troot@LOCALHOST\t* rw # benchmark\n"
                           "\tLOCALHOST\t* r  # benchmark\n"
                           "\tUNAUTHENT\t* r  # benchmark\n";
}

pid_t startService(const std::string& root, int port) {
    return benchsupport::spawnService(
        ZNPEXD_PATH,
        {"--state-root", root, "--address", "127.0.0.1", "--port", std::to_string(port)},
        root + "/znpexd.log");
}

// Runs `clients` threads for `seconds`; returns requests per second (-1 when
// a request failed).
double measure(const char* host, int clients, double seconds) {
    std::atomic<bool> go{false}, stop{false};
    std::atomic<long> done{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&] {
            px_contact_t contact{host};
            px_session_t s = nullptr;
            if (px_start_session(host != nullptr ? &contact : nullptr, host != nullptr ? 1 : 0,
                                 0x401, &s) != PX_OK) {
                failed.fetch_add(1);
                return;
            }
            while (!go.load()) {
                std::this_thread::yield();
            }
            long n = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                px_enumerate_rsp_t* rsp = nullptr;
                if (px_enumerate_select(s, znpexbench::kBenchClass, nullptr, &rsp) != PX_OK ||
                    rsp->hdr.pr_error != nullptr || rsp->handle_count != 4) {
                    failed.fetch_add(1);
                    px_free_response(rsp);
                    break;
                }
                px_free_response(rsp);
                ++n;
            }
            done.fetch_add(n);
            px_end_session(s);
        });
    }
    // A short warm-up is not counted: sessions are open before the clock starts.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto t0 = Clock::now();
    go = true;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& t : threads) {
        t.join();
    }
    double took = std::chrono::duration<double>(Clock::now() - t0).count();
    return failed.load() > 0 ? -1 : static_cast<double>(done.load()) / took;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    if (seconds <= 0 || seconds > 30) {
        std::fprintf(stderr, "usage: znpex_request_bench [seconds per figure, 0-30]\n");
        return 2;
    }
    char tmpl[] = "/tmp/znpex-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string root = tmpl;
    setenv(zn::paths::kRootEnv, root.c_str(), 1);
    writeAcl();
    int port = benchsupport::freeLoopbackPort();
    pid_t service = startService(root, port);
    int rc = 0;
    {
        znpexbench::BenchManager manager(4);
        if (service < 0 || !manager.start(10000)) {
            std::fprintf(stderr, "the service did not come up (see %s/znpexd.log)\n", root.c_str());
            rc = 1;
        } else {
            std::string tcp = "127.0.0.1:" + std::to_string(port);
            std::printf(
                "znpex request rate (enumerate through znpexd to an in-process manager, "
                "%.1f s per figure)\n",
                seconds);
            struct Figure {
                const char* name;
                const char* host;
                int clients;
            };
            const Figure figures[] = {{"unix socket, 1 client ", nullptr, 1},
                                      {"unix socket, 8 clients", nullptr, 8},
                                      {"tcp loopback, 1 client ", tcp.c_str(), 1},
                                      {"tcp loopback, 8 clients", tcp.c_str(), 8}};
            for (const auto& f : figures) {
                double rate = measure(f.host, f.clients, seconds);
                if (rate < 0) {
                    std::printf("%s: requests failed\n", f.name);
                    rc = 1;
                } else {
                    std::printf("%s: %9.0f req/s\n", f.name, rate);
                }
                std::fflush(stdout);
            }
        }
    }
    if (service > 0) {
        ::kill(service, SIGTERM);
        ::waitpid(service, nullptr, 0);
    }
    std::filesystem::remove_all(root);
    return rc;
}
