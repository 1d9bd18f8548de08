// Pairing two nodes into a peer domain through the daemon's real request
// path: every row of the decision table against scripted managers on the
// nodes' hosts, the refusals before any change (different domains, a host
// answering with errors, a host down, a node without an image), the third
// peer node that is never asked, and the 30-second wait on the fake clock.
#include <future>

#include "orvrm/NodePEXIface.h"
#include "tests/orvrm/peerdomain/PeerSetupFixture.h"
#include "tests/support/Subprocess.h"

namespace peerdomaintest {
namespace {

using Ops = std::vector<std::string>;

// A node host's peer-domain state by its status code (127: answers errors).
void giveStatus(ScriptedPeerHost& host, const std::string& self, const std::string& other, int code,
                const std::string& domain = "D") {
    switch (code) {
        case 0:
            break;
        case 1:
            host.setDomain(domain, 0);
            break;
        case 2:
            host.setDomain(domain, 1);
            host.addPeerNode(self, 1);
            break;
        case 3:
            host.setDomain(domain, 1);
            host.addPeerNode(self, 1);
            host.addPeerNode(other, 0);
            break;
        case 4:
            host.setDomain(domain, 1);
            host.addPeerNode(self, 1);
            host.addPeerNode(other, 1);
            break;
        default:
            host.setDomain(domain, 1);
            host.failQueries(true);
    }
}

TEST_F(PeerSetupTest, EveryRowOfTheDecisionTable) {
    const std::string h1 = "127.0.0.2", h2 = "127.0.0.3";
    struct Row {
        int s1, s2;
        int result;
        Ops server, node1, node2;  // what reached hosts 1, 2 and 3
    };
    const std::string prep1 = "DoPreprpnode " + h2, prep2 = "DoPreprpnode " + h1;
    const Row rows[] = {
        {0,
         0,
         0,
         {"PeerDomain.define IMG [" + h1 + "," + h2 + "]"},
         {prep1, "PeerDomain.online"},
         {prep2}},
        {1, 1, 0, {}, {prep1, "PeerDomain.online"}, {prep2}},
        {0, 1, 0, {}, {prep1}, {prep2, "PeerDomain.online"}},
        {2, 2, 0, {}, {prep1}, {prep2}},
        {4, 4, 0, {}, {}, {}},
        {4, 2, 0, {}, {}, {prep2}},
        {3, 3, 0, {}, {prep1, "SyncConfig D " + h1 + "," + h2, "PeerDomain.online"}, {prep2}},
        {3,
         0,
         0,
         {},
         {prep1, "PeerNode.offline", "PeerNode.undefine", "PeerNode.define " + h2,
          "PeerDomain.online"},
         {prep2}},
        {0,
         3,
         0,
         {},
         {prep1},
         {prep2, "PeerNode.offline", "PeerNode.undefine", "PeerNode.define " + h1,
          "PeerDomain.online"}},
        {127, 0, -1, {}, {}, {}},
        {0, 127, -1, {}, {}, {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE("statuses " + std::to_string(r.s1) + ", " + std::to_string(r.s2));
        newScriptedHosts();
        giveStatus(*scripted_[1], h1, h2, r.s1);
        giveStatus(*scripted_[2], h2, h1, r.s2);
        auto result = std::async(std::launch::async, [&] { return nodes()->setupPeerDomain(1); });
        if (r.s1 == 3 || r.s2 == 3) {
            if (r.s1 != r.s2) {
                // The removed peer node is given its 30 seconds on the fake clock.
                size_t a = r.s1 == 3 ? 1 : 2;
                ASSERT_TRUE(
                    testsupport::waitFor([&] { return scripted_[a]->called("PeerNode.offline"); }));
                EXPECT_EQ(result.wait_for(std::chrono::milliseconds(100)),
                          std::future_status::timeout)
                    << "removed before its 30 seconds";
                clock_.advance(std::chrono::seconds(30));
            }
        }
        ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_EQ(result.get(), r.result);
        EXPECT_EQ(operations(0), r.server);
        EXPECT_EQ(operations(1), r.node1);
        EXPECT_EQ(operations(2), r.node2);
    }
}

TEST_F(PeerSetupTest, RefusedBeforeAnyChange) {
    const std::string h1 = "127.0.0.2", h2 = "127.0.0.3";
    // Two different domains.
    giveStatus(*scripted_[1], h1, h2, 3, "D1");
    giveStatus(*scripted_[2], h2, h1, 3, "D2");
    EXPECT_EQ(nodes()->setupPeerDomain(1), -1);
    EXPECT_TRUE(operations(1).empty());
    EXPECT_TRUE(operations(2).empty());
    // A node without an image finds only itself as partner.
    defineNode("127.0.0.4", 3, nullptr);
    EXPECT_EQ(nodes()->setupPeerDomain(3), -1);
    // No node with the id.
    EXPECT_EQ(nodes()->setupPeerDomain(99), -1);
    orvrm::PeerDomainInfo* info = nullptr;
    EXPECT_EQ(nodes()->getPeerNodeData(99, &info), -1);
    ASSERT_NE(info, nullptr) << "a record is handed out in any case";
    orvrm::freePeerDomainInfo(info);
}

TEST_F(PeerSetupTest, AHostDownOrSilentFailsWithinTheDeadline) {
    newScriptedHosts();
    scripted_[2]->stallQueries(4000);  // past the client's 3 s
    scripted_[2]->setDomain("D", 1);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(nodes()->setupPeerDomain(1), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9))
        << "a silent host fails by the client's deadline";
    EXPECT_TRUE(operations(1).empty());
    scripted_.clear();
    stop(2);
    start = std::chrono::steady_clock::now();
    NodePEXIface iface;
    char* name = nullptr;
    EXPECT_EQ(iface.getPeerDomainStatus("127.0.0.3", &name), kPdFailed);
    EXPECT_EQ(name, nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(PeerSetupTest, StatusAsksAtMostTwoPeerNodes) {
    scripted_[1]->setDomain("D", 1);
    scripted_[1]->addPeerNode("a", 1);
    scripted_[1]->addPeerNode("b", 1);
    scripted_[1]->addPeerNode("c", 0);
    NodePEXIface iface;
    char* name = nullptr;
    EXPECT_EQ(iface.getPeerDomainStatus("127.0.0.2", &name), kPdOnlineBoth);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "D");
    std::free(name);
    bool askedThird = false;
    for (const std::string& c : scripted_[1]->calls()) {
        askedThird = askedThird || c == "PeerNode.query c";
    }
    EXPECT_FALSE(askedThird) << "the third peer node is never queried";
    // An offline domain answers 1 without looking at its nodes.
    newScriptedHosts();
    scripted_[1]->setDomain("D", 0);
    scripted_[1]->addPeerNode("a", 1);
    EXPECT_EQ(iface.getPeerDomainStatus("127.0.0.2", &name), kPdOffline);
    std::free(name);
    for (const std::string& c : scripted_[1]->calls()) {
        EXPECT_EQ(c.rfind("PeerNode", 0), std::string::npos) << c;
    }
    // A peer node that is not there is removed at once, without the wait.
    EXPECT_EQ(iface.rmPeerNode("127.0.0.2", "nobody"), 0);
}

}  // namespace
}  // namespace peerdomaintest
