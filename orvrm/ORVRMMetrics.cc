#include "orvrm/ORVRMMetrics.h"

#include "orvrm/managednode/ManagedNodeRccp.h"
#include "platform/metrics/MetricsText.h"

namespace orvrm {

std::string renderMetrics(ManagedNodeRccp& nodes) {
    zn::metrics::MetricsText t;
    ManagedNodeRccp::NodeCounts counts = nodes.countNodes();
    t.family("orvrm_nodes", "Managed nodes by Status and Mode", "gauge");
    for (const auto& [key, n] : counts.byStatusAndMode) {
        t.sample("orvrm_nodes", n, {{"status", std::to_string(key.first)}, {"mode", key.second}});
    }
    t.family("orvrm_nodes_by_power", "Managed nodes by PowerStatus", "gauge");
    for (const auto& [power, n] : counts.byPowerStatus) {
        t.sample("orvrm_nodes_by_power", n, {{"power_status", std::to_string(power)}});
    }
    t.family("orvrm_status_polls_total", "Reachability polls run", "counter");
    t.sample("orvrm_status_polls_total", nodes.statusPolls());
    t.family("orvrm_status_poll_seconds", "Duration of the last reachability poll", "gauge");
    t.sample("orvrm_status_poll_seconds", nodes.lastPollSeconds());
    t.family("orvrm_status_poll_seconds_total", "Time spent in reachability polls", "counter");
    t.sample("orvrm_status_poll_seconds_total", nodes.pollSecondsTotal());
    t.family("orvrm_heartbeat_reports_total", "Heartbeat reports received", "counter");
    t.sample("orvrm_heartbeat_reports_total", nodes.heartbeatReports());
    return t.text();
}

}  // namespace orvrm
