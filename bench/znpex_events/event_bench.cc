// Event delivery through the monitoring service: znpexd runs as a child
// under a temporary state root, the event tests' small resource manager
// registers from this process, and client sessions (one dispatch thread
// each) watch "PowerStatus!=PowerStatus@P" on all its resources.
//
// Figures: events per second delivered to 1, 100 and 1,000 watching sessions
// while the manager reports changes with at most a window of reports not yet
// delivered everywhere, each run bounded to a few seconds (first argument,
// default 2; further arguments: other session counts), with how many events
// arrived of how many were due; and the time from a manager's report to the
// callback of one session (median and p99, one report at a time).
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/znpex/SpawnService.h"
#include "platform/paths.h"
#include "tests/znpex_watch/PowerManager.h"
#include "znpex/client/px_event.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<uint64_t> g_delivered{0};
std::atomic<int64_t> g_lastNs{0};
// The next PowerStatus of each resource: every report is a change, across runs too.
uint32_t g_next[2] = {1, 1};

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

void onEvent(void*, px_event_2_t* e, void*) {
    g_lastNs.store(nowNs());
    g_delivered.fetch_add(1);
    px_free_response(e);
}

pid_t startService(const std::string& root) {
    return benchsupport::spawnService(ZNPEXD_PATH, {"--state-root", root, "--no-tcp"},
                                      root + "/znpexd.log");
}

struct Watcher {
    px_session_t session = nullptr;
    std::thread thread;
};

// Opens `n` sessions, each with one watch and a dispatch thread; fewer when
// the machine runs out of something (the count says how many).
std::vector<std::unique_ptr<Watcher>> openWatchers(int n) {
    std::vector<std::unique_ptr<Watcher>> out;
    const char* names[] = {"Hostname", "PowerStatus"};
    for (int i = 0; i < n; ++i) {
        auto w = std::make_unique<Watcher>();
        if (px_start_session(nullptr, 0, 0x401, &w->session) != PX_OK) {
            break;
        }
        px_reg_event_rsp_t* rsp = nullptr;
        if (px_reg_event_select(w->session, 2, watchtest::kClass, nullptr, names, 2,
                                "PowerStatus!=PowerStatus@P", nullptr, &onEvent, nullptr,
                                &rsp) != PX_OK) {
            px_end_session(w->session);
            break;
        }
        px_free_response(rsp);
        px_session_t s = w->session;
        w->thread = std::thread([s] { px_dispatch(s, 1); });
        out.push_back(std::move(w));
    }
    return out;
}

// Ends the sessions from several threads: each end wakes its dispatch loop,
// which returns at once.
void closeWatchers(std::vector<std::unique_ptr<Watcher>>& ws) {
    const size_t closers = std::min<size_t>(ws.size(), 64);
    std::vector<std::thread> ts;
    for (size_t t = 0; t < closers; ++t) {
        ts.emplace_back([&ws, t, closers] {
            for (size_t i = t; i < ws.size(); i += closers) {
                px_end_session(ws[i]->session);
                ws[i]->thread.join();
            }
        });
    }
    for (auto& t : ts) {
        t.join();
    }
    ws.clear();
}

// Events per second delivered to `sessions` watchers within `seconds`.
void throughput(watchtest::PowerManager& m, int sessions, double seconds) {
    auto ws = openWatchers(sessions);
    int n = static_cast<int>(ws.size());
    // Every watch set up and monitored before the clock starts.
    std::this_thread::sleep_for(std::chrono::milliseconds(500 + n));
    g_delivered = 0;
    const uint64_t window = std::max<uint64_t>(2, 20000 / static_cast<uint64_t>(std::max(n, 1)));
    uint64_t reports = 0;
    auto start = Clock::now();
    auto end = start + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
        if ((reports - g_delivered.load() / static_cast<uint64_t>(n)) >= window) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            continue;
        }
        m.setPower(0, g_next[0]);
        g_next[0] ^= 1u;
        ++reports;
    }
    // What is on its way still counts, for a little while.
    uint64_t want = reports * static_cast<uint64_t>(n);
    auto drain = Clock::now() + std::chrono::seconds(2);
    while (g_delivered.load() < want && Clock::now() < drain) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    double elapsed = static_cast<double>(g_lastNs.load() - start.time_since_epoch().count()) / 1e9;
    if (elapsed <= 0) {
        elapsed = seconds;
    }
    uint64_t got = g_delivered.load();
    std::printf("%5d sessions: %9.0f events/s delivered (%llu of %llu events, %llu reports)\n", n,
                static_cast<double>(got) / elapsed, static_cast<unsigned long long>(got),
                static_cast<unsigned long long>(want), static_cast<unsigned long long>(reports));
    std::fflush(stdout);
    closeWatchers(ws);
}

// Report-to-callback time of one watching session.
void latency(watchtest::PowerManager& m, double seconds) {
    auto ws = openWatchers(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::vector<double> us;
    auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end && us.size() < 100000) {
        uint64_t before = g_delivered.load();
        int64_t t0 = nowNs();
        m.setPower(1, g_next[1]);
        g_next[1] ^= 1u;
        auto limit = Clock::now() + std::chrono::seconds(2);
        while (g_delivered.load() == before && Clock::now() < limit) {
        }
        if (g_delivered.load() == before) {
            break;  // lost; the figures so far stand
        }
        us.push_back(static_cast<double>(g_lastNs.load() - t0) / 1e3);
    }
    closeWatchers(ws);
    if (us.empty()) {
        std::printf("latency: no event arrived\n");
        return;
    }
    std::sort(us.begin(), us.end());
    std::printf("latency report -> callback: median %.0f us, p99 %.0f us (%zu events)\n",
                us[us.size() / 2], us[std::min(us.size() - 1, us.size() * 99 / 100)], us.size());
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    std::vector<int> counts;
    for (int i = 2; i < argc; ++i) {
        counts.push_back(std::atoi(argv[i]));
        if (counts.back() < 1 || counts.back() > 5000) {
            counts.clear();
            seconds = 0;
        }
    }
    if (counts.empty()) {
        counts = {1, 100, 1000};
    }
    if (seconds <= 0 || seconds > 60) {
        std::fprintf(stderr, "usage: %s [seconds per figure, up to 60] [session counts, 1..5000]\n",
                     argv[0]);
        return 2;
    }
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    char tmpl[] = "/tmp/znpex-event-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string root = tmpl;
    setenv("ZN_ROOT", root.c_str(), 1);
    {
        std::string acl = zn::paths::resolve(zn::paths::kAclFile);
        zn::paths::ensureParentDir(acl);
        std::ofstream(acl) << "OTHER\n\tLOCALHOST\t* rw # benchmark\n";
    }
    pid_t service = startService(root);
    int rc = 0;
    {
        watchtest::PowerManager m;
        m.connect();
        auto limit = Clock::now() + std::chrono::seconds(20);
        while (!m.connected() && Clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!m.connected()) {
            std::fprintf(stderr, "the service did not take the manager\n");
            rc = 1;
        } else {
            for (int n : counts) {
                throughput(m, n, seconds);
            }
            latency(m, seconds);
        }
    }
    if (service > 0) {
        kill(service, SIGTERM);
        waitpid(service, nullptr, 0);
    }
    std::filesystem::remove_all(root);
    return rc;
}
