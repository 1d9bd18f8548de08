// The nodes' dynamic state: heartbeat reports (by node id and by host name)
// with the modes that ignore them, the reachability poll of minimally managed
// nodes through a scripted fping under the test root, rescheduled at the
// domain's heartbeat frequency on the fake clock, and the mode change once a
// node's management request succeeded.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "orvrm/orvctrl/OrvCtrlSpec.h"
#include "platform/paths.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "tests/support/Subprocess.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;

class NodeStatusTest : public NodeTest {
protected:
    // A fping that reports `unreachable` (one name a line) and exits `status`.
    void scriptFping(const std::string& unreachable, int status) {
        std::string path = zn::paths::resolve(zn::paths::kFping);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << "#!/bin/sh\nprintf '" << unreachable << "'\nexit " << status << "\n";
        ::chmod(path.c_str(), 0755);
    }
    uint64_t polls() { return nodes()->statusPolls(); }
    // Moves the fake clock and waits until the schedule ran `more` polls.
    void advanceAndWait(std::chrono::seconds by, uint64_t more) {
        uint64_t before = polls();
        clock_.advance(by);
        ASSERT_TRUE(testsupport::waitFor([&] { return polls() >= before + more; }))
            << "the poll did not run";
    }
    std::vector<uint32_t> statusReports() {
        std::vector<uint32_t> out;
        for (const Notice* n : reports(kMnStatus, false)) {
            out.push_back(n->values[0].value.value().val_uint32);
        }
        return out;
    }
};

TEST_F(NodeStatusTest, HeartbeatsReachManagedNodesOnceEachChange) {
    zn_resource_handle a =
        defineNode("a", attrs(u64(kMnUniversalId, 7), str(kMnMode, kModeManaged))).newHandle;
    zn_resource_handle pre = defineNode("pre", attrs(u64(kMnUniversalId, 8))).newHandle;
    startMonitoring(kNodes, &a, {kMnStatus});
    startMonitoring(kNodes, &pre, {kMnStatus});
    out_.clear();
    nodes()->pexHearbeatMsgCB(0, 1);   // node id 0: nobody
    nodes()->pexHearbeatMsgCB(99, 1);  // no node has it
    nodes()->pexHearbeatMsgCB(8, 1);   // "PreManaged" ignores heartbeats
    EXPECT_TRUE(statusReports().empty());
    nodes()->pexHearbeatMsgCB(7, 1);
    nodes()->pexHearbeatMsgCB(7, 1);  // the same value again
    nodes()->setHeartbeat("a", 0);
    nodes()->setHeartbeat("nobody", 0);
    nodes()->setHeartbeat(nullptr, 0);
    EXPECT_EQ(statusReports(), (std::vector<uint32_t>{1, 0}));
    EXPECT_EQ(node(a)->getStatus(), 0u);
    EXPECT_EQ(node(pre)->getStatus(), 127u) << "no heartbeat taken yet";
    EXPECT_EQ(node(a)->getPowerStatus(), 127u);
    nodes()->setPowerStatus("a", 1);
    nodes()->setPowerStatus("a", 1);
    EXPECT_EQ(node(a)->getPowerStatus(), 1u);
    // Any letter case of "PreManaged" ignores heartbeats.
    set(kNodes, a, attrs(str(kMnMode, "premanaged")));
    nodes()->pexHearbeatMsgCB(7, 1);
    EXPECT_EQ(node(a)->getStatus(), 0u);
}

TEST_F(NodeStatusTest, ThePollReportsChangesAndFollowsTheHeartbeatFrequency) {
    scriptFping("m1\\n", 1);
    zn_resource_handle m1 = defineNode("m1", attrs(str(kMnMode, kModeMinManaged))).newHandle;
    zn_resource_handle m2 = defineNode("m2", attrs(str(kMnMode, kModeMinManaged))).newHandle;
    startMonitoring(kNodes, &m1, {kMnStatus});
    startMonitoring(kNodes, &m2, {kMnStatus});
    out_.clear();
    EXPECT_EQ(node(m1)->getStatus(), 127u) << "not polled yet";
    advanceAndWait(12s, 1);  // the first poll ran at start, the next 12 s later
    EXPECT_EQ(node(m1)->getStatus(), 0u);
    EXPECT_EQ(node(m2)->getStatus(), 1u);
    EXPECT_EQ(statusReports().size(), 2u);
    // Unchanged: nothing reported at the next poll.
    out_.clear();
    advanceAndWait(12s, 1);
    EXPECT_TRUE(statusReports().empty());
    // A new frequency counts from the poll after the next one.
    zn_resource_handle settings = enumerate(kOrvCtrlClass).handles.at(0);
    set(kOrvCtrlClass, settings, attrs(u32(kOcFrequency, 30)));
    scriptFping("", 0);
    advanceAndWait(12s, 1);
    EXPECT_EQ(statusReports(), (std::vector<uint32_t>{1}));
    uint64_t before = polls();
    clock_.advance(29s);
    std::this_thread::sleep_for(50ms);  // room for a wrong early poll to show
    EXPECT_EQ(polls(), before) << "30 s apart now";
    advanceAndWait(1s, 1);
}

TEST_F(NodeStatusTest, AMissingOrFailingFpingMakesEveryPolledNodeUnknownOnce) {
    zn_resource_handle m1 = defineNode("m1", attrs(str(kMnMode, kModeMinManaged))).newHandle;
    startMonitoring(kNodes, &m1, {kMnStatus});
    scriptFping("", 0);
    advanceAndWait(12s, 1);
    EXPECT_EQ(node(m1)->getStatus(), 1u);
    std::filesystem::remove(zn::paths::resolve(zn::paths::kFping));
    out_.clear();
    advanceAndWait(12s, 1);
    advanceAndWait(12s, 1);
    EXPECT_EQ(statusReports(), (std::vector<uint32_t>{127}));
    scriptFping("", 4);
    advanceAndWait(12s, 1);
    EXPECT_EQ(node(m1)->getStatus(), 127u);
}

TEST_F(NodeStatusTest, ASuccessfulManagementRequestMakesTheNodeManagedAndAlive) {
    zn_resource_handle a =
        defineNode("a", attrs(u64(kMnUniversalId, 3), str(kMnMode, kModeMinManaged))).newHandle;
    ASSERT_TRUE(polled("a"));
    startMonitoring(kNodes, &a, {kMnStatus, kMnInstallStatus});
    RMRequest enable;
    enable.op = RMRequestOp::EnablePersResourceAttrsNotification;
    enable.className = kNodes;
    enable.handle = a;
    enable.ids = {kMnMode};
    dispatch(enable);
    out_.clear();
    nodes()->reqNodeMgmtSuccCB("a");
    EXPECT_EQ(text(a, kMnMode), kModeManaged);
    EXPECT_FALSE(polled("a"));
    EXPECT_EQ(node(a)->getStatus(), 1u);
    EXPECT_EQ(reports(kMnMode, true).size(), 1u);
    EXPECT_EQ(reports(kMnInstallStatus, false).size(), 1u);
    EXPECT_EQ(statusReports(), (std::vector<uint32_t>{1}));
    // The write-back comes "RegSyncDelay" (1 s) later.
    EXPECT_EQ(nodes()->syncSchedule().pending(), 1u);
    clock_.advance(1s);
    EXPECT_TRUE(testsupport::waitFor([&] { return nodes()->syncSchedule().completed() == 1; }));
    nodes()->reqNodeMgmtSuccCB("nobody");  // an unknown name changes nothing
    EXPECT_EQ(nodeCount(), 1u);
}

}  // namespace
}  // namespace classtest
