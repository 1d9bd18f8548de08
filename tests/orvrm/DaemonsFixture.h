// The daemons as an administrator runs them: znpexd and orvrmd under one
// state root (exported as ZN_ROOT, so in-process clients find the service
// too), the znpex command line run against them as a child process, to its
// end or left running (watch), and the other programs to their end. Nodes
// can be made to answer the reachability poll, polled every second.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace daemonstest {

using testsupport::readFile;
using testsupport::Subprocess;
using testsupport::waitFor;

struct CliRun {
    int status = -1;
    std::string out;
    std::string err;
};

class Daemons : public ::testing::Test {
protected:
    void SetUp() override {
        std::string acl = root_ / "usr/sbin/tarn/cfg/znpex.acls";
        std::filesystem::create_directories(std::filesystem::path(acl).parent_path());
        std::ifstream shipped(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
        std::ofstream(acl) << shipped.rdbuf();
        std::vector<std::string> args{"--state-root", root_.path(), "--no-tcp"};
        if (tcp_) {
            args = {"--state-root", root_.path(), "--address",
                    "127.0.0.1",    "--port",     std::to_string(tcpPortWanted_)};
        }
        args.insert(args.end(), serviceArgs_.begin(), serviceArgs_.end());
        service_ =
            std::make_unique<Subprocess>(testsupport::binPath("znpex/server/znpexd"), args,
                                         std::vector<std::string>{}, root_ / "znpexd.stderr");
        ASSERT_TRUE(
            waitFor([&] { return std::filesystem::exists(root_.path() + zn::paths::kPexSocket); }));
        startDaemon();
    }
    void startDaemon() {
        daemon_ = std::make_unique<Subprocess>(
            testsupport::binPath("orvrm/orvrmd"), std::vector<std::string>{},
            std::vector<std::string>{"ZN_ROOT=" + root_.path()}, root_ / "orvrmd.stderr");
        // Ready when the service lists the class as connected.
        ASSERT_TRUE(waitFor([&] {
            CliRun r = cli({"-o", "json", "classes"});
            return r.status == 0 && r.out.find("\"connected\": true") != std::string::npos;
        })) << readFile(root_ / "orvrmd.stderr");
    }
    CliRun cli(std::vector<std::string> args) { return run("znpex/cli/znpex", std::move(args)); }
    // One of the build tree's programs ("orvctl/orvctl") run to its end
    // under the root (or `root`), as the calling user.
    CliRun run(const std::string& program, std::vector<std::string> args,
               const std::string& root = "") {
        args.insert(args.begin(), testsupport::binPath(program));
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        std::string out = root_ / "cli.out";
        std::string err = root_ / "cli.err";
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::string env = "ZN_ROOT=" + (root.empty() ? root_.path() : root);
        char* envp[] = {env.data(), nullptr};
        pid_t pid = -1;
        CliRun r;
        if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp) == 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        posix_spawn_file_actions_destroy(&fa);
        r.out = readFile(out);
        r.err = readFile(err);
        return r;
    }

    // Every node answers the reachability poll (a scripted fping under the
    // root that reports nobody unreachable), and the poll runs every second:
    // the domain's frequency is set to 1 and the daemon restarted, so that
    // its first poll already follows it.
    void reachableNodesPolledEverySecond() {
        std::string fping = zn::paths::resolve(zn::paths::kFping);
        std::filesystem::create_directories(std::filesystem::path(fping).parent_path());
        std::ofstream(fping) << "#!/bin/sh\nexit 0\n";
        ::chmod(fping.c_str(), 0755);
        CliRun set = cli({"set", "Kor.OrvCtrl", "-s", "*", "Frequency=1"});
        ASSERT_EQ(set.status, 0) << set.err;
        daemon_->signal(SIGTERM);
        ASSERT_NE(daemon_->wait(), -1);
        startDaemon();
    }
    // znpex with `args` left running, its standard output in the file `out`
    // under the root and its errors beside it (`out`.err).
    std::unique_ptr<Subprocess> cliInBackground(const std::vector<std::string>& args,
                                                const std::string& out) {
        std::string cmd = "exec '" + testsupport::binPath("znpex/cli/znpex") + "'";
        for (const auto& a : args) {
            std::string quoted;
            for (char c : a) {
                quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
            }
            cmd += " '" + quoted + "'";
        }
        cmd += " > '" + (root_ / out) + "'";
        return std::make_unique<Subprocess>("/bin/sh", std::vector<std::string>{"-c", cmd},
                                            std::vector<std::string>{}, root_ / (out + ".err"));
    }

    // The service's TCP port (tcp_ set before SetUp), or 0.
    uint16_t tcpPort() {
        std::smatch m;
        static const std::regex re("listening on tcp 127.0.0.1 port ([0-9]+)");
        std::string text;
        waitFor([&] {
            text = readFile(root_ / "znpexd.stderr");
            return std::regex_search(text, m, re);
        });
        return std::regex_search(text, m, re) ? static_cast<uint16_t>(std::stoi(m[1].str())) : 0;
    }

    bool tcp_ = false;            // the service also listens on TCP, 127.0.0.1, a free port
    uint16_t tcpPortWanted_ = 0;  // that port (0: the kernel's pick)
    std::vector<std::string> serviceArgs_;  // more znpexd options (set before SetUp)
    testsupport::TempDir root_{/*asRoot=*/true};
    std::unique_ptr<Subprocess> service_;
    std::unique_ptr<Subprocess> daemon_;
};

}  // namespace daemonstest
