#include "orvrm/CmdExec.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tarn_base/CException.h"
#include "tests/tarn_base/ScriptTest.h"

namespace {

using namespace std::chrono_literals;

enum Stream { Out, Err };
struct Chunk {
    Stream stream;
    unsigned int n;
    uint32_t capacityAfter;
};

void feed(CmdExec& c, Stream s, const std::string& bytes) {
    auto n = static_cast<unsigned int>(bytes.size());
    if (s == Out) {
        c.outputCapture(bytes.data(), n, "", 0);
    } else {
        c.outputCapture("", 0, bytes.data(), n);
    }
}

TEST(CmdExecGrowthTest, CapacityFollowsTheGrowthRuleChunkByChunk) {
    struct Case {
        const char* name;
        std::vector<Chunk> chunks;
    };
    const Case cases[] = {
        {"256 at once", {{Out, 256, 512}}},
        {"200 then 100", {{Out, 200, 256}, {Out, 100, 512}}},
        {"stdout full to the byte grows", {{Out, 255, 256}, {Out, 1, 512}}},
        {"stderr full to the byte does not", {{Err, 255, 256}, {Err, 1, 256}, {Err, 1, 512}}},
        {"stderr 256 at once", {{Err, 256, 512}}},
        {"stderr 10 then 246", {{Err, 10, 256}, {Err, 246, 256}}},
        {"stdout 10 then 245", {{Out, 10, 256}, {Out, 245, 256}, {Out, 1, 512}}},
        {"large first chunk", {{Out, 1000, 2000}, {Out, 2000, 4000}}},
        {"chunk above twice the size", {{Out, 100, 256}, {Out, 1500, 3256}}},
        {"stdout large chunks", {{Out, 2048, 4096}, {Out, 2048, 8192}, {Out, 2048, 8192}}},
        {"stderr large chunks", {{Err, 2048, 4096}, {Err, 2048, 4096}, {Err, 2048, 8192}}},
        // One step (512) cannot hold 255 + 511 + 1 bytes: it is taken again.
        {"nearly full then a big chunk", {{Out, 255, 256}, {Out, 511, 1024}}},
    };
    for (const Case& c : cases) {
        CmdExec exec;
        std::string expectedOut, expectedErr;
        char fill = 'a';
        for (const Chunk& k : c.chunks) {
            std::string bytes(k.n, fill++);
            feed(exec, k.stream, bytes);
            (k.stream == Out ? expectedOut : expectedErr) += bytes;
            uint32_t cap = k.stream == Out ? exec.stdoutCapacity() : exec.stderrCapacity();
            EXPECT_EQ(cap, k.capacityAfter) << c.name << " after a chunk of " << k.n;
        }
        EXPECT_EQ(exec.stdoutLength(), expectedOut.size()) << c.name;
        EXPECT_EQ(exec.stderrLength(), expectedErr.size()) << c.name;
        EXPECT_EQ(exec.stdoutText() ? std::string(exec.stdoutText()) : "", expectedOut) << c.name;
        EXPECT_EQ(exec.stderrText() ? std::string(exec.stderrText()) : "", expectedErr) << c.name;
    }
}

TEST(CmdExecGrowthTest, BothStreamsInOneChunkAndEmptyChunksAllocateNothing) {
    CmdExec exec;
    exec.outputCapture("ignored", 0, "ignored", 0);
    EXPECT_EQ(exec.stdoutText(), nullptr);
    EXPECT_EQ(exec.stderrText(), nullptr);
    exec.outputCapture("hello", 5, "oops!!!", 7);
    EXPECT_STREQ(exec.stdoutText(), "hello");
    EXPECT_STREQ(exec.stderrText(), "oops!!!");

    exec.freeStdout();
    EXPECT_EQ(exec.stdoutText(), nullptr);
    EXPECT_EQ(exec.stdoutCapacity(), 0U);
    EXPECT_EQ(exec.stdoutLength(), 0U);
    EXPECT_STREQ(exec.stderrText(), "oops!!!");
    exec.freeStderr();
    EXPECT_EQ(exec.stderrText(), nullptr);
    EXPECT_EQ(exec.stderrCapacity(), 0U);
    EXPECT_EQ(exec.stderrLength(), 0U);
}

// Notes the capacities that real output leads to.
class RecordingExec : public CmdExec {
public:
    void outputCapture(const char* o, unsigned int on, const char* e, unsigned int en) override {
        if (failOnOutput) {
            throw tarn_base::CNoMemory();
        }
        CmdExec::outputCapture(o, on, e, en);
        if (on > 0) {
            outCapacities.push_back(stdoutCapacity());
        }
    }
    bool failOnOutput = false;
    std::vector<uint32_t> outCapacities;
};

class CmdExecTest : public testsupport::ScriptTest {
protected:
    void TearDown() override {
        free(out_);
        free(err_);
        ScriptTest::TearDown();
    }
    int execute(CmdExec& exec, const std::string& line) {
        return exec.Execute(line.c_str(), nullptr, tarn_base::CCommand::kCommandLine, &out_, &err_);
    }
    std::string out() const { return out_ ? out_ : "(null)"; }
    std::string err() const { return err_ ? err_ : "(null)"; }

    char* out_ = nullptr;
    char* err_ = nullptr;
};

TEST_F(CmdExecTest, ReturnsTheStatusAndEachStreamsTextOrNullForNone) {
    struct Case {
        std::string body;
        int status;
        std::string out, err;
    };
    const Case cases[] = {
        {"printf out; printf err >&2; exit 3", 3, "out", "err"},
        {"echo only-out", 0, "only-out\n", "(null)"},
        {"echo only-err >&2", 0, "(null)", "only-err\n"},
        {"true", 0, "(null)", "(null)"},
    };
    for (const Case& c : cases) {
        CmdExec exec;
        EXPECT_EQ(execute(exec, script("s", c.body)), c.status) << c.body;
        EXPECT_EQ(out(), c.out) << c.body;
        EXPECT_EQ(err(), c.err) << c.body;
        EXPECT_EQ(exec.stdoutText(), nullptr);  // internal buffers are released
        EXPECT_EQ(exec.stderrText(), nullptr);
        free(out_);
        free(err_);
        out_ = err_ = nullptr;
    }
}

TEST_F(CmdExecTest, MergedStderrAndLiteralMetacharacters) {
    std::string args = script("args", "for a in \"$@\"; do printf '[%s]' \"$a\"; done; echo e >&2");
    std::string marker = dir_.path() + "/pwned";
    CmdExec exec;
    EXPECT_EQ(execute(exec, args + " n1;touch " + marker + " $(touch " + marker + ") 2>&1"), 0);
    EXPECT_EQ(out(), "[n1;touch][" + marker + "][$(touch][" + marker + ")]e\n");
    EXPECT_EQ(err(), "(null)");
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST_F(CmdExecTest, RealOutputGrowsTheBufferByTheSameRule) {
    RecordingExec exec;
    EXPECT_EQ(execute(exec, "printf %0256d 0"), 0);
    EXPECT_EQ(exec.outCapacities, std::vector<uint32_t>{512});
    EXPECT_EQ(out(), std::string(256, '0'));
}

TEST_F(CmdExecTest, FailuresReturnTheStatusAndLeaveTheArgumentsAlone) {
    char sentinel[] = "untouched";
    struct Case {
        const char* name;
        std::string line;
        int status;
    };
    const Case cases[] = {
        {"nothing to run", "  ", -1},
        {"capture fails", "yes", 128 + SIGKILL},
    };
    for (const Case& c : cases) {
        RecordingExec exec;
        exec.failOnOutput = true;
        char* o = sentinel;
        char* e = sentinel;
        EXPECT_EQ(exec.Execute(c.line.c_str(), nullptr, 1, &o, &e), c.status) << c.name;
        EXPECT_EQ(o, sentinel) << c.name;
        EXPECT_EQ(e, sentinel) << c.name;
        EXPECT_EQ(exec.stdoutText(), nullptr);
    }
}

TEST_F(CmdExecTest, MissingProgramAndDeadline) {
    CmdExec missing;
    EXPECT_EQ(execute(missing, dir_.path() + "/no-such-tool -x"), 127);
    EXPECT_EQ(out(), "(null)");
    EXPECT_EQ(err(), dir_.path() + "/no-such-tool: cannot execute: No such file or directory\n");

    CmdExec slow;
    slow.setDeadline(200ms);
    char* o = nullptr;
    char* e = nullptr;
    EXPECT_EQ(slow.Execute("sleep 1000", nullptr, 1, &o, &e), 128 + SIGKILL);
    EXPECT_TRUE(slow.timedOut());
    EXPECT_EQ(o, nullptr);
    EXPECT_EQ(e, nullptr);
}

TEST_F(CmdExecTest, OutputLimitStopsACommandThatWritesTooMuch) {
    struct Case {
        const char* name;
        std::string body;
        uint64_t limit;
        bool hit;
        std::string out;  // when not hit
    };
    const Case cases[] = {
        {"stdout flood", "exec yes", 4096, true, ""},
        {"stderr flood", "exec yes >&2", 4096, true, ""},
        {"both streams count together", "printf %02048d 0; printf %02049d 0 >&2", 4096, true, ""},
        {"exactly the limit", "printf %04096d 0", 4096, false, std::string(4096, '0')},
        {"no limit by default", "printf %0200000d 0", 0, false, std::string(200000, '0')},
    };
    for (const Case& c : cases) {
        CmdExec exec;
        exec.setOutputLimit(c.limit);
        EXPECT_EQ(exec.outputLimit(), c.limit);
        int status = execute(exec, script("s", c.body));
        EXPECT_EQ(exec.outputLimitHit(), c.hit) << c.name;
        EXPECT_EQ(exec.stdoutText(), nullptr) << c.name;
        EXPECT_EQ(exec.stderrText(), nullptr) << c.name;
        if (c.hit) {
            // Output is dropped as for any failed capture; a flood is killed.
            EXPECT_EQ(out(), "(null)") << c.name;
            EXPECT_EQ(err(), "(null)") << c.name;
            if (c.body.rfind("exec yes", 0) == 0) {
                EXPECT_EQ(status, 128 + SIGKILL) << c.name;
            }
        } else {
            EXPECT_EQ(status, 0) << c.name;
            EXPECT_EQ(out(), c.out) << c.name;
            EXPECT_EQ(exec.lastStdoutLength(), c.out.size()) << c.name;
        }
        free(out_);
        free(err_);
        out_ = err_ = nullptr;
        // The next run starts afresh.
        exec.setOutputLimit(0);
        EXPECT_EQ(execute(exec, "true"), 0);
        EXPECT_FALSE(exec.outputLimitHit()) << c.name;
    }
}

TEST_F(CmdExecTest, LengthsOfTheLastRunCountBytesPastANul) {
    CmdExec exec;
    EXPECT_EQ(execute(exec, script("nul", "printf 'a\\000b'; printf 'cd\\000' >&2")), 0);
    ASSERT_NE(out_, nullptr);
    ASSERT_NE(err_, nullptr);
    EXPECT_EQ(exec.lastStdoutLength(), 3U);
    EXPECT_EQ(exec.lastStderrLength(), 3U);
    EXPECT_EQ(std::string(out_, 3), std::string("a\0b", 3));
    EXPECT_EQ(std::string(err_, 3), std::string("cd\0", 3));
    free(out_);
    free(err_);
    out_ = err_ = nullptr;
    EXPECT_EQ(execute(exec, "true"), 0);
    EXPECT_EQ(exec.lastStdoutLength(), 0U);
    EXPECT_EQ(exec.lastStderrLength(), 0U);
}

}  // namespace
