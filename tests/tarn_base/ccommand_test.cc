#include "tarn_base/CCommand.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tarn_base/CException.h"
#include "tests/support/Subprocess.h"
#include "tests/tarn_base/ScriptTest.h"

namespace {

using namespace std::chrono_literals;
using tarn_base::CCommand;

// Keeps what the runner hands over; can fail on the first chunk.
class Capture : public CCommand {
public:
    explicit Capture(unsigned int size = 2048, bool keepText = true)
        : CCommand(size), keepText_(keepText) {}
    void outputCapture(const char* o, unsigned int on, const char* e, unsigned int en) override {
        if (failOnOutput) {
            throw tarn_base::CNoMemory();
        }
        outBytes += on;
        errBytes += en;
        largestChunk = std::max({largestChunk, on, en});
        if (keepText_) {
            out.append(o, on);
            err.append(e, en);
        }
    }
    void commandComplete(int status) override { completed = status; }
    void commandError(std::exception_ptr e) override { failed = e; }

    bool failOnOutput = false;
    std::string out, err;
    size_t outBytes = 0, errBytes = 0;
    unsigned int largestChunk = 0;
    int completed = INT_MIN;
    std::exception_ptr failed;

private:
    bool keepText_;
};

// Gone or a zombie: either way no longer running.
bool processEnded(pid_t pid) {
    return testsupport::waitFor([pid] {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        if (!std::getline(stat, line)) {
            return true;
        }
        auto paren = line.rfind(')');
        return paren != std::string::npos && line.size() > paren + 2 && line[paren + 2] == 'Z';
    });
}

class CCommandTest : public testsupport::ScriptTest {
protected:
    pid_t pidFrom(const std::string& file) {
        std::ifstream in(dir_ / file);
        pid_t pid = 0;
        in >> pid;
        return pid;
    }
    static int runLine(CCommand& c, const std::string& line, const char* user = nullptr) {
        int status = INT_MIN;
        c.runUserCommandWait(line.c_str(), nullptr, user, &status, CCommand::kCommandLine);
        return status;
    }
};

TEST_F(CCommandTest, CommandLineWordsReachTheProgramLiterallyWithoutAShell) {
    std::string args = script("args", "for a in \"$@\"; do printf '[%s]\\n' \"$a\"; done");
    std::string marker = dir_.path() + "/pwned";
    struct Case {
        std::string words;
        std::string expected;
    };
    const Case cases[] = {
        {" a \t b  ", "[a]\n[b]\n"},
        {"node;touch " + marker, "[node;touch]\n[" + marker + "]\n"},
        {"$(touch " + marker + ")", "[$(touch]\n[" + marker + ")]\n"},
        {"`touch " + marker + "`", "[`touch]\n[" + marker + "`]\n"},
        {"a|b >" + marker + " * ~ $HOME 'q' \"d\"",
         "[a|b]\n[>" + marker + "]\n[*]\n[~]\n[$HOME]\n['q']\n[\"d\"]\n"},
        {"2>&1 x", "[2>&1]\n[x]\n"},  // only a last word redirects
    };
    for (const Case& c : cases) {
        Capture cap;
        EXPECT_EQ(runLine(cap, args + " " + c.words), 0) << c.words;
        EXPECT_EQ(cap.out, c.expected) << c.words;
        EXPECT_EQ(cap.completed, 0);
    }
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST_F(CCommandTest, ArgumentVectorIsPassedAsGivenAndProgramsAreFoundAlongPath) {
    std::string args = script("args", "for a in \"$@\"; do printf '[%s]\\n' \"$a\"; done");
    char a0[] = "args", a1[] = "x y", a2[] = "$(id)";
    char* argv[] = {a0, a1, a2, nullptr};
    Capture cap;
    int status = INT_MIN;
    cap.runUserCommandWait(args.c_str(), argv, nullptr, &status, CCommand::kCommandLine);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(cap.out, "[x y]\n[$(id)]\n");

    Capture viaPath;
    EXPECT_EQ(runLine(viaPath, "printf %s-%s hello world"), 0);
    EXPECT_EQ(viaPath.out, "hello-world");
}

TEST_F(CCommandTest, StderrIsSeparateUnlessTheLastWordMergesIt) {
    std::string both = script("both", "echo out; echo err >&2");
    Capture separate;
    EXPECT_EQ(runLine(separate, both), 0);
    EXPECT_EQ(separate.out, "out\n");
    EXPECT_EQ(separate.err, "err\n");

    Capture merged;
    EXPECT_EQ(runLine(merged, both + " 2>&1"), 0);
    EXPECT_EQ(merged.out, "out\nerr\n");
    EXPECT_EQ(merged.err, "");
}

TEST_F(CCommandTest, StatusIsTheExitCodeOr128PlusTheSignal) {
    struct Case {
        const char* body;
        int status;
    };
    for (const Case& c :
         {Case{"exit 0", 0}, Case{"exit 1", 1}, Case{"exit 3", 3}, Case{"exit 255", 255},
          Case{"kill -TERM $$", 128 + SIGTERM}, Case{"kill -KILL $$", 128 + SIGKILL}}) {
        Capture cap;
        EXPECT_EQ(runLine(cap, script("exit", c.body)), c.status) << c.body;
        EXPECT_EQ(cap.completed, c.status);
    }
}

TEST_F(CCommandTest, ProgramThatCannotRunGives127Or126AndSaysWhyOnStderr) {
    std::string plain = dir_.path() + "/not-executable";
    std::ofstream(plain) << "data\n";
    struct Case {
        std::string line;
        int status;
        std::string message;
        bool merged;
    };
    const Case cases[] = {
        {dir_.path() + "/missing arg", 127,
         dir_.path() + "/missing: cannot execute: No such file or directory\n", false},
        {"no-such-command-anywhere", 127,
         "no-such-command-anywhere: cannot execute: No such file or directory\n", false},
        {plain, 126, plain + ": cannot execute: Permission denied\n", false},
        {dir_.path() + "/missing 2>&1", 127,
         dir_.path() + "/missing: cannot execute: No such file or directory\n", true},
    };
    for (const Case& c : cases) {
        Capture cap;
        EXPECT_EQ(runLine(cap, c.line), c.status) << c.line;
        EXPECT_EQ(c.merged ? cap.out : cap.err, c.message);
        EXPECT_EQ(c.merged ? cap.err : cap.out, "");
        EXPECT_EQ(cap.completed, c.status);
    }
}

TEST_F(CCommandTest, FloodingOutputOnBothStreamsArrivesWholeInBoundedChunks) {
    Capture cap(2048, false);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(runLine(cap, script("flood",
                                  "head -c 52428800 /dev/zero & head -c 3000000 "
                                  "/dev/zero >&2; wait")),
              0);
    EXPECT_EQ(cap.outBytes, 52428800U);
    EXPECT_EQ(cap.errBytes, 3000000U);
    EXPECT_LE(cap.largestChunk, 2048U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);

    Capture small(16);
    EXPECT_EQ(runLine(small, "printf %0100d 7"), 0);
    EXPECT_EQ(small.out.size(), 100U);
    EXPECT_LE(small.largestChunk, 16U);
}

TEST_F(CCommandTest, GrandchildHoldingStdoutIsKilledAfterTheGraceAndTheCallReturns) {
    std::string s =
        script("leaves", "sleep 1000 & echo $! > " + dir_.path() + "/bg.pid\necho done");
    Capture cap;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(runLine(cap, s), 0);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(cap.out, "done\n");
    EXPECT_FALSE(cap.timedOut());
    EXPECT_GE(took, CCommand::kExitDrainGrace);
    EXPECT_LT(took, CCommand::kExitDrainGrace + 10s);
    EXPECT_TRUE(processEnded(pidFrom("bg.pid")));
}

TEST_F(CCommandTest, DeadlineKillsTheWholeGroup) {
    struct Case {
        const char* name;
        std::string body;
    };
    const Case cases[] = {
        {"output open",
         "sleep 1000 & echo $! > " + dir_.path() + "/bg.pid\necho started\nsleep 1000"},
        {"output closed",
         "sleep 1000 & echo $! > " + dir_.path() + "/bg.pid\nexec >&- 2>&-\nsleep 1000"},
    };
    for (const Case& c : cases) {
        Capture cap;
        cap.setDeadline(300ms);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(runLine(cap, script("slow", c.body)), 128 + SIGKILL) << c.name;
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << c.name;
        EXPECT_TRUE(cap.timedOut()) << c.name;
        EXPECT_TRUE(processEnded(pidFrom("bg.pid"))) << c.name;
    }
    Capture quick;
    EXPECT_EQ(quick.deadline(), CCommand::kDefaultDeadline);
    EXPECT_EQ(runLine(quick, "true"), 0);
    EXPECT_FALSE(quick.timedOut());
}

TEST_F(CCommandTest, FailingCaptureKillsAndReapsTheCommandThenRethrows) {
    Capture cap;
    cap.failOnOutput = true;
    int status = INT_MIN;
    EXPECT_THROW(cap.runUserCommandWait("yes", nullptr, nullptr, &status, 0), tarn_base::CNoMemory);
    EXPECT_EQ(status, 128 + SIGKILL);
    ASSERT_NE(cap.failed, nullptr);
    EXPECT_THROW(std::rethrow_exception(cap.failed), tarn_base::CNoMemory);
    EXPECT_EQ(cap.completed, INT_MIN);
}

TEST_F(CCommandTest, NothingToRunThrowsWithStatusMinusOne) {
    for (const char* line : {"", "   \t ", "2>&1", " 2>&1 "}) {
        Capture cap;
        int status = 0;
        EXPECT_THROW(
            cap.runUserCommandWait(line, nullptr, nullptr, &status, CCommand::kCommandLine),
            tarn_base::CErrorException)
            << '"' << line << '"';
        EXPECT_EQ(status, CCommand::kNotStarted);
    }
    Capture cap;
    int status = 0;
    EXPECT_THROW(cap.runUserCommandWait(nullptr, nullptr, nullptr, &status, 0),
                 tarn_base::CErrorException);
    EXPECT_EQ(status, CCommand::kNotStarted);
}

TEST_F(CCommandTest, ChildGetsNullStdinDefaultSignalsAndNoStrayDescriptors) {
    int stray = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
    ASSERT_GE(stray, 0);
    std::string probe = script("probe", "cat; test -e /proc/$$/fd/" + std::to_string(stray) +
                                            " && echo leaked || echo clean");
    Capture fds;
    EXPECT_EQ(runLine(fds, probe), 0);
    close(stray);
    EXPECT_EQ(fds.out, "clean\n");

    // From a body thread, whose asynchronous signals are blocked, in a process
    // that ignores one: the command starts with neither.
    std::string line = "grep -E ^Sig(Blk|Ign) /proc/self/status";
    CCommand::Request req;
    req.path = line.c_str();
    req.flags = CCommand::kCommandLine;
    Capture sig;
    auto old = signal(SIGUSR2, SIG_IGN);
    sig.start(&req);
    sig.join();
    signal(SIGUSR2, old);
    EXPECT_EQ(sig.exception(), nullptr);
    EXPECT_EQ(req.status, 0);
    EXPECT_EQ(sig.out, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(CCommandTest, RootRunsAsTheNamedUserAndRefusesAnUnknownOne) {
    if (geteuid() != 0) {
        Capture cap;
        EXPECT_EQ(runLine(cap, "id -u", "root"), 0);
        EXPECT_EQ(cap.out, std::to_string(geteuid()) + "\n");
        return;
    }
    Capture unknown;
    int status = 0;
    try {
        unknown.runUserCommandWait("id -u", nullptr, "no-such-user-zq", &status,
                                   CCommand::kCommandLine);
        ADD_FAILURE() << "an unknown user was accepted";
    } catch (const tarn_base::CErrorException& e) {
        EXPECT_NE(std::string(e.what()).find("\"no-such-user-zq\""), std::string::npos);
    }
    EXPECT_EQ(status, CCommand::kNotStarted);

    Capture asRoot;
    EXPECT_EQ(runLine(asRoot, "id -u", "root"), 0);
    EXPECT_EQ(asRoot.out, "0\n");

    passwd* nobody = getpwnam("nobody");
    if (nobody == nullptr) {
        GTEST_SKIP() << "no user nobody here";
    }
    Capture asNobody;
    EXPECT_EQ(runLine(asNobody, "id -u", "nobody"), 0);
    EXPECT_EQ(asNobody.out, std::to_string(nobody->pw_uid) + "\n");

    // A process that is not root runs the command as itself, even when asked for root.
    uid_t uid = nobody->pw_uid;
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(nobody->pw_gid) != 0 || setuid(uid) != 0) {
            _exit(2);
        }
        Capture c;
        _exit(runLine(c, "id -u", "root") == 0 && c.out == std::to_string(uid) + "\n" ? 0 : 1);
    }
    int ws = 0;
    ASSERT_EQ(waitpid(pid, &ws, 0), pid);
    EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0) << ws;
}

}  // namespace
