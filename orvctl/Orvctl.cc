// orvctl's options and commands (CLI11), then the command.
#include "orvctl/Orvctl.h"

#include <CLI/CLI.hpp>

#include "orvctl/CommandLine.h"

namespace orvctl {
namespace {

using znpex::cli::GlobalOptions;
using znpex::cli::kExitOk;
using znpex::cli::kExitUsage;

// The options every command takes, before or after its words, all filling
// the same GlobalOptions, so that each command's --help lists them.
void addGlobalOptions(CLI::App* app, GlobalOptions& g, const std::string& group) {
    app->add_option("--host", g.host,
                    "Management server's service: host[:port] over TCP; default this host's "
                    "local socket")
        ->group(group);
    app->add_option("--as-host", g.asHost,
                    "Over TCP, the host name to prove with this host's key (readable by root "
                    "only; the session is then root@NAME); default the system's host name")
        ->group(group);
    app->add_option("-o,--output", g.output,
                    "Output: table, json (every value, raw), or wide (node ls: more columns)")
        ->check(CLI::IsMember({"table", "json", "wide"}))
        ->capture_default_str()
        ->group(group);
    app->add_option("--timeout", g.timeoutMs, "Milliseconds to wait for each answer")
        ->check(CLI::PositiveNumber)
        ->group(group);
    app->add_option("--connect-timeout", g.connectTimeoutMs,
                    "Milliseconds to wait for the connection")
        ->check(CLI::PositiveNumber)
        ->group(group);
}

void addGlobalOptionsBelow(CLI::App* app, GlobalOptions& g) {
    for (CLI::App* sub : app->get_subcommands(nullptr)) {
        addGlobalOptions(sub, g, "Global options");
        addGlobalOptionsBelow(sub, g);
    }
}

}  // namespace

int runOrvctl(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal) {
    CLI::App app{"orvctl: manage the nodes and node groups of this management server", "orvctl"};
    app.footer(kFooter);
    GlobalOptions g;
    addGlobalOptions(&app, g, "Options");
    app.require_subcommand(1, 1);
    std::vector<Command> commands;
    addNodeCommands(app, errIsTerminal, commands);
    addGroupCommands(app, commands);
    addStatusCommands(app, commands);
    addKeyCommands(app, commands);
    addGlobalOptionsBelow(&app, g);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e, out, err);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    bool wide = g.output == "wide";
    if (wide) {
        g.output = "table";
    }
    CliSession cli(g, out, err, "orvctl");
    for (const Command& c : commands) {
        if (c.app->parsed()) {
            return c.run(cli, wide);
        }
    }
    return kExitUsage;
}

}  // namespace orvctl
