// orvctl status and orvctl watch: the nodes' reachability and power at a
// glance, and their changes as they happen.
#pragma once

#include <cstdint>
#include <string>

#include "znpex/cli/CliSession.h"

namespace orvctl {

using znpex::cli::CliSession;

// Counts by Status, PowerStatus and Mode, and the nodes not reachable.
int clusterStatus(CliSession& cli);

struct WatchArgs {
    std::string selection;  // "": every node
    uint64_t count = 0;     // changes to print before ending; 0: no limit
    int durationS = 0;      // seconds before ending; 0: no limit
};
// Prints each change of a selected node's Status or PowerStatus until
// SIGINT or SIGTERM, the count or the duration (each ends it with 0).
int watchNodes(CliSession& cli, const WatchArgs& args);

}  // namespace orvctl
