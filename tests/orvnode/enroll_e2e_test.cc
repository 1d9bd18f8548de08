// The road of a node asking to be managed, run for real: a management
// server (its service on TCP and the daemon) with a frame key provisioned,
// and node agents, each under its own state root, that make their host keys,
// send signed requests over TCP and trust the server's key. Both nodes
// become "Managed" and, polled as reachable, get Status 1; the server and
// each node then hold the other's key. A node provisioned with a wrong
// secret is refused with the catalogue's message and is not defined; a node
// the server forgets asks again; an unreachable server is given up on after
// the attempts the agent was given.
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "common/FrameKeyStore.h"
#include "tests/orvrm/DaemonsFixture.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"

namespace {

using daemonstest::CliRun;
using daemonstest::Daemons;

constexpr char kFrame[] = "8233-E8B*1000ABC";

// A key file or list of another state root, read as this process reads its own.
std::vector<uint8_t> tokenIn(const std::string& envName, const std::string& file,
                             const std::function<int(sec_buffer_t*)>& read) {
    ::setenv(envName.c_str(), file.c_str(), 1);
    sec_buffer_t t = nullptr;
    std::vector<uint8_t> out;
    if (read(&t) == 0 && t != nullptr) {
        const auto* p = static_cast<const uint8_t*>(t->value);
        out.assign(p, p + t->length);
    }
    sec_release_host_token(&t);
    ::unsetenv(envName.c_str());
    return out;
}

class NodeEnrollment : public Daemons {
protected:
    void SetUp() override {
        tcp_ = true;
        Daemons::SetUp();
        port_ = tcpPort();
        ASSERT_NE(port_, 0) << testsupport::readFile(root_ / "znpexd.stderr");
        // The server's own key pair, whose public half its replies carry.
        ASSERT_EQ(sec__create_localhost_hostids(SEC_KEYTYPE_RSA1024), 0);
        std::string why;
        ASSERT_EQ(WEX_COMMON::FrameKeyStore().add(kFrame, &secret_, &why), 0) << why;
        reachableNodesPolledEverySecond();
    }

    // Runs a node's agent once under its own state root; its exit status,
    // its log in *log.
    int runNode(const std::string& name, uint64_t id, const std::string& secret, std::string* log,
                const std::vector<std::string>& extra = {}) {
        std::string root = root_ / name;
        std::filesystem::create_directories(root);
        std::string secretFile = root + "/secret";
        std::ofstream(secretFile) << secret << "\n";
        std::vector<std::string> args{"--server",
                                      "127.0.0.1:" + std::to_string(port_),
                                      "--server-name",
                                      "mgmt",
                                      "--hostname",
                                      name,
                                      "--node-id",
                                      std::to_string(id),
                                      "--mtms",
                                      kFrame,
                                      "--secret-file",
                                      secretFile,
                                      "--once",
                                      "--attempts",
                                      "3",
                                      "--retry-first",
                                      "50",
                                      "--timeout",
                                      "5000"};
        args.insert(args.end(), extra.begin(), extra.end());
        // The child takes this process's environment: its own root for it alone.
        ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
        testsupport::Subprocess agent(testsupport::binPath("orvnode/orvnode"), args, {},
                                      root + "/orvnode.stderr");
        ::setenv(zn::paths::kRootEnv, root_.path().c_str(), 1);
        int status = agent.wait(std::chrono::seconds(60));
        *log = testsupport::readFile(root + "/orvnode.stderr");
        return status < 0 || !WIFEXITED(status) ? -1 : WEXITSTATUS(status);
    }

    // The node's attributes as "znpex list" shows them (null: not defined).
    nlohmann::json node(const std::string& host) {
        CliRun r = cli({"-o", "json", "list", "Kor.ManagedNode", "-s", "Hostname==\"" + host + "\"",
                        "-a", "Hostname,Mode,Status"});
        auto j = nlohmann::json::parse(r.out, nullptr, false);
        if (!j.is_array() || j.empty()) {
            return nullptr;
        }
        return j[0]["attributes"];
    }

    uint16_t port_ = 0;
    std::string secret_;
};

TEST_F(NodeEnrollment, TwoNodesBecomeManagedAndTrustTheServer) {
    std::string log;
    ASSERT_EQ(runNode("node1", 0x101, secret_, &log), 0) << log;
    EXPECT_NE(log.find("made this host's key pair"), std::string::npos) << log;
    EXPECT_NE(log.find("managed by mgmt"), std::string::npos) << log;
    EXPECT_EQ(log.find(secret_), std::string::npos) << "the secret is never logged";
    ASSERT_EQ(runNode("node2", 0x102, secret_, &log, {"--protocol", "513"}), 0) << log;

    for (const char* host : {"node1", "node2"}) {
        SCOPED_TRACE(host);
        // Managed, and found reachable by the (scripted) poll.
        ASSERT_TRUE(daemonstest::waitFor([&] {
            nlohmann::json a = node(host);
            return a.is_object() && a.value("Mode", "") == "Managed" && a.value("Status", -1) == 1;
        })) << node(host).dump();
        std::string nodeRoot = root_ / host;
        // Each side holds the other's key: the node's in the server's list...
        std::vector<uint8_t> nodeKey =
            tokenIn("ZNSEC_TESTING_PUBK_FILE", nodeRoot + zn::paths::kPublicKeyFile,
                    [](sec_buffer_t* t) { return sec_get_localhost_token(2, t); });
        ASSERT_FALSE(nodeKey.empty());
        sec_buffer_t listed = nullptr;
        ASSERT_EQ(sec_get_host_token(host, &listed), 0);
        EXPECT_EQ(std::vector<uint8_t>(static_cast<uint8_t*>(listed->value),
                                       static_cast<uint8_t*>(listed->value) + listed->length),
                  nodeKey);
        sec_release_host_token(&listed);
        // ...and the server's in the node's, under the server's name.
        sec_buffer_t mine = nullptr;
        ASSERT_EQ(sec_get_localhost_token(2, &mine), 0);
        std::vector<uint8_t> serverKey(static_cast<uint8_t*>(mine->value),
                                       static_cast<uint8_t*>(mine->value) + mine->length);
        sec_release_host_token(&mine);
        EXPECT_EQ(tokenIn("ZNSEC_TESTING_THL_FILE", nodeRoot + zn::paths::kThlFile,
                          [](sec_buffer_t* t) { return sec_get_host_token("mgmt", t); }),
                  serverKey);
    }
}

TEST_F(NodeEnrollment, AWrongSecretIsRefusedWithTheCatalogueMessage) {
    std::string wrong(secret_.size(), '0');
    std::string log;
    EXPECT_EQ(runNode("node3", 0x103, wrong, &log), 1) << log;
    EXPECT_NE(log.find("refused to manage this node: 2655-043 The management server is not "
                       "authorized to accept the manage request from node node3."),
              std::string::npos)
        << log;
    EXPECT_TRUE(node("node3").is_null()) << "not defined: " << node("node3").dump();
}

TEST_F(NodeEnrollment, ANodeTheServerForgetsAsksAgain) {
    std::string root = root_ / "node5";
    std::filesystem::create_directories(root);
    std::ofstream(root + "/secret") << secret_ << "\n";
    ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
    testsupport::Subprocess agent(
        testsupport::binPath("orvnode/orvnode"),
        {"--server", "127.0.0.1:" + std::to_string(port_), "--server-name", "mgmt", "--hostname",
         "node5", "--node-id", "261", "--mtms", kFrame, "--secret-file", root + "/secret",
         "--recheck", "1", "--timeout", "5000"},
        {}, root + "/orvnode.stderr");
    ::setenv(zn::paths::kRootEnv, root_.path().c_str(), 1);
    auto managed = [&] {
        nlohmann::json a = node("node5");
        return a.is_object() && a.value("Mode", "") == "Managed";
    };
    ASSERT_TRUE(daemonstest::waitFor(managed)) << testsupport::readFile(root + "/orvnode.stderr");
    // The administrator removes the node; the agent notices and asks again.
    CliRun rm = cli({"undefine", "Kor.ManagedNode", "-s", "Hostname==\"node5\""});
    ASSERT_EQ(rm.status, 0) << rm.err;
    ASSERT_TRUE(daemonstest::waitFor(
        [&] {
            return testsupport::readFile(root + "/orvnode.stderr")
                       .find("has forgotten this node") != std::string::npos;
        },
        std::chrono::seconds(30)))
        << testsupport::readFile(root + "/orvnode.stderr");
    EXPECT_TRUE(daemonstest::waitFor(managed)) << testsupport::readFile(root + "/orvnode.stderr");
    agent.signal(SIGTERM);
    int status = agent.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(NodeEnrollment, AnUnreachableServerIsGivenUpOnAfterTheAttempts) {
    std::string log;
    port_ = 1;  // nothing listens there
    EXPECT_EQ(runNode("node4", 0x104, secret_, &log), 1) << log;
    EXPECT_NE(log.find("trying again in 50 ms"), std::string::npos) << log;
    EXPECT_NE(log.find("trying again in 100 ms"), std::string::npos) << log;
    EXPECT_NE(log.find("gave up after 3 attempts"), std::string::npos) << log;
}

}  // namespace
