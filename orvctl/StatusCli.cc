// orvctl status and orvctl watch on the command line: their words,
// arguments and help.
#include <CLI/CLI.hpp>
#include <memory>

#include "orvctl/CommandLine.h"
#include "orvctl/StatusCommands.h"

namespace orvctl {

void addStatusCommands(CLI::App& app, std::vector<Command>& out) {
    auto* statusCmd =
        app.add_subcommand("status", "The nodes by status, power and mode; those not reachable");
    statusCmd->footer(
        "Status: up, down or unknown; power: on, off or unknown. -o json gives\n"
        "{\"nodes\", \"status\", \"power\", \"mode\", \"unreachable\", \"unknown\"}.");
    out.push_back({statusCmd, [](CliSession& cli, bool) { return clusterStatus(cli); }});

    auto args = std::make_shared<WatchArgs>();
    auto* watchCmd =
        app.add_subcommand("watch", "Print each change of the nodes' status or power as it comes");
    watchCmd->add_option("selection", args->selection,
                         "Selection string, e.g. 'Mode==\"Managed\"' (default: every node)");
    watchCmd->add_option("--count", args->count, "End after this many changes");
    watchCmd->add_option("--duration", args->durationS, "End after this many seconds")
        ->check(CLI::NonNegativeNumber);
    watchCmd->footer(
        "One line per change: 'TIME NODE Status up -> down' (or PowerStatus, on/off),\n"
        "'TIME NODE removed' when a node goes; -o json gives one object per line:\n"
        "{\"time\", \"node\", \"attribute\", \"old\", \"new\"} with raw values (old null\n"
        "when it was not known). Ends on SIGINT or SIGTERM with status 0.");
    out.push_back({watchCmd, [args](CliSession& cli, bool) { return watchNodes(cli, *args); }});
}

}  // namespace orvctl
