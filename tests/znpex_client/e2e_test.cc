// End to end: the real service (znpexd) and ORVRM (orvrmd) as child processes
// under a temporary state root, and the znpex command line against them. ORVRM
// registers its five classes, znpex lists them, and listing the node class
// reaches its tables through both daemons. Either process may start first.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "znpex/client/px_client.h"

namespace {

using testsupport::binPath;
using testsupport::readFile;
using testsupport::Subprocess;
using testsupport::TempDir;

const char* const kClasses[] = {"Kor.OrvCtrl", "Kor.NodeAuthenticate", "Kor.MNNetworkInterface",
                                "Kor.ManagedNode", "Kor.NodeGroup"};

struct Output {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end (killed after 30 s) with its output in files.
Output runProgram(const TempDir& root, const std::string& path,
                  const std::vector<std::string>& args) {
    std::vector<std::string> store{path};
    store.insert(store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);
    std::string outPath = root / "run.out";
    std::string errPath = root / "run.err";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    Output o;
    if (posix_spawn(&pid, path.c_str(), &fa, nullptr, argv.data(), environ) == 0) {
        int st = 0;
        bool ended = testsupport::waitFor([&] { return waitpid(pid, &st, WNOHANG) == pid; },
                                          std::chrono::seconds(30));
        if (!ended) {
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
        }
        o.status = ended && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    posix_spawn_file_actions_destroy(&fa);
    o.out = readFile(outPath);
    o.err = readFile(errPath);
    return o;
}

// The shipped access list as the platform's default copy, as installed.
void installDefaultAcl() {
    std::string dst = zn::paths::resolve(zn::paths::kAclDefaultFile);
    std::filesystem::create_directories(std::filesystem::path(dst).parent_path());
    std::filesystem::copy_file(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls", dst);
}

// True once the service lists all five classes as connected.
bool allClassesConnected() {
    px_session_t s = nullptr;
    if (px_start_session(nullptr, 0, 0x401, &s) != PX_OK) {
        return false;
    }
    px_class_list_t* list = nullptr;
    size_t connected = 0;
    if (px_list_classes(s, &list) == PX_OK) {
        for (uint32_t i = 0; i < list->class_count; ++i) {
            connected += list->classes[i].connected != 0 ? 1 : 0;
        }
    }
    px_free_response(list);
    px_end_session(s);
    return connected == 5;
}

void checkCommandLine(const TempDir& root) {
    std::string znpex = binPath("znpex/cli/znpex");
    Output classes = runProgram(root, znpex, {"classes"});
    ASSERT_EQ(classes.status, 0) << classes.err;
    for (const char* c : kClasses) {
        EXPECT_NE(classes.out.find(std::string(c) + " (resource manager Kor.ORVRM, connected)"),
                  std::string::npos)
            << c << "\n"
            << classes.out;
    }
    // An empty registry lists as a header line only: the request went all the way to the
    // class's tables and back through both daemons.
    Output list = runProgram(root, znpex, {"list", "Kor.ManagedNode"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out.rfind("HANDLE", 0), 0u) << list.out;
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 1) << list.out;
    Output missing = runProgram(root, znpex, {"list", "Kor.NoSuchClass"});
    EXPECT_NE(missing.status, 0);
    EXPECT_FALSE(missing.err.empty());
}

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override { installDefaultAcl(); }
    std::unique_ptr<Subprocess> startService() {
        return std::make_unique<Subprocess>(binPath("znpex/server/znpexd"),
                                            std::vector<std::string>{"--no-tcp"},
                                            std::vector<std::string>{}, root / "znpexd.err");
    }
    std::unique_ptr<Subprocess> startOrvrm() {
        return std::make_unique<Subprocess>(binPath("orvrm/orvrmd"), std::vector<std::string>{},
                                            std::vector<std::string>{}, root / "orvrmd.err");
    }
    std::string logs() { return readFile(root / "znpexd.err") + readFile(root / "orvrmd.err"); }
    TempDir root{true};
};

TEST_F(EndToEnd, ServiceFirstThenOrvrm) {
    auto service = startService();
    auto orvrm = startOrvrm();
    ASSERT_TRUE(testsupport::waitFor(allClassesConnected, std::chrono::seconds(30))) << logs();
    checkCommandLine(root);
    orvrm->signal(SIGTERM);
    EXPECT_NE(orvrm->wait(), -1);
    service->signal(SIGTERM);
    EXPECT_NE(service->wait(), -1);
}

TEST_F(EndToEnd, OrvrmFirstThenService) {
    auto orvrm = startOrvrm();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto service = startService();
    ASSERT_TRUE(testsupport::waitFor(allClassesConnected, std::chrono::seconds(30))) << logs();
    checkCommandLine(root);
}

}  // namespace
