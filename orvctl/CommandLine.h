// How orvctl's command families join its command line: each adds its
// subcommands (CLI11) and, for each, what runs it once parsed.
#pragma once

#include <functional>
#include <vector>

#include "znpex/cli/CliSession.h"

namespace CLI {
class App;
}

namespace orvctl {

using znpex::cli::CliSession;

// A subcommand and what runs it, given the session and whether -o wide
// was asked (the session then shows a table).
struct Command {
    CLI::App* app;
    std::function<int(CliSession&, bool wide)> run;
};

inline constexpr char kFooter[] =
    "Exit status: 0 done, 1 anything refused or failed (the manager's message is\n"
    "printed as sent), 2 a usage error.";

// node add, ls, show, set, rm, import, groups, sync. `progress`: import shows
// its progress on standard error.
void addNodeCommands(CLI::App& app, bool progress, std::vector<Command>& out);
// group add, ls, show, members, add-members, rm-members, rm.
void addGroupCommands(CLI::App& app, std::vector<Command>& out);
// status, watch.
void addStatusCommands(CLI::App& app, std::vector<Command>& out);
// key add, ls, rm.
void addKeyCommands(CLI::App& app, std::vector<Command>& out);

}  // namespace orvctl
