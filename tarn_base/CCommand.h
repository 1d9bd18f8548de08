// Runs an external command without a shell, waits for it, and hands each chunk
// of its standard output and standard error to outputCapture() while it runs.
// A command never outlives its deadline, every child is reaped, and no
// descriptor of the runner survives the call.
#pragma once

#include <chrono>
#include <exception>

#include "tarn_base/CRunnable.h"

namespace tarn_base {

class CCommand : public CRunnable {
  public:
    // Flag of runUserCommandWait: `path` is a whole command line. It is split at
    // blanks into words (no quoting, no expansion of any kind: every word
    // reaches the program literally), and a last word "2>&1" sends standard
    // error into the standard output stream.
    static constexpr unsigned int kCommandLine = 0x1;
    // Status of a command that could not be started at all.
    static constexpr int kNotStarted = -1;
    static constexpr std::chrono::milliseconds kDefaultDeadline{600'000};
    // How long output is still read after the command has exited while some
    // process it left behind holds its output open; then its group is killed.
    static constexpr std::chrono::milliseconds kExitDrainGrace{1'000};

    // What run() executes when the command is started on a thread of its own
    // with start(&request): the arguments of runUserCommandWait, and the status.
    struct Request {
        const char* path = nullptr;
        char* const* argv = nullptr;
        const char* user = nullptr;
        unsigned int flags = 0;
        int status = kNotStarted;
    };

    // bufferSize: the largest chunk handed to outputCapture per stream (at least 1).
    explicit CCommand(unsigned int bufferSize);
    ~CCommand() override;

    // Runs the Request that arg points to (see Request).
    void run(void* arg) override;

    // Runs one command and returns once it has ended and has been reaped.
    //   path, argv: with argv null, path is a command line (kCommandLine) or a
    //     program alone; with argv non-null, path is the program and argv its
    //     whole argument vector, argv[0] included, null-terminated. A program
    //     named without a slash is looked for along PATH.
    //   user: as whom to run. A root process runs it as that user ("root" or
    //     null: as root) and fails for an unknown name; any other process runs
    //     it as itself, whatever the name.
    //   *status (may be null) receives, like a shell's "$?":
    //     0..255   the exit code of a command that exited;
    //     128 + n  a command ended by signal n (137 after a deadline kill);
    //     127      the program does not exist; 126 it exists but cannot be
    //              executed (a line saying why goes to the command's stderr);
    //     -1       nothing could be started (then the call throws).
    // The command's stdin is /dev/null; it runs in a process group of its own.
    // Past the deadline the whole group is killed (timedOut() tells). Throws
    // CErrorException when nothing can be started; when outputCapture throws,
    // the group is killed, the child reaped, *status set, commandError called,
    // and the exception rethrown.
    void runUserCommandWait(const char* path, char* const* argv, const char* user, int* status,
                            unsigned int flags);

    // How long a command may run from its start; the default is kDefaultDeadline.
    void setDeadline(std::chrono::milliseconds limit);
    std::chrono::milliseconds deadline() const { return deadline_; }
    // Whether the last command was killed at its deadline.
    bool timedOut() const { return timedOut_; }
    unsigned int bufferSize() const { return bufferSize_; }

  protected:
    // One chunk read from the command: up to bufferSize() bytes of each stream;
    // a stream with nothing this time has count 0. The base discards output.
    virtual void outputCapture(const char* out, unsigned int outCount, const char* err,
                               unsigned int errCount);
    // The command has ended and has been reaped; status as in runUserCommandWait.
    virtual void commandComplete(int status);
    // outputCapture threw `error`; called after the child has been reaped, just
    // before the error is rethrown. The base does nothing.
    virtual void commandError(std::exception_ptr error);

  private:
    void pumpOutput(int pid, int outFd, int errFd);

    unsigned int bufferSize_;
    std::chrono::milliseconds deadline_ = kDefaultDeadline;
    bool timedOut_ = false;
};

}  // namespace tarn_base
