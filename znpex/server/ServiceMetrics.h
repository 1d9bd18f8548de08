// The service's metrics page: what service.status reports, as Prometheus
// counters and gauges (requests served, events delivered, heartbeats,
// peer messages and table replication).
#pragma once

#include <string>

#include "znpex/proto/Json.h"

namespace znpex::server {

// The environment variable naming the metrics address ("host:port").
inline constexpr char kMetricsAddressEnv[] = "ZNPEX_METRICS_ADDRESS";

// Renders a "service.status" result; fields it lacks are left out.
std::string renderServiceMetrics(const proto::Json& status);

}  // namespace znpex::server
