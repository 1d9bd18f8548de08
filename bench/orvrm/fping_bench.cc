// Poll sweep of many loopback hosts (127.x.y.z): the poller's poll time
// (FpingClass::updateStatusAndRetChanges) against the bare program run over
// the same list file with the same arguments, alternately, in the same run.
// Usage: orvrm_fping_bench [hosts (10000)] [rounds (3)] [time-out ms (500)]
// Needs fping (/usr/sbin/fping or /usr/bin/fping) allowed to ping loopback.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "orvrm/FpingClass.h"

extern char** environ;

namespace {

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The loopback address of host number i: 127.x.y.z with y and z in 1..254.
std::string loopbackName(unsigned i) {
    return "127." + std::to_string(i / (254 * 254)) + "." + std::to_string(i / 254 % 254 + 1) +
           "." + std::to_string(i % 254 + 1);
}

// Runs the program with these arguments, its output read through one pipe as
// a caller would; the exit status (-1 when it could not be run).
int runBare(const std::string& program, const std::vector<std::string>& args, size_t* bytes) {
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, p[1], 1);
    posix_spawn_file_actions_adddup2(&fa, p[1], 2);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, program.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(p[1]);
    *bytes = 0;
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0) {
        *bytes += static_cast<size_t>(n);
    }
    close(p[0]);
    if (rc != 0) {
        return -1;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

size_t countAndFree(strent* list) {
    size_t n = 0;
    for (const strent* s = list; s != nullptr; s = s->next) {
        ++n;
    }
    freestrlst(list);
    return n;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 == 1 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned hosts = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 10'000;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    const int timeOut = argc > 3 ? std::atoi(argv[3]) : 500;

    std::string real;
    for (const char* p : {"/usr/sbin/fping", "/usr/bin/fping"}) {
        if (access(p, X_OK) == 0) {
            real = p;
            break;
        }
    }
    if (real.empty()) {
        std::fprintf(stderr, "fping_bench: no fping installed\n");
        return 1;
    }
    // Everything under a scratch root: the poller finds the program there.
    const char* tmp = std::getenv("TMPDIR");
    std::string root =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/fping-bench-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::perror("fping_bench: mkdtemp");
        return 1;
    }
    setenv("ZN_ROOT", root.c_str(), 1);
    std::filesystem::create_directories(root + "/usr/sbin");
    std::filesystem::create_symlink(real, root + "/usr/sbin/fping");

    int result = 0;
    {
        FpingClass poller;
        poller.setPingTimeOut(timeOut);
        strent* names = nullptr;
        strent* tail = nullptr;
        for (unsigned i = 0; i < hosts; ++i) {
            strent* node = createstrent(loopbackName(i).c_str());
            (tail == nullptr ? names : tail->next) = node;
            tail = node;
        }
        double t0 = nowSeconds();
        int addRc = poller.addHosts(names);
        double addSeconds = nowSeconds() - t0;
        freestrlst(names);

        const std::string program = poller.programPath();
        const std::vector<std::string> args{"-f" + poller.listFileName(),
                                            "-t" + std::to_string(timeOut), "-u"};
        std::printf("fping_bench: %u loopback hosts, %d rounds, -t%d, program %s\n", hosts, rounds,
                    timeOut, real.c_str());
        std::printf("command line: %s\n", poller.commandLine().c_str());
        std::printf("addHosts (list file written once): %.3f ms, result %d\n", addSeconds * 1e3,
                    addRc);
        std::printf("%-6s %12s %8s %12s %12s %8s %10s\n", "round", "bare s", "status", "poll s",
                    "poll cpu ms", "changes", "overhead");

        std::vector<double> bare, poll;
        for (int r = 0; r < rounds; ++r) {
            double bareSeconds = 0, pollSeconds = 0, pollCpu = 0;
            int bareStatus = 0;
            size_t changes = 0;
            size_t bareBytes = 0;
            auto runBareOnce = [&] {
                double s = nowSeconds();
                bareStatus = runBare(program, args, &bareBytes);
                bareSeconds = nowSeconds() - s;
            };
            auto pollOnce = [&] {
                double s = nowSeconds();
                double c = threadCpuSeconds();
                changes = countAndFree(poller.updateStatusAndRetChanges());
                pollCpu = threadCpuSeconds() - c;
                pollSeconds = nowSeconds() - s;
            };
            // Alternate the order so a drift of the machine's load hits both alike.
            if (r % 2 == 0) {
                runBareOnce();
                pollOnce();
            } else {
                pollOnce();
                runBareOnce();
            }
            bare.push_back(bareSeconds);
            poll.push_back(pollSeconds);
            std::printf("%-6d %12.3f %8d %12.3f %12.3f %8zu %9.2f%%\n", r, bareSeconds, bareStatus,
                        pollSeconds, pollCpu * 1e3, changes, (pollSeconds / bareSeconds - 1) * 100);
            std::fflush(stdout);
            if (bareStatus != 0) {
                std::printf("  bare run: status %d, %zu bytes of output\n", bareStatus, bareBytes);
                result = 1;
            }
        }
        unsigned reachable = 0;
        for (unsigned i = 0; i < hosts; i += std::max(1U, hosts / 100)) {
            reachable += poller.getHostStatus(loopbackName(i).c_str()) == FpingClass::kReachable;
        }
        double bareTotal = 0, pollTotal = 0;
        for (int r = 0; r < rounds; ++r) {
            bareTotal += bare[r];
            pollTotal += poll[r];
        }
        std::printf("sampled hosts reachable: %u of %u\n", reachable,
                    (hosts + std::max(1U, hosts / 100) - 1) / std::max(1U, hosts / 100));
        std::printf("median: bare %.3f s, poll %.3f s, overhead %.2f%%\n", median(bare),
                    median(poll), (median(poll) / median(bare) - 1) * 100);
        std::printf("total:  bare %.3f s, poll %.3f s, overhead %.2f%% (target <= 10%%)\n",
                    bareTotal, pollTotal, (pollTotal / bareTotal - 1) * 100);
    }
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return result;
}
