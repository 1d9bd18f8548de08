// The resource manager's metrics page: nodes counted by Status and Mode and
// by PowerStatus as they change, the poll's count and time, heartbeat reports.
#include <fcntl.h>  // Subprocess.h uses open flags
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "orvrm/ORVRMMetrics.h"
#include "platform/paths.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "tests/support/Subprocess.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;

bool hasLine(const std::string& page, const std::string& line) {
    return page.find("\n" + line + "\n") != std::string::npos;
}

class NodeMetricsTest : public NodeTest {};

TEST_F(NodeMetricsTest, NodesAreCountedByStatusModeAndPowerAsTheyChange) {
    defineNode("a", attrs(u64(kMnUniversalId, 7), str(kMnMode, kModeManaged)));
    defineNode("b", attrs(u64(kMnUniversalId, 8), str(kMnMode, kModeManaged)));
    defineNode("c", attrs(u64(kMnUniversalId, 9)));
    std::string page = orvrm::renderMetrics(*nodes());
    EXPECT_TRUE(hasLine(page, "orvrm_nodes{status=\"127\",mode=\"Managed\"} 2")) << page;
    EXPECT_TRUE(hasLine(page, "orvrm_nodes{status=\"127\",mode=\"PreManaged\"} 1")) << page;
    EXPECT_TRUE(hasLine(page, "orvrm_nodes_by_power{power_status=\"127\"} 3")) << page;
    EXPECT_TRUE(hasLine(page, "orvrm_heartbeat_reports_total 0")) << page;

    nodes()->pexHearbeatMsgCB(7, 1);
    nodes()->pexHearbeatMsgCB(8, 0);
    nodes()->pexHearbeatMsgCB(99, 1);  // nobody's, still a report taken
    nodes()->setPowerStatus("a", 1);
    page = orvrm::renderMetrics(*nodes());
    for (const char* line :
         {"orvrm_nodes{status=\"0\",mode=\"Managed\"} 1",
          "orvrm_nodes{status=\"1\",mode=\"Managed\"} 1",
          "orvrm_nodes{status=\"127\",mode=\"PreManaged\"} 1",
          "orvrm_nodes_by_power{power_status=\"1\"} 1",
          "orvrm_nodes_by_power{power_status=\"127\"} 2", "orvrm_heartbeat_reports_total 3"}) {
        EXPECT_TRUE(hasLine(page, line)) << line << " in\n" << page;
    }
    EXPECT_EQ(page.find("status=\"127\",mode=\"Managed\""), std::string::npos) << page;
}

TEST_F(NodeMetricsTest, ThePollsAreCountedAndTimed) {
    std::string path = zn::paths::resolve(zn::paths::kFping);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << "#!/bin/sh\nexit 0\n";
    ::chmod(path.c_str(), 0755);
    defineNode("m1", attrs(str(kMnMode, kModeMinManaged)));
    uint64_t before = nodes()->statusPolls();
    clock_.advance(12s);
    ASSERT_TRUE(testsupport::waitFor([&] { return nodes()->statusPolls() > before; }));
    std::string page = orvrm::renderMetrics(*nodes());
    EXPECT_TRUE(hasLine(page, "orvrm_status_polls_total " + std::to_string(nodes()->statusPolls())))
        << page;
    EXPECT_NE(page.find("# TYPE orvrm_status_poll_seconds gauge\norvrm_status_poll_seconds "),
              std::string::npos)
        << page;
    EXPECT_GE(nodes()->pollSecondsTotal(), nodes()->lastPollSeconds());
}

}  // namespace
}  // namespace classtest
