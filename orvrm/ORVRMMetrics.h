// The resource manager's metrics page: the managed nodes by Status and Mode
// and by PowerStatus, the reachability poll's duration and count, and the
// heartbeat reports taken. Served when ORVRM_METRICS_ADDRESS names host:port.
#pragma once

#include <string>

namespace orvrm {

class ManagedNodeRccp;

inline constexpr char kMetricsAddressEnv[] = "ORVRM_METRICS_ADDRESS";

std::string renderMetrics(ManagedNodeRccp& nodes);

}  // namespace orvrm
