#include <gtest/gtest.h>

#include <fcntl.h>

#include <fstream>

#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::Subprocess;

// The daemon as an administrator runs it: starts, builds its classes in their
// order, survives a refresh, stops cleanly on SIGTERM with status 0.
TEST(Daemon, StartsBuildsItsClassesInOrderAndStopsCleanly) {
    testsupport::TempDir root;
    std::string trace = root / "var/zn/trace/Kor.ORVRM.trace";
    Subprocess d(testsupport::binPath("orvrm/orvrmd"), {}, {"ZN_ROOT=" + root.path()},
                 root / "stderr");
    ASSERT_GT(d.pid(), 0);
    ASSERT_TRUE(testsupport::waitFor([&] {
        return testsupport::readFile(trace).find("entering the controller loop") !=
               std::string::npos;
    })) << testsupport::readFile(root / "stderr");
    d.signal(SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(d.running()) << "a refresh does not stop the daemon";
    d.signal(SIGTERM);
    int status = d.wait();
    ASSERT_TRUE(WIFEXITED(status)) << status << testsupport::readFile(root / "stderr");
    EXPECT_EQ(WEXITSTATUS(status), 0);

    std::string t = testsupport::readFile(trace);
    size_t pos = 0;
    for (const char* cls : {"Kor.OrvCtrl", "Kor.NodeAuthenticate", "Kor.MNNetworkInterface",
                            "Kor.ManagedNode", "Kor.NodeGroup"}) {
        size_t at = t.find(std::string("createRCCP entered for ") + cls, pos);
        ASSERT_NE(at, std::string::npos) << cls << " missing or out of order";
        pos = at;
    }
    EXPECT_NE(t.find("[12] main: exit status 0"), std::string::npos);
}

// A daemon that cannot start says why on standard error and aborts.
TEST(Daemon, UnusableStateRootAbortsWithTheReason) {
    testsupport::TempDir root;
    std::ofstream(root / "var") << "a file where the state directory should be";
    Subprocess d(testsupport::binPath("orvrm/orvrmd"), {}, {"ZN_ROOT=" + root.path()},
                 root / "stderr");
    int status = d.wait();
    ASSERT_NE(status, -1);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    std::string err = testsupport::readFile(root / "stderr");
    EXPECT_EQ(err.rfind("Cannot start resource manager Kor.ORVRM due to exception ", 0), 0u) << err;
    EXPECT_NE(err.find("see trace file"), std::string::npos);
    EXPECT_NE(err.find("Assertion `0' failed."), std::string::npos);
}

}  // namespace
