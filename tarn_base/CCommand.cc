#include "tarn_base/CCommand.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tarn_base/CException.h"

namespace tarn_base {

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Without a process descriptor to poll, a command's exit is looked for this often.
constexpr milliseconds kExitPollTick{50};
// Longest deadline accepted, so that now + deadline never overflows.
constexpr milliseconds kLongestDeadline{std::chrono::hours(24 * 365)};

// What the child reports through its failure pipe before it gives up.
enum ChildStage : int { kStageNone = 0, kStageUser = 1, kStageExec = 2 };
struct ChildFailure {
    int stage = kStageNone;
    int err = 0;
};

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_;
};

std::string errnoText(int err) {
    char buf[256];
    return strerror_r(err, buf, sizeof buf);  // GNU form: returns the text
}

[[noreturn]] void fail(const std::string& what, int err) {
    throw CErrorException("CCommand: " + what + ": " + errnoText(err), err);
}

// Moves a descriptor above 0..2, so the child's dup2 onto stdio never clobbers it.
void keepAboveStdio(Fd& fd) {
    if (fd.get() >= 0 && fd.get() <= STDERR_FILENO) {
        int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved < 0) {
            fail("cannot move a descriptor", errno);
        }
        fd.reset(moved);
    }
}

void makePipe(Fd& readEnd, Fd& writeEnd) {
    int p[2];
    if (::pipe2(p, O_CLOEXEC) != 0) {
        fail("cannot create a pipe", errno);
    }
    readEnd.reset(p[0]);
    writeEnd.reset(p[1]);
    keepAboveStdio(readEnd);
    keepAboveStdio(writeEnd);
}

std::vector<std::string> splitAtBlanks(const char* line) {
    std::vector<std::string> words;
    std::string word;
    for (const char* c = line; *c != '\0'; ++c) {
        if (*c == ' ' || *c == '\t') {
            if (!word.empty()) {
                words.push_back(std::move(word));
                word.clear();
            }
        } else {
            word.push_back(*c);
        }
    }
    if (!word.empty()) {
        words.push_back(std::move(word));
    }
    return words;
}

// A name without a slash is looked for along PATH, as a shell would; "" when absent.
std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* envPath = std::getenv("PATH");
    std::string dirs = envPath != nullptr && *envPath != '\0' ? envPath : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) {
            end = dirs.size();
        }
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

// Everything the child needs, built before fork: after fork the child makes
// only async-signal-safe calls, so it must not allocate.
struct Plan {
    std::vector<std::string> words;  // argument vector
    std::string program;             // "" when it was not found
    bool mergeStderr = false;
    bool changeUser = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

void planWords(Plan& plan, const char* path, char* const* argv, unsigned int flags) {
    if (path == nullptr || *path == '\0') {
        throw CErrorException("CCommand: no command given", EINVAL);
    }
    if (argv != nullptr) {
        for (char* const* a = argv; *a != nullptr; ++a) {
            plan.words.emplace_back(*a);
        }
        if (plan.words.empty()) {
            plan.words.emplace_back(path);
        }
        plan.program = findProgram(path);
        return;
    }
    if ((flags & CCommand::kCommandLine) == 0) {
        plan.words.emplace_back(path);
    } else {
        plan.words = splitAtBlanks(path);
        if (!plan.words.empty() && plan.words.back() == "2>&1") {
            plan.mergeStderr = true;
            plan.words.pop_back();
        }
        if (plan.words.empty()) {
            throw CErrorException("CCommand: the command line has no program", EINVAL);
        }
    }
    plan.program = findProgram(plan.words.front());
}

void planUser(Plan& plan, const char* user) {
    // Only root can become someone else; anyone else runs commands as itself.
    if (::geteuid() != 0 || user == nullptr || *user == '\0') {
        return;
    }
    long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 4096);
    passwd pw{};
    passwd* found = nullptr;
    int rc;
    while ((rc = ::getpwnam_r(user, &pw, buf.data(), buf.size(), &found)) == ERANGE &&
           buf.size() < (1U << 20)) {
        buf.resize(buf.size() * 2);
    }
    if (found == nullptr) {
        throw CErrorException(
            std::string("CCommand: cannot run a command as user \"") + user + "\": no such user",
            rc != 0 ? rc : ENOENT);
    }
    if (pw.pw_uid == ::geteuid()) {
        return;
    }
    plan.changeUser = true;
    plan.uid = pw.pw_uid;
    plan.gid = pw.pw_gid;
    int count = 32;
    plan.groups.resize(static_cast<size_t>(count));
    while (::getgrouplist(user, pw.pw_gid, plan.groups.data(), &count) < 0) {
        plan.groups.resize(static_cast<size_t>(count) + 1);
        count = static_cast<int>(plan.groups.size());
    }
    plan.groups.resize(static_cast<size_t>(count));
}

[[noreturn]] void reportAndExit(int failFd, ChildStage stage, int err) {
    ChildFailure f{stage, err};
    ssize_t ignored = ::write(failFd, &f, sizeof f);
    (void)ignored;
    ::_exit(err == ENOENT || err == ENOTDIR ? 127 : 126);
}

// The child between fork and exec: async-signal-safe calls only.
[[noreturn]] void execChild(const Plan& plan, char* const* argv, int inFd, int outFd, int errFd,
                            int failFd) {
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) {
            ::sigaction(sig, &dfl, nullptr);  // ignored dispositions would survive exec
        }
    }
    ::setpgid(0, 0);
    if (::dup2(inFd, STDIN_FILENO) < 0 || ::dup2(outFd, STDOUT_FILENO) < 0 ||
        ::dup2(errFd, STDERR_FILENO) < 0) {
        reportAndExit(failFd, kStageExec, errno);
    }
    // Descriptors someone opened without close-on-exec must not reach the command.
    ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    if (plan.changeUser && (::setgroups(plan.groups.size(), plan.groups.data()) != 0 ||
                            ::setgid(plan.gid) != 0 || ::setuid(plan.uid) != 0)) {
        reportAndExit(failFd, kStageUser, errno);
    }
    if (plan.program.empty()) {
        reportAndExit(failFd, kStageExec, ENOENT);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(plan.program.c_str(), argv, environ);
    reportAndExit(failFd, kStageExec, errno);
}

ChildFailure readChildFailure(int fd) {
    ChildFailure f;
    ssize_t n;
    do {
        n = ::read(fd, &f, sizeof f);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof f) ? f : ChildFailure{};
}

int decodeStatus(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    if (WIFSIGNALED(waitStatus)) {
        return 128 + WTERMSIG(waitStatus);
    }
    return CCommand::kNotStarted;
}

void killProcessGroup(pid_t pid) {
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);  // in case it left its group
}

// The started child: its whole group is killed and the child reaped unless
// reap() already ran, whatever path leaves the call. The child stays a zombie
// until reaped, so its pid (the group id) cannot be reused in between.
class Child {
  public:
    explicit Child(pid_t pid) : pid_(pid) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (!reaped_) {
            killGroup();
            reap();
        }
    }
    void killGroup() const { killProcessGroup(pid_); }
    int reap() {
        int ws = 0;
        pid_t r;
        do {
            r = ::waitpid(pid_, &ws, 0);
        } while (r < 0 && errno == EINTR);
        reaped_ = true;
        return r == pid_ ? decodeStatus(ws) : CCommand::kNotStarted;
    }

  private:
    pid_t pid_;
    bool reaped_ = false;
};

bool hasExited(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

// Reads one chunk if there is one; a closed or failed stream is marked closed.
unsigned int readChunk(int fd, std::vector<char>& buf, bool& open) {
    ssize_t n = ::read(fd, buf.data(), buf.size());
    if (n > 0) {
        return static_cast<unsigned int>(n);
    }
    if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        open = false;
    }
    return 0;
}

int pollTimeout(SteadyClock::time_point now, SteadyClock::time_point until, bool tick) {
    auto wait = std::chrono::ceil<milliseconds>(until - now);
    if (tick) {
        wait = std::min(wait, kExitPollTick);
    }
    return static_cast<int>(std::clamp<milliseconds::rep>(wait.count(), 0, INT_MAX));
}

}  // namespace

CCommand::CCommand(unsigned int bufferSize) : bufferSize_(std::max(bufferSize, 1U)) {}

CCommand::~CCommand() {
    join();
}

void CCommand::run(void* arg) {
    auto* request = static_cast<Request*>(arg);
    if (request == nullptr) {
        throw CErrorException("CCommand::run: no request", EINVAL);
    }
    runUserCommandWait(request->path, request->argv, request->user, &request->status,
                       request->flags);
}

void CCommand::setDeadline(milliseconds limit) {
    deadline_ = std::clamp(limit, milliseconds(0), kLongestDeadline);
}

void CCommand::outputCapture(const char*, unsigned int, const char*, unsigned int) {}

void CCommand::commandComplete(int) {}

void CCommand::commandError(std::exception_ptr) {}

void CCommand::runUserCommandWait(const char* path, char* const* argv, const char* user,
                                  int* status, unsigned int flags) {
    int unused = 0;
    int& result = status != nullptr ? *status : unused;
    result = kNotStarted;
    timedOut_ = false;

    Plan plan;
    planWords(plan, path, argv, flags);
    planUser(plan, user);
    std::vector<char*> childArgv;
    for (std::string& w : plan.words) {
        childArgv.push_back(w.data());
    }
    childArgv.push_back(nullptr);

    Fd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (devNull.get() < 0) {
        fail("cannot open /dev/null", errno);
    }
    keepAboveStdio(devNull);
    Fd outRead, outWrite, errRead, errWrite, failRead, failWrite;
    makePipe(outRead, outWrite);
    if (!plan.mergeStderr) {
        makePipe(errRead, errWrite);
    }
    makePipe(failRead, failWrite);

    // No signal handler may run in the child before exec.
    sigset_t all, saved;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &saved);
    pid_t pid = ::fork();
    if (pid == 0) {
        execChild(plan, childArgv.data(), devNull.get(), outWrite.get(),
                  plan.mergeStderr ? outWrite.get() : errWrite.get(), failWrite.get());
    }
    int forkErr = errno;
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (pid < 0) {
        fail("cannot start a process", forkErr);
    }
    Child child(pid);
    ::setpgid(pid, pid);  // also done by the child; whichever runs first wins
    devNull.reset();
    outWrite.reset();
    errWrite.reset();
    failWrite.reset();

    ChildFailure failure = readChildFailure(failRead.get());
    failRead.reset();
    std::exception_ptr error;
    try {
        if (failure.stage == kStageNone) {
            pumpOutput(pid, outRead.get(), errRead.get());
        }
    } catch (...) {
        error = std::current_exception();
        child.killGroup();
    }
    outRead.reset();
    errRead.reset();
    result = child.reap();

    if (!error && failure.stage != kStageNone) {
        const std::string& name = plan.words.front();
        std::string message =
            failure.stage == kStageUser
                ? name + ": cannot run as user " + user + ": " + errnoText(failure.err) + "\n"
                : name + ": cannot execute: " + errnoText(failure.err) + "\n";
        auto count = static_cast<unsigned int>(std::min<size_t>(message.size(), bufferSize_));
        try {
            if (plan.mergeStderr) {
                outputCapture(message.data(), count, message.data(), 0);
            } else {
                outputCapture(message.data(), 0, message.data(), count);
            }
        } catch (...) {
            error = std::current_exception();
        }
    }
    if (error) {
        commandError(error);
        std::rethrow_exception(error);
    }
    commandComplete(result);
}

void CCommand::pumpOutput(int pid, int outFd, int errFd) {
    const SteadyClock::time_point deadlineAt = SteadyClock::now() + deadline_;
    std::optional<SteadyClock::time_point> drainUntil;  // set once the child has exited
    Fd exitFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));  // -1: fall back to ticks
    std::vector<char> outBuf(bufferSize_), errBuf(bufferSize_);
    bool outOpen = outFd >= 0;
    bool errOpen = errFd >= 0;
    for (int fd : {outFd, errFd}) {
        if (fd >= 0) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        }
    }
    while (outOpen || errOpen || !drainUntil) {
        SteadyClock::time_point now = SteadyClock::now();
        if (now >= deadlineAt) {
            timedOut_ = true;
            killProcessGroup(pid);
            break;
        }
        if (drainUntil && now >= *drainUntil) {
            killProcessGroup(pid);  // something it left behind still holds the output open
            break;
        }
        pollfd fds[3];
        nfds_t nfds = 0;
        int outIx = -1, errIx = -1, exitIx = -1;
        if (outOpen) {
            outIx = static_cast<int>(nfds);
            fds[nfds++] = {outFd, POLLIN, 0};
        }
        if (errOpen) {
            errIx = static_cast<int>(nfds);
            fds[nfds++] = {errFd, POLLIN, 0};
        }
        if (!drainUntil && exitFd.get() >= 0) {
            exitIx = static_cast<int>(nfds);
            fds[nfds++] = {exitFd.get(), POLLIN, 0};
        }
        SteadyClock::time_point until = drainUntil ? std::min(deadlineAt, *drainUntil) : deadlineAt;
        int n = ::poll(fds, nfds, pollTimeout(now, until, !drainUntil && exitIx < 0));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("cannot wait for the command's output", errno);
        }
        if (!drainUntil &&
            (exitIx >= 0 ? fds[exitIx].revents != 0 : exitFd.get() < 0 && hasExited(pid))) {
            drainUntil = SteadyClock::now() + kExitDrainGrace;
        }
        unsigned int outCount = 0, errCount = 0;
        if (outIx >= 0 && fds[outIx].revents != 0) {
            outCount = readChunk(outFd, outBuf, outOpen);
        }
        if (errIx >= 0 && fds[errIx].revents != 0) {
            errCount = readChunk(errFd, errBuf, errOpen);
        }
        if (outCount > 0 || errCount > 0) {
            outputCapture(outBuf.data(), outCount, errBuf.data(), errCount);
        }
    }
}

}  // namespace tarn_base
