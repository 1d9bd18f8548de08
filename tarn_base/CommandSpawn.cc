#include "tarn_base/CommandSpawn.h"

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tarn_base/CCommand.h"
#include "tarn_base/CException.h"

namespace tarn_base {

namespace {

constexpr unsigned int kCommandLine = CCommand::kCommandLine;

// What the child reports through its failure pipe before it gives up.
enum ChildStage : int { kStageNone = 0, kStageUser = 1, kStageExec = 2 };
struct ChildFailure {
    int stage = kStageNone;
    int err = 0;
};

std::string errnoText(int err) {
    char buf[256];
    return strerror_r(err, buf, sizeof buf);  // GNU form: returns the text
}

[[noreturn]] void fail(const std::string& what, int err) {
    throw CErrorException("CCommand: " + what + ": " + errnoText(err), err);
}

// Moves a descriptor above 0..2, so the child's dup2 onto stdio never clobbers it.
void keepAboveStdio(CommandFd& fd) {
    if (fd.get() >= 0 && fd.get() <= STDERR_FILENO) {
        int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved < 0) {
            fail("cannot move a descriptor", errno);
        }
        fd.reset(moved);
    }
}

void makePipe(CommandFd& readEnd, CommandFd& writeEnd) {
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
        struct stat st {};
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
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
    if ((flags & kCommandLine) == 0) {
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
    return -1;
}

}  // namespace

CommandFd& CommandFd::operator=(CommandFd&& other) noexcept {
    if (this != &other) {
        reset(other.fd_);
        other.fd_ = -1;
    }
    return *this;
}

void CommandFd::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

SpawnedCommand spawnCommand(const char* path, char* const* argv, const char* user,
                            unsigned int flags) {
    Plan plan;
    planWords(plan, path, argv, flags);
    planUser(plan, user);
    std::vector<char*> childArgv;
    for (std::string& w : plan.words) {
        childArgv.push_back(w.data());
    }
    childArgv.push_back(nullptr);

    CommandFd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (devNull.get() < 0) {
        fail("cannot open /dev/null", errno);
    }
    keepAboveStdio(devNull);
    SpawnedCommand spawned;
    spawned.merged = plan.mergeStderr;
    CommandFd outWrite, errWrite, failRead, failWrite;
    makePipe(spawned.out, outWrite);
    if (!plan.mergeStderr) {
        makePipe(spawned.err, errWrite);
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
    ::setpgid(pid, pid);  // also done by the child; whichever runs first wins
    spawned.pid = pid;
    devNull.reset();
    outWrite.reset();
    errWrite.reset();
    failWrite.reset();

    ChildFailure failure = readChildFailure(failRead.get());
    if (failure.stage != kStageNone) {
        try {
            const std::string& name = plan.words.front();
            spawned.failure =
                failure.stage == kStageUser
                    ? name + ": cannot run as user " + user + ": " + errnoText(failure.err) + "\n"
                    : name + ": cannot execute: " + errnoText(failure.err) + "\n";
        } catch (...) {
            killCommandGroup(pid);
            reapCommand(pid);
            throw;
        }
    }
    return spawned;
}

void killCommandGroup(pid_t pid) {
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);  // in case it left its group
}

int reapCommand(pid_t pid) {
    int ws = 0;
    pid_t r;
    do {
        r = ::waitpid(pid, &ws, 0);
    } while (r < 0 && errno == EINTR);
    return r == pid ? decodeStatus(ws) : -1;
}

bool commandHasEnded(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

}  // namespace tarn_base
