// orvctl key add, ls and rm on the command line: their words and help.
#include <CLI/CLI.hpp>
#include <memory>

#include "orvctl/CommandLine.h"
#include "orvctl/KeyCommands.h"

namespace orvctl {

void addKeyCommands(CLI::App& app, std::vector<Command>& out) {
    auto* key = app.add_subcommand("key", "The hardware frames' secret keys (run as root)");
    key->require_subcommand(1, 1);
    key->footer(
        "A frame's key signs its nodes' requests to be managed and this server's\n"
        "replies. The keys are kept in a root-only store on this server; the\n"
        "daemon picks up every change at once.");
    auto mtms = std::make_shared<std::string>();

    auto* add = key->add_subcommand("add", "Make a random secret for a frame and print it once");
    add->add_option("MTMS", *mtms, "The frame's machine type-model-serial")->required();
    add->footer(
        "The secret is printed once, as hexadecimal, for provisioning the frame's\n"
        "nodes; it cannot be shown again. A frame that has a key is refused.");
    out.push_back({add, [mtms](CliSession& cli, bool) { return keyAdd(cli, *mtms); }});

    auto* ls = key->add_subcommand("ls", "The frames that have a key (names only)");
    ls->footer("-o json gives an array of the frames' MTMS.");
    out.push_back({ls, [](CliSession& cli, bool) { return keyList(cli); }});

    auto* rm = key->add_subcommand("rm", "Remove a frame's key");
    rm->add_option("MTMS", *mtms, "The frame's machine type-model-serial")->required();
    rm->footer("The frame's nodes can no longer ask to be managed until it has a key again.");
    out.push_back({rm, [mtms](CliSession& cli, bool) { return keyRemove(cli, *mtms); }});
}

}  // namespace orvctl
