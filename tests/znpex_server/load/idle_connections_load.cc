// Load test: one znpexd holds at least 10,000 idle connections (half on the
// local socket, half on TCP loopback) while another client keeps asking
// through it and a resource manager, and every answer comes in time. Takes
// the descriptors it needs within the hard limit (and reports if that is
// less); bounded in time by a watchdog. Prints the figures.
#include <fcntl.h>  // Subprocess.h uses open flags
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <regex>
#include <thread>
#include <vector>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"

namespace znpextest {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = RpcMessage::Kind;

constexpr size_t kWanted = 10000;
constexpr size_t kSpareDescriptors = 64;

size_t raiseLimit() {
    struct rlimit rl {};
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    getrlimit(RLIMIT_NOFILE, &rl);
    return static_cast<size_t>(rl.rlim_cur);
}

struct Latencies {
    std::mutex mu;
    std::vector<double> ms;
    size_t failures = 0;
    void add(double v) {
        std::lock_guard<std::mutex> g(mu);
        ms.push_back(v);
    }
    std::string summary() {
        std::lock_guard<std::mutex> g(mu);
        if (ms.empty()) {
            return "no samples";
        }
        std::vector<double> s = ms;
        std::sort(s.begin(), s.end());
        char buf[160];
        std::snprintf(buf, sizeof buf, "%zu answers, p50 %.2f ms, p99 %.2f ms, max %.2f ms",
                      s.size(), s[s.size() / 2], s[s.size() * 99 / 100], s.back());
        return buf;
    }
    double max() {
        std::lock_guard<std::mutex> g(mu);
        return ms.empty() ? 0 : *std::max_element(ms.begin(), ms.end());
    }
};

TEST(IdleConnectionsLoad, HoldsTenThousandAndKeepsAnswering) {
    testsupport::TempDir dir(true);
    writeText(zn::paths::resolve(zn::paths::kAclDefaultFile), shippedAcl());
    // Watchdog: the test ends by itself whatever happens.
    std::atomic<bool> finished{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 900 && !finished; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!finished) {
            std::fprintf(stderr, "load test: watchdog after 90 s\n");
            std::_Exit(3);
        }
    });

    size_t limit = raiseLimit();
    size_t target = std::min(kWanted, limit > kSpareDescriptors ? limit - kSpareDescriptors : 0);
    if (target < kWanted) {
        std::printf("descriptor hard limit %zu: holding %zu connections instead of %zu\n", limit,
                    target, kWanted);
    }

    std::string log = dir / "znpexd.stderr";
    testsupport::Subprocess daemon(
        testsupport::binPath("znpex/server/znpexd"),
        // Thousands of idle TCP connections all come from this one address:
        // lift the per-address cap on unauthenticated ones (tested on its own).
        {"--state-root", dir.path(), "--address", "127.0.0.1", "--port", "0", "--threads", "2",
         "--max-pending-per-address", "0"},
        {}, log);
    std::smatch match;
    static const std::regex re("listening on tcp 127.0.0.1 port ([0-9]+)");
    std::string text;
    ASSERT_TRUE(testsupport::waitFor([&] {
        text = testsupport::readFile(log);
        return std::regex_search(text, match, re) || !daemon.running();
    }));
    ASSERT_TRUE(std::regex_search(text, match, re)) << text;
    auto port = static_cast<uint16_t>(std::stoi(match[1].str()));
    std::string sock = zn::paths::resolve(zn::paths::kPexSocket);

    FakeManager manager(sock, {kClass});
    ASSERT_EQ(manager.registration().kind, Kind::Result);

    // The active client: one request through the manager every 5 ms.
    Latencies during, after;
    std::atomic<Latencies*> phase{&during};
    std::atomic<bool> stop{false};
    std::thread active([&] {
        auto client = TestClient::local(sock);
        while (!stop) {
            auto t0 = Clock::now();
            RpcMessage r = client->call("rm.enumerateResources", Json{{"class", kClass}}, 5000);
            double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
            Latencies* l = phase.load();
            if (r.kind == Kind::Result) {
                l->add(ms);
            } else {
                std::lock_guard<std::mutex> g(l->mu);
                ++l->failures;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });

    auto t0 = Clock::now();
    std::vector<int> idle;
    idle.reserve(target);
    for (size_t i = 0; i < target; ++i) {
        int fd = (i % 2 == 0) ? connectLocal(sock) : connectTcp(port);
        if (fd < 0) {
            std::printf("connection %zu failed: %s\n", i, std::strerror(errno));
            break;
        }
        idle.push_back(fd);
    }
    double connectSeconds = std::chrono::duration<double>(Clock::now() - t0).count();

    // The service holds them all (plus the manager and the active client).
    auto status = TestClient::local(sock);
    size_t held = 0;
    EXPECT_TRUE(testsupport::waitFor(
        [&] {
            RpcMessage s = status->call("service.status");
            held = s.kind == Kind::Result ? s.result["connections"].get<size_t>() : 0;
            return held >= idle.size() + 3;
        },
        std::chrono::seconds(20)));
    std::string rss;
    {
        std::string st = testsupport::readFile("/proc/" + std::to_string(daemon.pid()) + "/status");
        std::smatch vm;
        if (std::regex_search(st, vm, std::regex("VmRSS:\\s*([0-9]+ kB)"))) {
            rss = vm[1].str();
        }
    }
    phase = &after;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    stop = true;
    active.join();

    // Idle connections are still alive and served: a sample of them asks once.
    size_t sampleOk = 0;
    for (size_t i = 0; i < idle.size(); i += idle.size() / 50 + 1) {
        TestClient c(idle[i]);
        if (c.call("class.list", Json::object(), 5000).kind == Kind::Result) {
            ++sampleOk;
        }
        idle[i] = -1;  // closed by TestClient
    }

    std::printf("held %zu idle connections (service counted %zu) made in %.2f s; service RSS %s\n",
                idle.size(), held, connectSeconds, rss.c_str());
    std::printf("while connecting: %s; failures %zu\n", during.summary().c_str(), during.failures);
    std::printf("while holding:    %s; failures %zu\n", after.summary().c_str(), after.failures);
    std::fflush(stdout);

    EXPECT_EQ(idle.size(), target);
    EXPECT_GE(held, idle.size() + 3);
    EXPECT_EQ(sampleOk, (idle.size() + idle.size() / 50) / (idle.size() / 50 + 1));
    EXPECT_EQ(during.failures + after.failures, 0u);
    EXPECT_FALSE(after.ms.empty());
    EXPECT_LT(after.max(), 1000.0);
    EXPECT_LT(during.max(), 2000.0);

    for (int fd : idle) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(std::chrono::seconds(20)), 0);
    finished = true;
    watchdog.join();
}

}  // namespace
}  // namespace znpextest
