#include "tarn_base/CCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tarn_base/CException.h"
#include "tarn_base/CommandSpawn.h"

namespace tarn_base {

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Without a process descriptor to poll, a command's exit is looked for this often.
constexpr milliseconds kExitPollTick{50};
// Longest deadline accepted, so that now + deadline never overflows.
constexpr milliseconds kLongestDeadline{std::chrono::hours(24 * 365)};

// The started command: unless reap() ran, whatever path leaves the call kills
// its group and reaps it. It stays a zombie until reaped, so its pid (the
// group id) cannot be reused in between.
class Child {
  public:
    explicit Child(pid_t pid) : pid_(pid) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (!reaped_) {
            killCommandGroup(pid_);
            reapCommand(pid_);
        }
    }
    int reap() {
        reaped_ = true;
        return reapCommand(pid_);
    }

  private:
    pid_t pid_;
    bool reaped_ = false;
};

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

    SpawnedCommand cmd = spawnCommand(path, argv, user, flags);
    Child child(cmd.pid);
    std::exception_ptr error;
    try {
        if (cmd.failure.empty()) {
            pumpOutput(cmd.pid, cmd.out.get(), cmd.err.get());
        }
    } catch (...) {
        error = std::current_exception();
        killCommandGroup(cmd.pid);
    }
    cmd.out.reset();
    cmd.err.reset();
    result = child.reap();

    if (!error && !cmd.failure.empty()) {
        // Said where a shell would say it: on the command's stderr.
        const std::string& why = cmd.failure;
        auto count = static_cast<unsigned int>(std::min<size_t>(why.size(), bufferSize_));
        try {
            if (cmd.merged) {
                outputCapture(why.data(), count, why.data(), 0);
            } else {
                outputCapture(why.data(), 0, why.data(), count);
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
    CommandFd exitFd(
        static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));  // -1: fall back to ticks
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
            killCommandGroup(pid);
            break;
        }
        if (drainUntil && now >= *drainUntil) {
            killCommandGroup(pid);  // something it left behind still holds the output open
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
            int err = errno;
            throw CErrorException(std::string("CCommand: cannot wait for the command's output: ") +
                                      std::strerror(err),
                                  err);
        }
        if (!drainUntil &&
            (exitIx >= 0 ? fds[exitIx].revents != 0 : exitFd.get() < 0 && commandHasEnded(pid))) {
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
