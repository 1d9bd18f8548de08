// Starts the process of one command for CCommand, without a shell: the words
// of a command line (or an argument vector), the program found along PATH,
// stdin from /dev/null, stdout and stderr into close-on-exec pipes, a process
// group of its own, default signal handling, and another user when root asks.
// The caller owns what comes back: it reads the pipes, then kills and reaps.
#pragma once

#include <sys/types.h>
#include <string>

namespace tarn_base {

// An owned file descriptor (-1 for none), closed on destruction.
class CommandFd {
  public:
    explicit CommandFd(int fd = -1) : fd_(fd) {}
    CommandFd(CommandFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    CommandFd& operator=(CommandFd&& other) noexcept;
    CommandFd(const CommandFd&) = delete;
    CommandFd& operator=(const CommandFd&) = delete;
    ~CommandFd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1);

  private:
    int fd_;
};

struct SpawnedCommand {
    pid_t pid = -1;  // also the id of its process group
    CommandFd out;   // its stdout, and its stderr too when they were merged
    CommandFd err;   // its stderr; none when merged into stdout
    bool merged = false;
    // Set when the process started but could not run the program (it has then
    // exited with 127 or 126): a line saying why, for the command's stderr.
    std::string failure;
};

// Starts the command; `path`, `argv`, `user` and `flags` as in
// CCommand::runUserCommandWait. Throws CErrorException, with no process left
// behind, when there is nothing to run, the user is unknown, or no pipe or
// process can be made.
SpawnedCommand spawnCommand(const char* path, char* const* argv, const char* user,
                            unsigned int flags);

// SIGKILL to the command's whole group (and to the command itself, should it
// have left the group). Only valid while the command is not yet reaped.
void killCommandGroup(pid_t pid);

// Waits for the command to end and turns its wait status into a shell-like
// exit status: the exit code, or 128 + the signal; -1 when it cannot be reaped.
int reapCommand(pid_t pid);

// Whether the command has ended, leaving it unreaped (its pid, the group id,
// stays reserved until reapCommand).
bool commandHasEnded(pid_t pid);

}  // namespace tarn_base
