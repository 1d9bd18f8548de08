#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "orvrm/ClassList.h"
#include "orvrm/HeartbeatTargets.h"
#include "orvrm/ORVRMRmcp.h"
#include "tarn_base/CException.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/support/TempDir.h"
#include "znpex/proto/HeartbeatReport.h"

namespace {

using tarn_rmf2v::RMRccp;

struct Calls {
    std::vector<std::pair<std::string, unsigned>> heartbeats;
    std::vector<std::pair<uint64_t, int>> nodes;
};

class FakeInterfaces : public RMRccp, public orvrm::InterfaceHeartbeatTarget {
public:
    FakeInterfaces(tarn_rmf2v::RMRmcp* m, Calls* c)
        : RMRccp("Kor.MNNetworkInterface", RM_OBJECT_CLASS, m), calls(c) {}
    void setHeartbeat(char* address, unsigned int state) override {
        calls->heartbeats.emplace_back(address, state);
    }
    Calls* calls;
};

class FakeNodes : public RMRccp, public orvrm::NodeHeartbeatTarget {
public:
    FakeNodes(tarn_rmf2v::RMRmcp* m, Calls* c)
        : RMRccp("Kor.ManagedNode", RM_OBJECT_CLASS, m), calls(c) {}
    void pexHearbeatMsgCB(uint64_t nodeId, int alive) override {
        calls->nodes.emplace_back(nodeId, alive);
    }
    Calls* calls;
};

class RmcpTest : public ::testing::Test {
protected:
    testsupport::TempDir root_{true};
};

TEST_F(RmcpTest, CreateRccpKnowsExactlyTheTableNames) {
    ORVRMRmcp rmcp("Kor.ORVRM", 1);
    for (const char* bad : {"kor.managednode", "Kor.ManagedNode ", "Kor.Nope", ""}) {
        cu_error_t* err = nullptr;
        std::string name = bad;
        EXPECT_EQ(rmcp.createRCCP(name.data(), &err), nullptr) << bad;
        ASSERT_NE(err, nullptr) << bad;
        EXPECT_EQ(err->cu_error_id, 0x10007);
        EXPECT_EQ(err->cu_msg_num, 3);
        EXPECT_EQ(cu_error_text(err),
                  "2655-003 Class name " + name + " is not recognized by this resource manager.\n");
        cu_rel_error_1(err);
    }
    for (const orvrm::ClassEntry& entry : orvrm::classList()) {
        std::string name = entry.name;
        cu_error_t* err = nullptr;
        RMRccp* c = rmcp.createRCCP(name.data(), &err);
        ASSERT_NE(c, nullptr) << name;
        EXPECT_EQ(err, nullptr);
        EXPECT_EQ(rmcp.findRccpByName(name.c_str()), c);
    }
}

// The heartbeat cases that decide the node's alive flag.
TEST_F(RmcpTest, HeartbeatReportsFeedInterfacesAndTheNodeFlag) {
    ORVRMRmcp rmcp("Kor.ORVRM", 1);
    Calls calls;
    new FakeInterfaces(&rmcp, &calls);  // owned by rmcp
    new FakeNodes(&rmcp, &calls);
    struct Case {
        std::vector<znpex::proto::HeartbeatEntry> entries;
        int flag;
    } cases[] = {
        {{}, 0},
        {{{0, "10.0.0.1"}, {2, "10.0.0.2"}}, 0},
        {{{0, "10.0.0.1"}, {1, "10.0.0.2"}, {5, "10.0.0.3"}}, 1},
    };
    for (const auto& c : cases) {
        calls = Calls{};
        znpex::proto::HeartbeatReport r{77, c.entries};
        auto bytes = znpex::proto::buildHeartbeatReport(r);
        rmcp.PEXMessageReceived(2, 0, bytes.data(), static_cast<unsigned>(bytes.size()));
        ASSERT_EQ(calls.nodes.size(), 1u);
        EXPECT_EQ(calls.nodes[0], std::make_pair(uint64_t{77}, c.flag));
        ASSERT_EQ(calls.heartbeats.size(), c.entries.size());
        for (size_t i = 0; i < c.entries.size(); ++i) {
            EXPECT_EQ(calls.heartbeats[i].first, c.entries[i].address);
            EXPECT_EQ(calls.heartbeats[i].second, c.entries[i].state);
        }
    }
    calls = Calls{};
    unsigned char garbage[20] = {0, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0};
    rmcp.PEXMessageReceived(2, 0, garbage, sizeof garbage);
    EXPECT_TRUE(calls.nodes.empty()) << "a rejected report changes nothing";
    EXPECT_TRUE(calls.heartbeats.empty());
}

TEST_F(RmcpTest, XcuIsDetectedByTheConsoleToolsPresence) {
    EXPECT_FALSE(isOnAnXCU());
    std::string tool = root_ / "opt/ysu/bin/lsysu";
    std::filesystem::create_directories(root_ / "opt/ysu/bin");
    std::ofstream(tool) << "#!/bin/false\n";
    EXPECT_TRUE(isOnAnXCU());
}

TEST_F(RmcpTest, UnusableRegistryStopsConstruction) {
    std::ofstream(root_ / "var") << "not a directory";
    EXPECT_THROW(ORVRMRmcp("Kor.ORVRM", 1), tarn_base::CException);
}

TEST_F(RmcpTest, SevereAsyncErrorAbortsLesserOnesAreTraced) {
    ORVRMRmcp rmcp("Kor.ORVRM", 1);
    rmcp.asyncError(RM_ASYNC_ERROR_WARNING, 5, nullptr);
    EXPECT_DEATH(rmcp.asyncError(RM_ASYNC_ERROR_SEVERE, 6, nullptr),
                 "errorLevel != RM_ASYNC_ERROR_SEVERE");
}

}  // namespace
