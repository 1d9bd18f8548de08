// Runs one command line as user "root", waits for it, and hands back all that
// it wrote to standard output and to standard error as two heap texts. One
// object per command, on the caller's stack, used by one thread.
#pragma once

#include <cstdint>

#include "tarn_base/CCommand.h"

class CmdExec : public tarn_base::CCommand {
public:
    // The chunk size given to the command runner; every user takes this one.
    static constexpr unsigned int kBufferSize = 2048;

    CmdExec();
    ~CmdExec() override;

    // Runs the command (callers pass argv null and flags CCommand::kCommandLine:
    // the line is split at blanks, never given to a shell) and returns its
    // status as CCommand::runUserCommandWait sets it: the exit code, 128 + the
    // signal that ended it (137 after the deadline), 127 / 126 when the program
    // is missing / cannot be executed, -1 when nothing could be started.
    // *out / *err receive malloc'ed copies of what the command wrote, which the
    // caller frees; a stream that got nothing leaves its argument as it was, and
    // so does a failed run (whose output is dropped). Never throws.
    int Execute(const char* cmdline, char* const* argv, unsigned int flags, char** out, char** err);

    // Appends one chunk to each buffer (stdout first), growing it as needed.
    // Throws tarn_base::CNoMemory when a buffer cannot grow.
    void outputCapture(const char* out, unsigned int outCount, const char* err,
                       unsigned int errCount) override;

    // Release one buffer; its pointer, capacity and length become zero.
    void freeStdout();
    void freeStderr();

    // An optional ceiling on what one run may write, both streams together: a
    // chunk that would take the captured bytes above it stops the command (its
    // process group is killed), Execute returns as for a failed capture, and
    // outputLimitHit() tells. 0, the default, means no ceiling.
    void setOutputLimit(uint64_t bytes) { m_outputLimit = bytes; }
    uint64_t outputLimit() const { return m_outputLimit; }
    bool outputLimitHit() const { return m_outputLimitHit; }

    // How many bytes the last Execute handed over on each stream: the texts may
    // hold NUL bytes of their own, so their ends are not always where strlen says.
    uint32_t lastStdoutLength() const { return m_lastStdoutLen; }
    uint32_t lastStderrLength() const { return m_lastStderrLen; }

    const char* stdoutText() const { return m_stdout; }
    uint32_t stdoutCapacity() const { return m_stdoutSize; }
    uint32_t stdoutLength() const { return m_stdoutLen; }
    const char* stderrText() const { return m_stderr; }
    uint32_t stderrCapacity() const { return m_stderrSize; }
    uint32_t stderrLength() const { return m_stderrLen; }

private:
    char* m_stdout = nullptr;  // NUL-terminated while non-empty
    uint32_t m_stdoutSize = 0;
    uint32_t m_stdoutLen = 0;
    char* m_stderr = nullptr;  // allocated one byte beyond m_stderrSize
    uint32_t m_stderrSize = 0;
    uint32_t m_stderrLen = 0;
    uint64_t m_outputLimit = 0;
    bool m_outputLimitHit = false;
    uint32_t m_lastStdoutLen = 0;
    uint32_t m_lastStderrLen = 0;
};
