// znpex watch against the real service and the test manager: it prints the
// events (JSON lines), stops after --count events or on SIGTERM with status
// 0, and fails with the service's text for an expression that does not
// compile.
#include <fcntl.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "tests/znpex_watch/PowerManager.h"
#include "znpex/client/px_client.h"

namespace {

using testsupport::binPath;
using testsupport::readFile;
using testsupport::Subprocess;
using testsupport::TempDir;

class WatchCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string dst = zn::paths::resolve(zn::paths::kAclDefaultFile);
        std::filesystem::create_directories(std::filesystem::path(dst).parent_path());
        std::filesystem::copy_file(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls", dst);
        service_ = std::make_unique<Subprocess>(binPath("znpex/server/znpexd"),
                                                std::vector<std::string>{"--no-tcp"},
                                                std::vector<std::string>{}, root_ / "znpexd.err");
        manager_.connect();
        ASSERT_TRUE(
            testsupport::waitFor([this] { return manager_.connected(); }, std::chrono::seconds(20)))
            << readFile(root_ / "znpexd.err");
    }
    // znpex with `args`, standard output to out.txt, errors to err.txt.
    std::unique_ptr<Subprocess> znpex(const std::string& args) {
        std::string cmd = "exec '" + binPath("znpex/cli/znpex") + "' " + args + " > '" +
                          std::string(root_ / "out.txt") + "'";
        return std::make_unique<Subprocess>("/bin/sh", std::vector<std::string>{"-c", cmd},
                                            std::vector<std::string>{}, root_ / "err.txt");
    }
    std::string out() { return readFile(root_ / "out.txt"); }
    std::string err() { return readFile(root_ / "err.txt"); }

    TempDir root_{true};
    std::unique_ptr<Subprocess> service_;
    watchtest::PowerManager manager_;
};

TEST_F(WatchCli, PrintsEventsUntilTheCount) {
    auto p = znpex("-o json watch Test.Power -e 'PowerStatus==1' -a Hostname --count 2");
    ASSERT_TRUE(
        testsupport::waitFor([&] { return manager_.monitored() == 2; }, std::chrono::seconds(10)))
        << err();
    manager_.setPower(0, 1);
    manager_.setPower(1, 1);
    int st = p->wait();
    ASSERT_TRUE(WIFEXITED(st)) << st;
    EXPECT_EQ(WEXITSTATUS(st), 0) << err();
    std::string text = out();
    EXPECT_NE(text.find("\"Hostname\":\"node1\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"Hostname\":\"node2\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"class\":\"Test.Power\""), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
}

// --class watches the class's own attributes: only the class's reports fire.
TEST_F(WatchCli, ClassFlagWatchesTheClassItself) {
    auto p = znpex("-o json watch Test.Power --class -e 'PoweredOn==1' --count 1");
    ASSERT_TRUE(
        testsupport::waitFor([&] { return manager_.classMonitored(); }, std::chrono::seconds(10)))
        << err();
    manager_.setPower(0, 1);  // a resource's report: not this watch's
    manager_.setPoweredOn(1);
    int st = p->wait();
    ASSERT_TRUE(WIFEXITED(st)) << st;
    EXPECT_EQ(WEXITSTATUS(st), 0) << err();
    std::string text = out();
    EXPECT_NE(text.find("\"PoweredOn\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"Site\""), std::string::npos) << text;
    EXPECT_EQ(text.find("\"handle\""), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST_F(WatchCli, SigtermEndsItCleanly) {
    auto p = znpex("watch Test.Power -e 'PowerStatus!=PowerStatus@P' -a Hostname,PowerStatus");
    ASSERT_TRUE(
        testsupport::waitFor([&] { return manager_.monitored() == 2; }, std::chrono::seconds(10)))
        << err();
    manager_.setPower(1, 1);
    ASSERT_TRUE(testsupport::waitFor([&] { return !out().empty(); }, std::chrono::seconds(10)));
    p->signal(SIGTERM);
    int st = p->wait();
    ASSERT_TRUE(WIFEXITED(st)) << st;
    EXPECT_EQ(WEXITSTATUS(st), 0) << err();
    std::string text = out();
    EXPECT_NE(text.find("Test.Power "), std::string::npos) << text;
    EXPECT_NE(text.find("flags=0x0 Hostname=node2 PowerStatus=1"), std::string::npos) << text;
    // Its watch went with it.
    EXPECT_TRUE(
        testsupport::waitFor([&] { return manager_.monitored() == 0; }, std::chrono::seconds(10)));
}

TEST_F(WatchCli, BadExpressionFails) {
    auto p = znpex("watch Test.Power -e 'PowerStatus >' --duration 5");
    int st = p->wait();
    ASSERT_TRUE(WIFEXITED(st)) << st;
    EXPECT_EQ(WEXITSTATUS(st), 1);
    EXPECT_NE(err().find("znpex: "), std::string::npos) << err();
    EXPECT_TRUE(out().empty()) << out();
}

}  // namespace
