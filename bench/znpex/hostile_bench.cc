// The service under hostile callers: znpexd runs as a child, and this program
// keeps N unauthenticated TCP connections open against it (default 1,000),
// a third each of three kinds, each re-opened as soon as the service drops
// it: callers that send all but the last bytes of a frame as large as an
// unauthenticated caller may send and stall; callers that pipeline requests
// with large answers and never read; and callers that announce a 16 MiB
// frame. Meanwhile ordinary clients (one on the local socket, one over TCP)
// ask every 10 ms. Prints the service's resident memory (peak while the
// hostile callers are there, and after they left) and the ordinary clients'
// answer times. Targets: peak under 256 MiB, answers within 100 ms.
// Usage: znpex_hostile_bench [connections] [seconds]
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/znpex/BenchManager.h"
#include "bench/znpex/SpawnService.h"
#include "platform/paths.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/Frame.h"
#include "znpex/proto/JsonRpc.h"

namespace {

using Clock = std::chrono::steady_clock;

// What an unauthenticated caller may send in one frame (the service's default).
constexpr size_t kUnauthenticatedFrame = 64u << 10;

int connectTcp(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<uint16_t>(port));
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&in), sizeof in) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

long residentKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

std::string frame(const std::string& payload) {
    std::string f;
    znpex::proto::appendFrameHeader(f, payload.size());
    return f + payload;
}

enum class Kind { Stall, NeverRead, Oversize };

struct Hostile {
    Kind kind;
    int fd = -1;
    const std::string* out = nullptr;  // what it sends after connecting
    size_t sent = 0;
};

// The bytes a hostile caller of each kind sends after connecting.
std::string makeOpening(Kind k) {
    switch (k) {
        case Kind::Stall: {
            std::string f;
            znpex::proto::appendFrameHeader(f, kUnauthenticatedFrame);
            return f + std::string(kUnauthenticatedFrame - 10, ' ');
        }
        case Kind::NeverRead: {
            // Unknown methods whose names the errors echo: large answers.
            std::string batch;
            std::string method(20000, 'm');
            for (int i = 0; i < 200; ++i) {
                batch +=
                    frame(znpex::proto::dumpJson(znpex::proto::makeRequest(i, method, nullptr)));
            }
            return batch;
        }
        case Kind::Oversize: {
            std::string f;
            znpex::proto::appendFrameHeader(f, 16u << 20);
            return f + std::string(4096, 'x');
        }
    }
    return {};
}

// Made once: every caller of a kind sends the same bytes.
const std::string& opening(Kind k) {
    static const std::string texts[] = {makeOpening(Kind::Stall), makeOpening(Kind::NeverRead),
                                        makeOpening(Kind::Oversize)};
    return texts[static_cast<int>(k)];
}

void open(Hostile& h, int port) {
    h.fd = connectTcp(port);
    if (h.fd >= 0 && h.kind == Kind::NeverRead) {
        int small = 4096;
        ::setsockopt(h.fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }
    h.out = &opening(h.kind);
    h.sent = 0;
}

// Answer times, kept apart for the first seconds (while the hostile callers
// connect and send their first bytes) and for the rest of the run.
constexpr auto kBurst = std::chrono::seconds(2);

struct Samples {
    std::mutex mu;
    Clock::time_point start = Clock::now();
    std::vector<double> burst, steady;
    long failures = 0;
    void add(Clock::time_point at, double v) {
        std::lock_guard<std::mutex> g(mu);
        (at - start < kBurst ? burst : steady).push_back(v);
    }
    static void line(const char* name, const char* phase, std::vector<double> ms) {
        if (ms.empty()) {
            std::printf("%s, %s: no answers\n", name, phase);
            return;
        }
        std::sort(ms.begin(), ms.end());
        std::printf("%s, %s: %zu answers, p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", name, phase,
                    ms.size(), ms[ms.size() / 2], ms[ms.size() * 99 / 100], ms.back());
    }
    void print(const char* name) {
        std::lock_guard<std::mutex> g(mu);
        line(name, "first 2 s", burst);
        line(name, "after    ", steady);
        if (failures != 0) {
            std::printf("%s: %ld failures\n", name, failures);
        }
    }
    double max() {
        std::lock_guard<std::mutex> g(mu);
        double m = failures != 0 || (burst.empty() && steady.empty()) ? 1e9 : 0;
        for (const auto* v : {&burst, &steady}) {
            for (double x : *v) {
                m = std::max(m, x);
            }
        }
        return m;
    }
};

// One ordinary client asking every 10 ms until `stop`.
void ordinary(const char* host, std::atomic<bool>& stop, Samples& out) {
    px_contact_t contact{host};
    px_session_t s = nullptr;
    if (px_start_session(host != nullptr ? &contact : nullptr, host != nullptr ? 1 : 0, 0x401,
                         &s) != PX_OK) {
        out.failures = -1;
        return;
    }
    while (!stop.load()) {
        auto t0 = Clock::now();
        px_enumerate_rsp_t* rsp = nullptr;
        int rc = px_enumerate_select(s, znpexbench::kBenchClass, nullptr, &rsp);
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        if (rc != PX_OK || rsp->hdr.pr_error != nullptr) {
            std::lock_guard<std::mutex> g(out.mu);
            ++out.failures;
        } else {
            out.add(t0, ms);
        }
        px_free_response(rsp);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    px_end_session(s);
}

}  // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? std::atoi(argv[1]) : 1000;
    double seconds = argc > 2 ? std::atof(argv[2]) : 20.0;
    if (count < 3 || count > 20000 || seconds <= 0 || seconds > 300) {
        std::fprintf(stderr, "usage: znpex_hostile_bench [connections 3-20000] [seconds 0-300]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    struct rlimit rl {};
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < static_cast<rlim_t>(count) + 64) {
        std::fprintf(stderr, "needs %d descriptors, the limit is %llu\n", count + 64,
                     static_cast<unsigned long long>(rl.rlim_cur));
        return 1;
    }
    char tmpl[] = "/tmp/znpex-hostile-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string root = tmpl;
    setenv(zn::paths::kRootEnv, root.c_str(), 1);
    std::string acl = zn::paths::resolve(zn::paths::kAclFile);
    zn::paths::ensureParentDir(acl);
    std::ofstream(acl) << "OTHER\n\troot@LOCALHOST\t* rw\n\tLOCALHOST\t* r\n\tUNAUTHENT\t* r\n";
    int port = benchsupport::freeLoopbackPort();
    pid_t service = benchsupport::spawnService(
        ZNPEXD_PATH,
        {"--state-root", root, "--address", "127.0.0.1", "--port", std::to_string(port)},
        root + "/znpexd.log");
    int rc = 0;
    {
        znpexbench::BenchManager manager(2);
        if (service < 0 || !manager.start(10000)) {
            std::fprintf(stderr, "the service did not come up (see %s/znpexd.log)\n", root.c_str());
            if (service > 0) {
                ::kill(service, SIGTERM);
                ::waitpid(service, nullptr, 0);
            }
            return 1;
        }
        long idleKiB = residentKiB(service);
        Samples local, tcp;  // their clocks start as the hostile callers come
        std::vector<Hostile> hostile(static_cast<size_t>(count));
        const char* only = std::getenv("HOSTILE_ONLY");  // "0", "1" or "2": one kind
        for (size_t i = 0; i < hostile.size(); ++i) {
            hostile[i].kind = static_cast<Kind>(only != nullptr ? std::atoi(only) % 3 : i % 3);
            open(hostile[i], port);
        }
        std::atomic<bool> stop{false};
        std::string tcpHost = "127.0.0.1:" + std::to_string(port);
        std::thread a([&] { ordinary(nullptr, stop, local); });
        std::thread b([&] { ordinary(tcpHost.c_str(), stop, tcp); });
        long peakKiB = 0;
        long reopened = 0;
        size_t fewestOpen = hostile.size();
        auto end = Clock::now() + std::chrono::duration<double>(seconds);
        auto nextSample = Clock::now();
        std::vector<pollfd> fds(hostile.size());
        std::vector<char> sink(65536);
        while (Clock::now() < end) {
            size_t open_ = 0;
            for (size_t i = 0; i < hostile.size(); ++i) {
                Hostile& h = hostile[i];
                if (h.fd < 0) {
                    open(h, port);
                    ++reopened;
                }
                open_ += h.fd >= 0 ? 1 : 0;
                short want = POLLRDHUP;
                if (h.sent < h.out->size()) {
                    want |= POLLOUT;
                }
                if (h.kind != Kind::NeverRead) {
                    want |= POLLIN;
                }
                fds[i] = pollfd{h.fd, want, 0};
            }
            fewestOpen = std::min(fewestOpen, open_);
            ::poll(fds.data(), fds.size(), 50);
            for (size_t i = 0; i < hostile.size(); ++i) {
                Hostile& h = hostile[i];
                short got = fds[i].revents;
                if (h.fd < 0 || got == 0) {
                    continue;
                }
                bool gone = (got & (POLLHUP | POLLERR | POLLRDHUP)) != 0;
                if (!gone && (got & POLLIN) != 0) {
                    gone = ::read(h.fd, sink.data(), sink.size()) <= 0;
                }
                if (!gone && (got & POLLOUT) != 0) {
                    ssize_t n = ::send(h.fd, h.out->data() + h.sent, h.out->size() - h.sent,
                                       MSG_NOSIGNAL | MSG_DONTWAIT);
                    gone = n < 0 && errno != EAGAIN;
                    h.sent += n > 0 ? static_cast<size_t>(n) : 0;
                }
                if (gone) {
                    ::close(h.fd);
                    h.fd = -1;
                }
            }
            if (Clock::now() >= nextSample) {
                peakKiB = std::max(peakKiB, residentKiB(service));
                nextSample = Clock::now() + std::chrono::milliseconds(200);
            }
        }
        stop = true;
        a.join();
        b.join();
        for (Hostile& h : hostile) {
            if (h.fd >= 0) {
                ::close(h.fd);
            }
        }
        std::this_thread::sleep_for(std::chrono::seconds(3));
        long afterKiB = residentKiB(service);

        std::printf(
            "znpexd under %d hostile unauthenticated connections for %.0f s "
            "(a third each: stalled %zu KiB frames, never-reading pipelines, 16 MiB "
            "headers)\n",
            count, seconds, kUnauthenticatedFrame >> 10);
        std::printf("hostile connections open: at least %zu of %d at every pass, %ld re-opened\n",
                    fewestOpen, count, reopened);
        std::printf(
            "resident memory: idle %.1f MiB, peak %.1f MiB, 3 s after they left %.1f MiB "
            "(target: peak < 256 MiB)\n",
            idleKiB / 1024.0, peakKiB / 1024.0, afterKiB / 1024.0);
        local.print("ordinary client, local socket");
        tcp.print("ordinary client, tcp          ");
        bool met = peakKiB < 256 * 1024 && local.max() < 100 && tcp.max() < 100;
        std::printf("targets (peak < 256 MiB, every ordinary answer < 100 ms): %s\n",
                    met ? "met" : "MISSED");
        rc = met ? 0 : 3;
    }
    ::kill(service, SIGTERM);
    ::waitpid(service, nullptr, 0);
    std::filesystem::remove_all(root);
    return rc;
}
