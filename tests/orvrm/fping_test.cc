#include "orvrm/FpingClass.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orvrm/ORVRMLog.h"
#include "platform/paths.h"
#include "tests/support/FakeClog.h"
#include "tests/support/TempDir.h"
#include "tests/tarn_base/ScriptTest.h"

namespace {

using namespace std::chrono_literals;
using Names = std::vector<std::string>;

// The names of a change list, which is freed.
Names drain(strent* list) {
    Names names;
    for (const strent* s = list; s != nullptr; s = s->next) {
        names.emplace_back(s->str);
    }
    freestrlst(list);
    return names;
}

// A printf command that writes exactly these bytes (every byte but letters
// and digits as an octal escape, so NULs, quotes and '%' pass unharmed).
std::string printfBytes(const std::string& bytes, bool toStderr) {
    std::string cmd = "printf '";
    for (unsigned char c : bytes) {
        if (std::isalnum(c) != 0) {
            cmd.push_back(static_cast<char>(c));
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\%03o", c);
            cmd += esc;
        }
    }
    return cmd + "'" + (toStderr ? " >&2" : "");
}

class FpingTest : public testsupport::ScriptTest {
protected:
    void SetUp() override {
        ScriptTest::SetUp();
        orvrm::closeLog();
    }
    void TearDown() override {
        orvrm::closeLog();
        ScriptTest::TearDown();
    }

    std::string rooted(const std::string& fixedPath) const { return root_.path() + fixedPath; }
    std::string read(const std::string& path) const {
        std::ifstream in(path, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool exists(const std::string& path) const { return std::filesystem::exists(path); }
    std::string listFile() const { return read(rooted("/tmp/fpinglist")); }

    // Installs a fake program where the poller looks for it. Each run notes
    // itself in <root>/runs, its arguments one a line in <root>/argv and the
    // list file it was given in <root>/seen, then runs `body`.
    void fakeFping(const std::string& body) {
        const std::string path = rooted("/usr/sbin/fping");
        ASSERT_EQ(zn::paths::ensureParentDir(path), 0);
        const std::string& r = root_.path();
        std::ofstream(path) << "#!/bin/sh\n"
                            << "echo run >> '" << r << "/runs'\n"
                            << "printf '%s\\n' \"$@\" > '" << r << "/argv'\n"
                            << "cat \"${1#-f}\" > '" << r << "/seen' 2>/dev/null\n"
                            << body << "\n";
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }
    // A fake that writes these bytes on stdout, then these on stderr, and exits.
    void fakeReport(const std::string& out, const std::string& err, int exitStatus) {
        std::string body;
        if (!out.empty()) {
            body += printfBytes(out, false) + "\n";
        }
        if (!err.empty()) {
            body += printfBytes(err, true) + "\n";
        }
        fakeFping(body + "exit " + std::to_string(exitStatus));
    }
    int runs() const {
        std::string text = read(root_ / "runs");
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }
    std::vector<int> statuses(FpingClass& f, const Names& names) {
        std::vector<int> s;
        for (const std::string& n : names) {
            s.push_back(f.getHostStatus(n.c_str()));
        }
        return s;
    }
    // Adds the hosts and brings every one to "reachable" through one clean run.
    void addReachable(FpingClass& f, const Names& names) {
        for (const std::string& n : names) {
            ASSERT_EQ(f.addHost(n.c_str()), 0) << n;
        }
        fakeReport("", "", 0);
        ASSERT_EQ(drain(f.updateStatusAndRetChanges()), names);
    }

    testsupport::TempDir root_{true};
    testsupport::ScopedFakeClog log_;
};

TEST_F(FpingTest, EmptyListRunsNothingAndTheConstructorWritesNoFile) {
    fakeReport("nodeA\n", "", 1);
    FpingClass f;
    EXPECT_FALSE(exists(f.listFileName()));
    EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
    EXPECT_EQ(runs(), 0);
    EXPECT_EQ(f.getHostStatus("nodeA"), 127);  // unlisted
    EXPECT_EQ(f.isHostInList("nodeA"), 0);
}

TEST_F(FpingTest, CommandLineHasTwoBlanksAndTheProgramGetsTheListFile) {
    fakeReport("", "", 0);
    FpingClass f;
    EXPECT_EQ(f.listFileName(), rooted("/tmp/fpinglist"));
    EXPECT_EQ(f.programPath(), rooted("/usr/sbin/fping"));
    EXPECT_EQ(f.commandLine(),
              rooted("/usr/sbin/fping") + "  -f" + rooted("/tmp/fpinglist") + " -t500 -u");
    EXPECT_EQ(f.setPingTimeOut(250), 0);
    EXPECT_EQ(f.commandLine(),
              rooted("/usr/sbin/fping") + "  -f" + rooted("/tmp/fpinglist") + " -t250 -u");
    ASSERT_EQ(f.addHosts(const_cast<char*>("nodeA nodeB"), ' '), 0);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), (Names{"nodeA", "nodeB"}));
    EXPECT_EQ(runs(), 1);
    EXPECT_EQ(read(root_ / "argv"), "-f" + rooted("/tmp/fpinglist") + "\n-t250\n-u\n");
    EXPECT_EQ(read(root_ / "seen"), "nodeA\nnodeB\n");
}

TEST_F(FpingTest, ReportOfNodeAWithExitOneFromUnknown) {
    FpingClass f;
    f.addHost("nodeA");
    f.addHost("nodeB");
    EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{127, 127}));
    fakeReport("nodeA\n", "", 1);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), (Names{"nodeA", "nodeB"}));
    EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{0, 1}));
    // The same report again changes nothing.
    EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
    // Exit 0 with an empty report: only nodeA was not reachable.
    fakeReport("", "", 0);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), Names{"nodeA"});
    EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{1, 1}));
    EXPECT_EQ(runs(), 3);
    EXPECT_TRUE(log_.capture->records.empty());
}

TEST_F(FpingTest, ExitStatusDecidesWhetherTheReportCounts) {
    struct Case {
        const char* name;
        std::string body;
        Names changed;
        std::vector<int> after;  // nodeA, nodeB
    };
    const Case cases[] = {
        {"exit 0", "echo nodeA; exit 0", {"nodeA"}, {0, 1}},
        {"exit 1", "echo nodeA; exit 1", {"nodeA"}, {0, 1}},
        {"exit 2", "echo nodeA; exit 2", {"nodeA"}, {0, 1}},
        {"exit 3", "echo nodeA; exit 3", {"nodeA", "nodeB"}, {127, 127}},
        {"exit 4", "echo nodeA; exit 4", {"nodeA", "nodeB"}, {127, 127}},
        {"exit 255", "exit 255", {"nodeA", "nodeB"}, {127, 127}},
        {"killed by a signal", "kill -SEGV $$", {"nodeA", "nodeB"}, {127, 127}},
        {"exists but cannot run", "", {"nodeA", "nodeB"}, {127, 127}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FpingClass f;
        addReachable(f, {"nodeA", "nodeB"});
        if (c.body.empty()) {
            // Executable by mode, yet not a program the system can start.
            std::ofstream(rooted("/usr/sbin/fping")) << "\x7f"
                                                        "ELF garbage";
        } else {
            fakeFping(c.body);
        }
        EXPECT_EQ(drain(f.updateStatusAndRetChanges()), c.changed);
        EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), c.after);
        EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr) << "reported twice";
    }
}

TEST_F(FpingTest, AbsentOrNotExecutableProgramMakesAllUnknownOnceAndSaysNothing) {
    const char* cases[] = {"absent", "not executable"};
    for (const char* c : cases) {
        SCOPED_TRACE(c);
        FpingClass f;
        addReachable(f, {"nodeA", "nodeB"});
        const int ran = runs();
        const std::string program = rooted("/usr/sbin/fping");
        if (std::string(c) == "absent") {
            ASSERT_EQ(unlink(program.c_str()), 0);
        } else {
            ASSERT_EQ(chmod(program.c_str(), 0644), 0);
        }
        EXPECT_EQ(drain(f.updateStatusAndRetChanges()), (Names{"nodeA", "nodeB"}));
        EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{127, 127}));
        EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
        EXPECT_EQ(runs(), ran);
    }
    EXPECT_TRUE(log_.capture->records.empty());
}

// What the report holds decides who is unreachable; hosts nodeA, nodeB, nodeC
// and fe80::1 start reachable. Arbitrary bytes are taken in stride.
TEST_F(FpingTest, ReportLinesNameTheUnreachableHosts) {
    struct Case {
        const char* name;
        std::string out, err;
        int exitStatus;
        std::set<std::string> unreachable;
    };
    const std::string huge(60'000, 'x');
    const Case cases[] = {
        {"one name a line", "nodeA\nnodeC\n", "", 1, {"nodeA", "nodeC"}},
        {"address not found", "", "nodeC address not found\n", 2, {"nodeC"}},
        {"address not found on stdout", "nodeB address not found\n", "", 2, {"nodeB"}},
        {"resolver failure", "", "nodeC: Name or service not known\n", 2, {"nodeC"}},
        {"resolver failure, other wording",
         "nodeA\n",
         "nodeB: Temporary failure in name resolution\n",
         2,
         {"nodeA", "nodeB"}},
        {"resolver failure of an unlisted name", "", "other: Name or service not known\n", 2, {}},
        {"resolver failure of an address with colons",
         "",
         "fe80::1: Name or service not known\n",
         2,
         {"fe80::1"}},
        {"a colon without a blank is no reason", "", "nodeA:x\n", 2, {}},
        {"colon form and phrase together", "", "nodeB: address not found\n", 2, {"nodeB"}},
        {"stdout then stderr", "nodeA\n", "nodeB\n", 1, {"nodeA", "nodeB"}},
        {"last line without a line feed", "nodeA", "", 1, {"nodeA"}},
        {"stdout without a line feed before stderr", "nodeA", "nodeB", 1, {"nodeA", "nodeB"}},
        {"a NUL ends a line",
         std::string("nodeA\0nodeB", 11),
         std::string("\0nodeC\0", 7),
         1,
         {"nodeA", "nodeB", "nodeC"}},
        {"NULs alone", std::string("\0\0", 2), "", 1, {}},
        {"blank lines alone", "\n\n\n", "", 1, {}},
        {"names match byte for byte", "nodeA \nnodeB\r\nnodeAB\nnode\nNODEC\n", "", 1, {}},
        {"a huge line", huge + "\nnodeB\n", "", 1, {"nodeB"}},
        {"high bytes", "\xff\xfe\x80nodeA\n\xff\n", "", 1, {}},
    };
    const Names hosts{"nodeA", "nodeB", "nodeC", "fe80::1"};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FpingClass f;
        addReachable(f, hosts);
        fakeReport(c.out, c.err, c.exitStatus);
        Names changed;
        for (const std::string& h : hosts) {
            if (c.unreachable.count(h) != 0) {
                changed.push_back(h);
            }
        }
        EXPECT_EQ(drain(f.updateStatusAndRetChanges()), changed);
        for (const std::string& h : hosts) {
            EXPECT_EQ(f.getHostStatus(h.c_str()), c.unreachable.count(h) != 0 ? 0 : 1) << h;
        }
    }
    EXPECT_TRUE(log_.capture->records.empty());
}

TEST_F(FpingTest, ListFileFollowsAddsAndRemovesInListOrder) {
    FpingClass f;
    EXPECT_EQ(f.addHost("nodeA"), 0);
    EXPECT_EQ(listFile(), "nodeA\n");
    EXPECT_EQ(f.addHosts(const_cast<char*>("nodeB,nodeC,nodeA"), ','), 0);
    EXPECT_EQ(listFile(), "nodeA\nnodeB\nnodeC\nnodeA\n");
    EXPECT_EQ(f.addHost("nodeD"), 0);

    // A name listed twice goes twice; so does the tail.
    EXPECT_EQ(f.removeHost(const_cast<char*>("nodeA")), 0);
    EXPECT_EQ(listFile(), "nodeB\nnodeC\nnodeD\n");
    EXPECT_EQ(f.isHostInList("nodeA"), 0);
    EXPECT_EQ(f.removeHost("nodeD"), 0);
    EXPECT_EQ(f.addHost("nodeE"), 0);
    EXPECT_EQ(listFile(), "nodeB\nnodeC\nnodeE\n");

    // An unknown name returns 0 and leaves the file alone.
    std::ofstream(f.listFileName()) << "marker";
    EXPECT_EQ(f.removeHost("nosuch"), 0);
    EXPECT_EQ(f.removeHost(static_cast<char*>(nullptr)), 0);
    EXPECT_EQ(listFile(), "marker");

    // Emptied and filled again.
    EXPECT_EQ(f.removeHost("nodeB"), 0);
    EXPECT_EQ(f.removeHost("nodeE"), 0);
    EXPECT_EQ(f.removeHost("nodeC"), 0);
    EXPECT_EQ(listFile(), "");
    EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
    EXPECT_EQ(f.addHost("nodeF"), 0);
    EXPECT_EQ(listFile(), "nodeF\n");
    EXPECT_EQ(f.isHostInList("nodeF"), 1);
    EXPECT_EQ(f.getHostStatus("nodeF"), 127);

    // Nothing but the list file is left beside it.
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(rooted("/tmp"))) {
        (void)e;
        ++files;
    }
    EXPECT_EQ(files, 1);
}

TEST_F(FpingTest, NamesThatCannotStandAsOneLineAreRefused) {
    struct Case {
        const char* name;
        const char* host;
    };
    const Case cases[] = {
        {"empty", ""},          {"blank inside", "node A"}, {"line feed", "nodeA\nnodeB"},
        {"tab", "node\tA"},     {"comment", "#nodeA"},      {"carriage return", "nodeA\r"},
        {"delete", "node\x7f"},
    };
    FpingClass f;
    ASSERT_EQ(f.addHost("good"), 0);
    for (const Case& c : cases) {
        EXPECT_EQ(f.addHost(c.host), -1) << c.name;
        EXPECT_EQ(f.isHostInList(c.host), 0) << c.name;
    }
    EXPECT_EQ(f.addHost(static_cast<char*>(nullptr)), -1);
    EXPECT_EQ(listFile(), "good\n");
    // In a list, the others still go in.
    EXPECT_EQ(f.addHosts(const_cast<char*>("a,,b,#c,d e"), ','), -1);
    EXPECT_EQ(listFile(), "good\na\nb\n");
    EXPECT_EQ(f.addHosts(static_cast<char*>(nullptr), ','), 0);
    EXPECT_EQ(f.addHosts(static_cast<strent*>(nullptr)), 0);
    EXPECT_EQ(listFile(), "good\na\nb\n");
}

TEST_F(FpingTest, DestructorRemovesTheListFile) {
    std::string path;
    {
        FpingClass f;
        f.addHost("nodeA");
        path = f.listFileName();
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
}

TEST_F(FpingTest, CheckUserHidesTheListButKeepsTheFile) {
    fakeReport("", "", 0);
    FpingClass f;
    f.addHost("nodeA");
    f.addHost("nodeB");
    EXPECT_EQ(f.checkUser(), geteuid() == 0 ? 0 : -1);
    EXPECT_EQ(f.isHostInList("nodeA"), 0);
    EXPECT_EQ(f.getHostStatus("nodeB"), 127);
    EXPECT_EQ(listFile(), "nodeA\nnodeB\n");
    EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
    EXPECT_EQ(runs(), 0);
    EXPECT_EQ(f.removeHost("nodeA"), 0);
    EXPECT_EQ(listFile(), "nodeA\nnodeB\n");
    // The next add starts a new list.
    EXPECT_EQ(f.addHost("nodeC"), 0);
    EXPECT_EQ(listFile(), "nodeC\n");
    EXPECT_EQ(f.checkUser(), geteuid() == 0 ? 0 : -1);
    EXPECT_EQ(f.checkUser(), geteuid() == 0 ? 0 : -1);
    EXPECT_EQ(f.addHost("nodeD"), 0);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), Names{"nodeD"});
    EXPECT_EQ(read(root_ / "seen"), "nodeD\n");
}

TEST_F(FpingTest, FloodingProgramIsStoppedAtTheCeiling) {
    struct Case {
        const char* name;
        const char* body;
    };
    const Case cases[] = {
        {"stdout", "exec yes nodeA"},
        {"stderr", "exec yes nodeB >&2"},
        {"both, from a child", "yes nodeA & yes nodeB >&2"},
        {"one long line", "exec tr '\\000' x < /dev/zero"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log_.capture->records.clear();
        FpingClass f;
        addReachable(f, {"nodeA", "nodeB"});
        fakeFping(c.body);
        EXPECT_EQ(drain(f.updateStatusAndRetChanges()), (Names{"nodeA", "nodeB"}));
        EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{127, 127}));
        ASSERT_EQ(log_.capture->records.size(), 1u);
        EXPECT_EQ(log_.capture->records[0].msgNum, 49);
        EXPECT_EQ(log_.capture->records[0].text,
                  "2655-049 The following error message was returned by function "
                  "FpingClass::updateStatusAndRetChanges: " +
                      rooted("/usr/sbin/fping") +
                      " wrote more than 66560 bytes and was stopped; every host's status is "
                      "unknown.");
    }
}

TEST_F(FpingTest, OutputJustBelowTheCeilingIsRead) {
    FpingClass f;
    addReachable(f, {"nodeA", "nodeB"});
    // 66560 bytes in all: filler lines, then the report line.
    const std::string filler(66560 - 6 - 1, 'x');
    fakeReport(filler + "\n", "nodeA\n", 1);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), Names{"nodeA"});
    EXPECT_TRUE(log_.capture->records.empty());
}

TEST_F(FpingTest, HangingProgramIsKilledAtTheDeadline) {
    FpingClass f;
    addReachable(f, {"nodeA", "nodeB"});
    fakeFping("echo nodeA; exec sleep 600");
    f.setRunDeadline(300ms);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()), (Names{"nodeA", "nodeB"}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_EQ(statuses(f, {"nodeA", "nodeB"}), (std::vector<int>{127, 127}));
    ASSERT_EQ(log_.capture->records.size(), 1u);
    EXPECT_NE(log_.capture->records[0].text.find(rooted("/usr/sbin/fping") +
                                                 " did not end within 300 ms and was stopped"),
              std::string::npos)
        << log_.capture->records[0].text;
}

TEST_F(FpingTest, DeadlineAndCeilingGrowWithTheList) {
    using std::chrono::milliseconds;
    struct Case {
        size_t hosts;
        int timeOut;
        milliseconds deadline;
    };
    const Case cases[] = {
        {0, 500, milliseconds(65'000)},
        {1, 500, milliseconds(65'050)},
        {10'000, 500, milliseconds(565'000)},
        {10, -20, milliseconds(60'500)},
        {10, 2'000'000'000, milliseconds(3'600'000)},
        {~size_t{0}, 500, milliseconds(3'600'000)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FpingClass::defaultRunDeadline(c.hosts, c.timeOut), c.deadline)
            << c.hosts << " hosts, " << c.timeOut << " ms";
    }
    EXPECT_EQ(FpingClass::outputLimit(0), 65'536u);
    EXPECT_EQ(FpingClass::outputLimit(2), 66'560u);
    EXPECT_EQ(FpingClass::outputLimit(10'000), 65'536u + 5'120'000u);
}

// The program runs without the host list locked: a host added meanwhile is
// missing from that run's file, and, not being named, counts as reachable.
TEST_F(FpingTest, HostAddedDuringARunIsJudgedByThatPoll) {
    FpingClass f;
    f.addHost("nodeA");
    const std::string go = root_ / "go";
    fakeFping("while [ ! -e '" + go + "' ]; do sleep 0.02; done; echo nodeA; exit 1");
    strent* changes = nullptr;
    std::thread poll([&] { changes = f.updateStatusAndRetChanges(); });
    while (!exists(root_ / "seen")) {
        std::this_thread::sleep_for(10ms);
    }
    int addResult = -2;
    std::thread add([&] { addResult = f.addHost("late"); });
    while (f.isHostInList("late") == 0) {
        std::this_thread::sleep_for(10ms);
    }
    std::ofstream(go) << "";
    poll.join();
    add.join();
    EXPECT_EQ(drain(changes), (Names{"nodeA", "late"}));
    EXPECT_EQ(statuses(f, {"nodeA", "late"}), (std::vector<int>{0, 1}));
    EXPECT_EQ(read(root_ / "seen"), "nodeA\n");
    EXPECT_EQ(addResult, 0);
    EXPECT_EQ(listFile(), "nodeA\nlate\n");
}

TEST_F(FpingTest, RealProgramSeesLoopbackAndMissesAnInvalidName) {
    std::string real;
    for (const char* p : {"/usr/sbin/fping", "/usr/bin/fping"}) {
        if (access(p, X_OK) == 0) {
            real = p;
            break;
        }
    }
    if (real.empty()) {
        GTEST_SKIP() << "no fping installed";
    }
    {
        CmdExec probe;
        char* out = nullptr;
        char* err = nullptr;
        int status = probe.Execute((real + " -t500 127.0.0.1").c_str(), nullptr, 1, &out, &err);
        std::string why = err != nullptr ? err : "";
        free(out);
        free(err);
        if (status != 0) {
            GTEST_SKIP() << "fping cannot ping loopback here (status " << status << "): " << why;
        }
    }
    const std::string program = rooted("/usr/sbin/fping");
    ASSERT_EQ(zn::paths::ensureParentDir(program), 0);
    ASSERT_EQ(symlink(real.c_str(), program.c_str()), 0);

    FpingClass f;
    ASSERT_EQ(f.addHosts(const_cast<char*>("127.0.0.1,127.0.0.2,nosuchhost.invalid"), ','), 0);
    EXPECT_EQ(drain(f.updateStatusAndRetChanges()),
              (Names{"127.0.0.1", "127.0.0.2", "nosuchhost.invalid"}));
    EXPECT_EQ(statuses(f, {"127.0.0.1", "127.0.0.2", "nosuchhost.invalid"}),
              (std::vector<int>{1, 1, 0}));
    EXPECT_EQ(f.updateStatusAndRetChanges(), nullptr);
    EXPECT_TRUE(log_.capture->records.empty());
}

}  // namespace
