// The start-up check of nodes against interfaces: the states a crash between
// a node's commit and its interfaces' commits leaves are repaired at restart,
// and interfaces no node ever made are left alone. Also what survives a
// restart: the nodes, and the minimally managed ones back on the poller.
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "tests/orvrm/managednode/NodeFixture.h"

namespace classtest {
namespace {

TEST_F(NodeTest, ARestartRepairsWhatACrashBetweenCommitsLeft) {
    nodeWithInterfaces("a", 1, {"10.0.0.1", "10.0.0.2"});
    nodeWithInterfaces("b", 2, {"10.0.0.3"});
    defineNode("noid", attrs(strs(kMnConnectivityIPAddrs, {"10.0.0.8"})));
    auto* netif = rccp<MNNetworkInterfaceRccp>(kIfaces);
    // A define cut short: one of a's interfaces was never made.
    netif->removeResource("IPAddress==\"10.0.0.2\"");
    // A rename cut short: b used to be "b-old" and kept an interface of it.
    netif->createResource("b-old", 2, "10.0.0.3");
    // An address change cut short: a still has an address it gave up, and
    // b's id changed from 7 without its interface following.
    netif->createResource("a", 1, "10.0.0.9");
    netif->createResource("b", 7, "10.0.0.3");
    // A second interface for the same address.
    netif->createResource("a", 1, "10.0.0.1");
    // Interfaces no node made: a client's, and those of a node without an id.
    netif->createResource("standalone", 0, "10.9.9.9");
    netif->createResource("elsewhere", 42, "10.9.9.8");
    netif->createResource("noid", 0, "10.0.0.8");

    out_.clear();
    restart();
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"a", 1, "10.0.0.1"},
                                                  {"a", 1, "10.0.0.2"},
                                                  {"b", 2, "10.0.0.3"},
                                                  {"standalone", 0, "10.9.9.9"},
                                                  {"elsewhere", 42, "10.9.9.8"},
                                                  {"noid", 0, "10.0.0.8"}}));
    EXPECT_EQ(out_.peerMessages().size(), 1u) << "one interface made";
    // A second restart finds nothing to do.
    out_.clear();
    restart();
    EXPECT_TRUE(out_.peerMessages().empty());
    EXPECT_EQ(interfaces().size(), 6u);
}

TEST_F(NodeTest, NodesSurviveARestartAndMinimalOnesArePolledAgain) {
    zn_resource_handle a = nodeWithInterfaces("a", 1, {"10.0.0.1"});
    defineNode("m", attrs(str(kMnMode, "minmanaged")));
    set(kNodes, a, attrs(str(kMnUserComment, "kept")));
    restart();
    EXPECT_EQ(nodeCount(), 2u);
    EXPECT_EQ(text(a, kMnUserComment), "kept");
    EXPECT_TRUE(polled("m"));
    EXPECT_FALSE(polled("a"));
    EXPECT_EQ(nodes()->hostnameExists("m", nullptr), 1);
}

}  // namespace
}  // namespace classtest
