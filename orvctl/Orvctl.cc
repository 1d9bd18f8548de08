// orvctl's options and commands (CLI11), then the command.
#include "orvctl/Orvctl.h"

#include <CLI/CLI.hpp>

#include "orvctl/NodeCommands.h"
#include "znpex/cli/BulkDefine.h"

namespace orvctl {
namespace {

using znpex::cli::GlobalOptions;
using znpex::cli::kExitOk;
using znpex::cli::kExitUsage;

// The options every command takes, before or after its words, all filling
// the same GlobalOptions, so that each command's --help lists them.
void addGlobalOptions(CLI::App* app, GlobalOptions& g, const std::string& group) {
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

constexpr const char* kFooter =
    "Exit status: 0 done, 1 anything refused or failed (the manager's message is\n"
    "printed as sent), 2 a usage error.";

}  // namespace

int runOrvctl(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal) {
    CLI::App app{"orvctl: manage the nodes of this management server", "orvctl"};
    app.footer(kFooter);
    GlobalOptions g;
    addGlobalOptions(&app, g, "Options");
    app.require_subcommand(1, 1);

    auto* node = app.add_subcommand("node", "Managed nodes: add, ls, show, set, rm, import");
    node->require_subcommand(1, 1);
    node->footer(kFooter);

    AddArgs add;
    auto* addCmd = node->add_subcommand("add", "Define a node");
    addCmd->add_option("name", add.name, "The node's host name")->required();
    addCmd->add_option("assignments", add.assignments, "ATTR=VALUE: more attributes of the node");
    addCmd->add_option("--ip", add.ips, "An address of the node; may repeat")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    addCmd->add_option("--id", add.id,
                       "The node's universal id (decimal or 0x hex); its network interfaces are "
                       "made once it has one");
    addCmd->footer(
        "Without --id, a node's addresses wait for its universal id, given at enrollment\n"
        "or with 'orvctl node set NAME UniversalId=ID'. Arrays in ATTR=VALUE are\n"
        "comma-separated.");

    std::string selection;
    auto* lsCmd = node->add_subcommand("ls", "List nodes: name, mode, status, power, addresses");
    lsCmd->add_option("selection", selection,
                      "Selection string, e.g. 'Mode==\"Managed\"' (default: every node)");
    lsCmd->footer(
        "Status: up, down or unknown; power: on, off or unknown. -o wide adds the\n"
        "universal id, hardware type, model and serial, management server and comment;\n"
        "-o json gives every attribute with its raw value.");

    std::string showName;
    auto* showCmd = node->add_subcommand("show", "Show every attribute of a node");
    showCmd->add_option("name", showName, "The node's host name")->required();

    std::string setName;
    std::vector<std::string> setAssignments;
    auto* setCmd = node->add_subcommand("set", "Change attributes of a node");
    setCmd->add_option("name", setName, "The node's host name")->required();
    setCmd->add_option("assignments", setAssignments, "ATTR=VALUE, typed by the class")->required();

    RemoveArgs rm;
    auto* rmCmd = node->add_subcommand("rm", "Remove nodes, by name or by selection");
    rmCmd->add_option("names", rm.names, "Host names of the nodes");
    rmCmd->add_option("-s,--selection", rm.selection, "Selection string choosing the nodes")
        ->each([&rm](const std::string&) { rm.hasSelection = true; });

    znpex::cli::BulkDefineArgs import;
    import.className = kNodeClass;
    import.progress = errIsTerminal;
    auto* importCmd = node->add_subcommand(
        "import", "Define one node per row of a file; refused rows are reported with their line");
    importCmd->add_option("file", import.file, "CSV or JSON lines file")
        ->type_name("FILE")
        ->required();
    importCmd->add_option("--jobs", import.jobs, "Requests in flight at once (1: one at a time)")
        ->check(CLI::Range(1, znpex::cli::kMaxBulkJobs))
        ->capture_default_str();
    importCmd->footer(znpex::cli::kBulkFileHelp);

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
    if (addCmd->parsed()) {
        return nodeAdd(cli, add);
    }
    if (lsCmd->parsed()) {
        return nodeList(cli, selection, wide);
    }
    if (showCmd->parsed()) {
        return nodeShow(cli, showName);
    }
    if (setCmd->parsed()) {
        return nodeSet(cli, setName, setAssignments);
    }
    if (rmCmd->parsed()) {
        return nodeRemove(cli, rm);
    }
    if (importCmd->parsed()) {
        return znpex::cli::cmdDefineFile(cli, import);
    }
    return kExitUsage;
}

}  // namespace orvctl
