// The managed-node class on the hardware service console, with the
// console's tools scripted under the test root: nodes' partitions in the
// monitor from the table at start, power polls at start, two minutes later
// and every five minutes after on the fake clock, PowerStatus reported on
// change, and the removal rules: a node whose partition is gone leaves
// unless it answers, and a silent node whose partition is not active leaves.
#include <chrono>

#include "orvrm/PartitionStatus.h"
#include "tests/orvrm/ConsoleTools.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "tests/support/Subprocess.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;
using consoletest::statusTool;
using consoletest::statusToolRuns;
using Names = std::vector<std::string>;

class ConsoleTest : public NodeTest {
protected:
    void SetUp() override {
        PartitionStatus::setConsoleQuery(consoletest::consoleQuery(true));
        statusTool(Names{}, Names{}, std::nullopt);
        NodeTest::SetUp();
    }
    void TearDown() override { PartitionStatus::setConsoleQuery(""); }
    zn_resource_handle node(const char* host, uint64_t id, const char* lpar) {
        return defineNode(host, attrs(u64(kMnUniversalId, id), str(kMnMode, kModeManaged),
                                      str(kMnLParID, lpar), str(kMnHWModel, "M"),
                                      str(kMnHWSerialNum, "S")))
            .newHandle;
    }
    ManagedNodeRcp* rcp(const char* host) {
        ManagedNodeRcp* n = nodes()->getRcpByHostname(host);
        if (n != nullptr) {
            n->unreserve();
        }
        return n;
    }
    uint32_t power(const char* host) { return rcp(host)->getPowerStatus(); }
    // Moves the clock and waits for the power schedule to run what fell due.
    void advancePower(std::chrono::seconds by) {
        uint64_t before = nodes()->powerSchedule()->completed();
        clock_.advance(by);
        std::this_thread::sleep_for(20ms);
        ASSERT_TRUE(testsupport::waitFor([&] {
            return nodes()->powerSchedule()->idle() ||
                   nodes()->powerSchedule()->completed() > before;
        }));
        ASSERT_TRUE(testsupport::waitFor([&] { return nodes()->powerSchedule()->idle(); }));
    }
};

TEST_F(ConsoleTest, PartitionsArePolledAtStartThenTwoAndEveryFiveMinutes) {
    ASSERT_TRUE(nodes()->onConsole());
    EXPECT_FALSE(nodes()->powerEventsRegistered());
    node("n1", 1, "1");
    node("n2", 2, "2");
    EXPECT_EQ(power("n1"), 1u) << "a new node's partition counts as active until polled";
    statusTool(Names{"1*M*S", "2*M*S"}, Names{"1*M*S", "2*M*S"}, std::nullopt);
    restart();  // the monitor is filled from the table and polled at once
    size_t runs = statusToolRuns();
    EXPECT_EQ(power("n1"), 1u);
    EXPECT_EQ(power("n2"), 1u);
    EXPECT_EQ(nodes()->getNodePowerStatus("n2"), 1);
    EXPECT_EQ(nodes()->getNodePowerStatus("nobody"), 127);
    zn_resource_handle h2 = *rcp("n2")->getResourceHandle();
    startMonitoring(kNodes, &h2, {kMnPowerStatus});
    out_.clear();

    // n2 is powered off: reported at the first poll, two minutes on.
    statusTool(Names{"1*M*S"}, Names{"1*M*S", "2*M*S"}, std::nullopt);
    nodes()->pexHearbeatMsgCB(2, 1);  // it still answers: it stays when its partition goes
    advancePower(119s);
    EXPECT_EQ(statusToolRuns(), runs) << "not before two minutes";
    advancePower(1s);
    EXPECT_EQ(statusToolRuns(), runs + 1);
    EXPECT_EQ(power("n2"), 0u);
    ASSERT_EQ(reports(kMnPowerStatus, false).size(), 1u);
    EXPECT_EQ(reports(kMnPowerStatus, false)[0]->values[0].value.value().val_uint32, 0u);
    EXPECT_NE(rcp("n2"), nullptr) << "kept: it answers";

    advancePower(299s);
    EXPECT_EQ(statusToolRuns(), runs + 1) << "five minutes apart now";
    advancePower(1s);
    EXPECT_EQ(statusToolRuns(), runs + 2);

    // It stops beating with its partition not active: it leaves.
    nodes()->pexHearbeatMsgCB(2, 0);
    EXPECT_EQ(rcp("n2"), nullptr);
    EXPECT_EQ(nodes()->partitions()->getHostStatus(const_cast<char*>("n2")), 127);
}

TEST_F(ConsoleTest, ASilentNodeLeavesOnlyWhenItsPartitionIsNotActive) {
    node("n1", 1, "1");
    node("n2", 2, "2");
    statusTool(std::nullopt, Names{"1*M*S", "2*M*S"}, std::nullopt);
    restart();
    EXPECT_EQ(power("n1"), 127u) << "no active list: unknown";
    nodes()->pexHearbeatMsgCB(1, 0);
    EXPECT_NE(rcp("n1"), nullptr) << "kept with its partition unknown";
    statusTool(Names{"1*M*S", "2*M*S"}, Names{"1*M*S", "2*M*S"}, std::nullopt);
    nodes()->partitions()->updateStatus();
    nodes()->pexHearbeatMsgCB(1, 0);
    EXPECT_NE(rcp("n1"), nullptr) << "kept with its partition active";
}

TEST_F(ConsoleTest, ANodeWhosePartitionIsGoneLeavesUnlessItAnswers) {
    node("n1", 1, "1");
    node("n2", 2, "2");
    node("n3", 3, "3");
    statusTool(Names{"1*M*S", "2*M*S", "3*M*S"}, Names{"1*M*S", "2*M*S", "3*M*S"}, std::nullopt);
    restart();
    nodes()->pexHearbeatMsgCB(1, 1);
    nodes()->pexHearbeatMsgCB(2, 0);
    // Partitions 1 and 2 are deleted, 3 stays.
    statusTool(Names{"1*M*S", "2*M*S", "3*M*S"}, Names{"3*M*S"}, std::nullopt);
    nodes()->partitions()->updateStatus();
    EXPECT_NE(rcp("n1"), nullptr) << "it answers";
    EXPECT_EQ(rcp("n2"), nullptr);
    EXPECT_NE(rcp("n3"), nullptr);
    EXPECT_EQ(nodeCount(), 2u);
    // A renamed node's entry follows it.
    zn_resource_handle h3 = *rcp("n3")->getResourceHandle();
    set(kNodes, h3, attrs(str(kMnHostname, "n3b")));
    EXPECT_EQ(nodes()->partitions()->getHostStatus(const_cast<char*>("n3")), 127);
    EXPECT_EQ(nodes()->partitions()->getHostStatus(const_cast<char*>("n3b")), 1);
}

}  // namespace
}  // namespace classtest
