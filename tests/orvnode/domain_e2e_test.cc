// A management domain built the way an administrator builds one, on loopback
// "hosts": the management server (its service and the daemon) on 127.0.0.1,
// and two nodes named by their addresses, 127.0.0.2 and .3, each with its own
// state root, its own service on the domain's common port and its node
// agent. No host key is installed beforehand: the server makes its key pair,
// a frame key is added with orvctl, and the hosts come to trust each other
// only through the agents' requests to be managed. The server's service is
// named by its address, or by a name the agents are not given (they reach
// it by its address). The heartbeat is tuned to one beat a second, two
// missed beats; no reachability poll can answer (no fping is installed, and
// managed nodes are not polled anyway), so a node's Status comes from its
// own service's beats alone.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::CliRun;
using testsupport::readFile;
using testsupport::Subprocess;
using testsupport::waitFor;

constexpr char kFrame[] = "8233-E8B*1000ABC";
constexpr int kFrequency = 1;    // seconds between beats
constexpr int kSensitivity = 2;  // beats missed before a node is silent

// A port free on 127.0.0.1, .2 and .3 alike (0 when none was found): the
// kernel picks one on the first address; another program may hold it on
// the others, so a few picks may be needed.
uint16_t commonFreePort() {
    for (int round = 0; round < 20; ++round) {
        std::vector<int> held;
        uint16_t port = 0;
        bool ok = true;
        for (const char* address : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
            int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(port);
            ::inet_pton(AF_INET, address, &a.sin_addr);
            socklen_t len = sizeof(a);
            ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
                 ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0;
            if (fd >= 0) {
                held.push_back(fd);
            }
            if (!ok) {
                break;
            }
            port = ntohs(a.sin_port);
        }
        for (int fd : held) {
            ::close(fd);
        }
        if (ok) {
            return port;
        }
    }
    return 0;
}

// A node of the domain: its state root, its service and its agent.
struct Node {
    std::string address;  // also its host name
    std::string root;
    std::unique_ptr<Subprocess> service;
    std::unique_ptr<Subprocess> agent;

    std::string log(const char* program) const {
        return readFile(root + "/" + program + ".stderr");
    }
};

// The parameter: the server's service's host name.
class ManagedDomain : public daemonstest::Daemons,
                      public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override {
        tcp_ = true;
        tcpPortWanted_ = commonFreePort();
        ASSERT_NE(tcpPortWanted_, 0) << "no port free on the three addresses";
        serviceArgs_ = {"--host-name",           GetParam(), "--peer-timeout-ms", "2000",
                        "--peer-backoff-max-ms", "500"};
        Daemons::SetUp();
        port_ = tcpPort();
        ASSERT_NE(port_, 0) << readFile(root_ / "znpexd.stderr");
        // The administrator's part: the server's key pair, a frame key whose
        // secret goes to the frame's nodes, and a short heartbeat.
        CliRun keygen = run("znhas/znhas-keygen", {"generate", "--type", "rsa1024"});
        ASSERT_EQ(keygen.status, 0) << keygen.err;
        CliRun key = run("orvctl/orvctl", {"-o", "json", "key", "add", kFrame});
        ASSERT_EQ(key.status, 0) << key.err;
        secret_ = nlohmann::json::parse(key.out, nullptr, false).value("secret", "");
        ASSERT_FALSE(secret_.empty()) << key.out;
        CliRun tune =
            cli({"set", "Kor.OrvCtrl", "-s", "*", "Frequency=" + std::to_string(kFrequency),
                 "Sensitivity=" + std::to_string(kSensitivity)});
        ASSERT_EQ(tune.status, 0) << tune.err;
        for (const char* address : {"127.0.0.2", "127.0.0.3"}) {
            Node n;
            n.address = address;
            n.root = root_ / address;
            std::filesystem::create_directories(n.root + "/usr/sbin/tarn/cfg");
            std::filesystem::copy_file(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls",
                                       n.root + zn::paths::kAclDefaultFile);
            std::ofstream(n.root + "/secret") << secret_ << "\n";
            nodes_.push_back(std::move(n));
        }
    }

    void TearDown() override {
        for (Node& n : nodes_) {
            for (auto* p : {&n.agent, &n.service}) {
                stopChild(*p);
            }
        }
    }

    static void stopChild(std::unique_ptr<Subprocess>& p) {
        if (p != nullptr && p->running()) {
            p->signal(SIGTERM);
            if (p->wait(std::chrono::seconds(10)) == -1) {
                p->signal(SIGKILL);
                p->wait();
            }
        }
        p.reset();
    }

    // `program` (relative to the build tree) under the node's root, running
    // on; its standard error in <root>/<name>.stderr.
    std::unique_ptr<Subprocess> spawnOn(const Node& n, const std::string& program,
                                        const std::string& name,
                                        const std::vector<std::string>& args) {
        // The child takes this process's environment: the node's root for it alone.
        ::setenv(zn::paths::kRootEnv, n.root.c_str(), 1);
        auto p = std::make_unique<Subprocess>(testsupport::binPath(program), args,
                                              std::vector<std::string>{},
                                              n.root + "/" + name + ".stderr");
        ::setenv(zn::paths::kRootEnv, root_.path().c_str(), 1);
        return p;
    }

    // Starts the node's service on its address and the domain's port; false
    // when it does not listen. Ready once it has its node id, which the agent
    // then shares.
    bool startService(Node& n) {
        n.service = spawnOn(n, "znpex/server/znpexd", "znpexd",
                            {"--state-root", n.root, "--address", n.address, "--port",
                             std::to_string(port_), "--host-name", n.address, "--peer-timeout-ms",
                             "2000", "--peer-backoff-max-ms", "500", "--threads", "2"});
        const std::string marker = "this host is " + n.address + ", node id ";
        return waitFor([&] {
                   return n.log("znpexd").find(marker) != std::string::npos ||
                          !n.service->running();
               }) &&
               n.service->running();
    }

    // Starts the node's agent: it asks the server at 127.0.0.1 to manage the
    // node (trusting its key under the server's address) and keeps it managed.
    void startAgent(Node& n) {
        n.agent = spawnOn(n, "orvnode/orvnode", "orvnode",
                          {"--server", "127.0.0.1:" + std::to_string(port_), "--hostname",
                           n.address, "--mtms", kFrame, "--secret-file", n.root + "/secret",
                           "--retry-first", "100", "--retry-longest", "1000", "--timeout", "5000"});
    }

    // Every node as "orvctl node ls -o json" shows it, by host name.
    std::map<std::string, nlohmann::json> listed() {
        CliRun r = run("orvctl/orvctl", {"-o", "json", "node", "ls"});
        std::map<std::string, nlohmann::json> out;
        auto j = nlohmann::json::parse(r.out, nullptr, false);
        if (r.status != 0 || !j.is_array()) {
            return out;
        }
        for (const auto& n : j) {
            const auto& a = n["attributes"];
            if (a.is_object() && a.contains("Hostname")) {
                out[a["Hostname"].get<std::string>()] = a;
            }
        }
        return out;
    }

    static bool managedWithStatus(const std::map<std::string, nlohmann::json>& all,
                                  const std::string& host, int status) {
        auto it = all.find(host);
        return it != all.end() && it->second.value("Mode", "") == "Managed" &&
               it->second.value("Status", -1) == status;
    }

    // The "heartbeat" part of a service's status, read through the command line.
    nlohmann::json heartbeatOf(const std::string& root) {
        CliRun r = run("znpex/cli/znpex", {"-o", "json", "status"}, root);
        auto j = nlohmann::json::parse(r.out, nullptr, false);
        return j.is_object() && j.contains("heartbeat") ? j["heartbeat"] : nlohmann::json();
    }

    std::string logs() {
        std::string out = "server znpexd:\n" + readFile(root_ / "znpexd.stderr");
        for (const Node& n : nodes_) {
            out += "\n" + n.address + " znpexd:\n" + n.log("znpexd") + "\n" + n.address +
                   " orvnode:\n" + n.log("orvnode");
        }
        return out;
    }

    uint16_t port_ = 0;
    std::string secret_;
    std::vector<Node> nodes_;
};

TEST_P(ManagedDomain, NodesBeatWhileTheirServicesRunAndFallSilentWhenOneStops) {
    for (Node& n : nodes_) {
        ASSERT_TRUE(startService(n)) << n.address << ":\n" << n.log("znpexd");
        startAgent(n);
    }
    const std::string n2 = nodes_[0].address;
    const std::string n3 = nodes_[1].address;
    ASSERT_TRUE(waitFor(
        [&] {
            auto all = listed();
            return managedWithStatus(all, n2, 1) && managedWithStatus(all, n3, 1);
        },
        std::chrono::seconds(20)))
        << nlohmann::json(listed()).dump() << "\n"
        << logs();

    // Enrollment itself marks a node alive: only beats keep it so past the
    // silence limit. The server's service hears both nodes, none silent.
    const auto limit = std::chrono::seconds(kFrequency * kSensitivity);
    ASSERT_TRUE(waitFor(
        [&] {
            nlohmann::json hb = heartbeatOf(root_.path());
            return hb.value("role", "") == "server" && hb.value("watched", 0) == 2 &&
                   hb.value("received", 0) >= 4;
        },
        std::chrono::seconds(15)))
        << heartbeatOf(root_.path()).dump() << "\n"
        << logs();
    for (const Node& n : nodes_) {
        nlohmann::json hb = heartbeatOf(n.root);
        EXPECT_EQ(hb.value("role", ""), "sender") << n.address << ": " << hb.dump();
        EXPECT_EQ(hb.value("server", ""), GetParam()) << n.address << ": " << hb.dump();
        EXPECT_GT(hb.value("sent", 0), 0) << n.address << ": " << hb.dump();
    }
    // Over more than a silence limit, both stay alive.
    auto watchUntil = std::chrono::steady_clock::now() + limit + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < watchUntil) {
        auto all = listed();
        ASSERT_TRUE(managedWithStatus(all, n2, 1) && managedWithStatus(all, n3, 1))
            << nlohmann::json(all).dump() << "\n"
            << logs();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(heartbeatOf(root_.path()).value("silent", -1), 0);

    // The second node's service stops: within frequency x sensitivity it is
    // silent, while the first beats on. The slack: a beat, and a second for
    // the service's check, the daemon's event and the listing that sees it.
    stopChild(nodes_[1].service);
    auto stopped = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitFor([&] { return managedWithStatus(listed(), n3, 0); },
                        limit + std::chrono::seconds(5)))
        << nlohmann::json(listed()).dump() << "\n"
        << logs();
    EXPECT_LT(std::chrono::steady_clock::now() - stopped,
              limit + std::chrono::seconds(kFrequency) + std::chrono::seconds(1));
    auto all = listed();
    EXPECT_TRUE(managedWithStatus(all, n2, 1)) << nlohmann::json(all).dump();
}

INSTANTIATE_TEST_SUITE_P(ServerNames, ManagedDomain, ::testing::Values("127.0.0.1", "mgmt"),
                         [](const ::testing::TestParamInfo<std::string>& p) {
                             return p.param == "mgmt" ? std::string("NamedOtherwise")
                                                      : std::string("NamedByItsAddress");
                         });

}  // namespace
