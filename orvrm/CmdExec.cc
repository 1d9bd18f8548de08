#include "orvrm/CmdExec.h"

#include <cstdlib>
#include <cstring>

#include "tarn_base/CException.h"

namespace {

// One growth step: from nothing, 256 bytes or twice the chunk; from a buffer,
// twice its size, or its size plus twice the chunk for a chunk that large.
uint64_t grownCapacity(uint64_t capacity, uint64_t n) {
    if (capacity == 0) {
        return n + 1 > 256 ? 2 * n : 256;
    }
    return n + 1 > 2 * capacity ? capacity + 2 * n : 2 * capacity;
}

// Appends n bytes and a terminator. stdout grows when length + n + 1 exceeds
// its capacity, stderr when length + n does; stderr's buffer therefore always
// has one byte beyond its capacity for the terminator. A single growth step
// can fall short of a large chunk behind a nearly full buffer: the step is
// then repeated until the bytes fit.
void append(char*& buf, uint32_t& capacity, uint32_t& length, const char* bytes, unsigned int n,
            bool isStderr) {
    if (n == 0) {
        return;
    }
    const uint64_t needed = uint64_t{length} + n + (isStderr ? 0 : 1);
    if (needed > capacity) {
        uint64_t fresh = capacity;
        do {
            fresh = grownCapacity(fresh, n);
        } while (fresh < needed);
        if (fresh > UINT32_MAX) {
            throw tarn_base::CNoMemory();
        }
        auto* grown = static_cast<char*>(std::malloc(fresh + (isStderr ? 1 : 0)));
        if (grown == nullptr) {
            throw tarn_base::CNoMemory();
        }
        if (length > 0) {
            std::memcpy(grown, buf, length);
        }
        std::free(buf);
        buf = grown;
        capacity = static_cast<uint32_t>(fresh);
    }
    std::memcpy(buf + length, bytes, n);
    length += n;
    buf[length] = '\0';
}

// A malloc'ed copy of a captured text, stored only when there is one.
// Returns how many bytes were handed over.
uint32_t handOver(const char* text, uint32_t length, char** to) {
    if (text == nullptr || to == nullptr) {
        return 0;
    }
    auto* copy = static_cast<char*>(std::malloc(uint64_t{length} + 1));
    if (copy == nullptr) {
        return 0;
    }
    std::memcpy(copy, text, length + 1);
    *to = copy;
    return length;
}

// Thrown from outputCapture to have the runner stop a command that wrote too much.
class OutputLimitExceeded : public tarn_base::CException {
public:
    OutputLimitExceeded() : CException("CmdExec: the command wrote more than its output limit") {}
};

}  // namespace

CmdExec::CmdExec() : tarn_base::CCommand(kBufferSize) {}

CmdExec::~CmdExec() {
    freeStdout();
    freeStderr();
}

int CmdExec::Execute(const char* cmdline, char* const* argv, unsigned int flags, char** out,
                     char** err) {
    int status = 0;
    m_outputLimitHit = false;
    m_lastStdoutLen = 0;
    m_lastStderrLen = 0;
    try {
        runUserCommandWait(cmdline, argv, "root", &status, flags);
    } catch (...) {
        freeStdout();
        freeStderr();
        return status;
    }
    m_lastStdoutLen = handOver(m_stdout, m_stdoutLen, out);
    m_lastStderrLen = handOver(m_stderr, m_stderrLen, err);
    freeStdout();
    freeStderr();
    return status;
}

void CmdExec::outputCapture(const char* out, unsigned int outCount, const char* err,
                            unsigned int errCount) {
    // Checked before anything grows, so a run never holds more than the ceiling.
    if (m_outputLimit != 0 &&
        uint64_t{m_stdoutLen} + m_stderrLen + outCount + errCount > m_outputLimit) {
        m_outputLimitHit = true;
        throw OutputLimitExceeded();
    }
    append(m_stdout, m_stdoutSize, m_stdoutLen, out, outCount, false);
    append(m_stderr, m_stderrSize, m_stderrLen, err, errCount, true);
}

void CmdExec::freeStdout() {
    std::free(m_stdout);
    m_stdout = nullptr;
    m_stdoutSize = 0;
    m_stdoutLen = 0;
}

void CmdExec::freeStderr() {
    std::free(m_stderr);
    m_stderr = nullptr;
    m_stderrSize = 0;
    m_stderrLen = 0;
}
