// The node commands on orvctl's command line: their words, arguments and
// help.
#include <CLI/CLI.hpp>
#include <memory>

#include "orvctl/CommandLine.h"
#include "orvctl/NodeCommands.h"
#include "znpex/cli/BulkDefine.h"

namespace orvctl {
namespace {

struct SetArgs {
    std::string name;
    std::vector<std::string> assignments;
};

}  // namespace

void addNodeCommands(CLI::App& app, bool progress, std::vector<Command>& out) {
    auto* node =
        app.add_subcommand("node", "Managed nodes: add, ls, show, set, rm, import, groups, sync");
    node->require_subcommand(1, 1);
    node->footer(kFooter);

    auto add = std::make_shared<AddArgs>();
    auto* addCmd = node->add_subcommand("add", "Define a node");
    addCmd->add_option("name", add->name, "The node's host name")->required();
    addCmd->add_option("assignments", add->assignments, "ATTR=VALUE: more attributes of the node");
    addCmd->add_option("--ip", add->ips, "An address of the node; may repeat")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    addCmd->add_option("--id", add->id,
                       "The node's universal id (decimal or 0x hex); its network interfaces are "
                       "made once it has one");
    addCmd->footer(
        "Without --id, a node's addresses wait for its universal id, given at enrollment\n"
        "or with 'orvctl node set NAME UniversalId=ID'. Arrays in ATTR=VALUE are\n"
        "comma-separated.");
    out.push_back({addCmd, [add](CliSession& cli, bool) { return nodeAdd(cli, *add); }});

    auto selection = std::make_shared<std::string>();
    auto* lsCmd = node->add_subcommand("ls", "List nodes: name, mode, status, power, addresses");
    lsCmd->add_option("selection", *selection,
                      "Selection string, e.g. 'Mode==\"Managed\"' (default: every node)");
    lsCmd->footer(
        "Status: up, down or unknown; power: on, off or unknown. -o wide adds the\n"
        "universal id, hardware type, model and serial, management server and comment;\n"
        "-o json gives every attribute with its raw value.");
    out.push_back({lsCmd, [selection](CliSession& cli, bool wide) {
                       return nodeList(cli, *selection, wide);
                   }});

    auto showName = std::make_shared<std::string>();
    auto* showCmd = node->add_subcommand("show", "Show every attribute of a node");
    showCmd->add_option("name", *showName, "The node's host name")->required();
    out.push_back(
        {showCmd, [showName](CliSession& cli, bool) { return nodeShow(cli, *showName); }});

    auto set = std::make_shared<SetArgs>();
    auto* setCmd = node->add_subcommand("set", "Change attributes of a node");
    setCmd->add_option("name", set->name, "The node's host name")->required();
    setCmd->add_option("assignments", set->assignments, "ATTR=VALUE, typed by the class")
        ->required();
    out.push_back({setCmd, [set](CliSession& cli, bool) {
                       return nodeSet(cli, set->name, set->assignments);
                   }});

    auto rm = std::make_shared<RemoveArgs>();
    auto* rmCmd = node->add_subcommand("rm", "Remove nodes, by name or by selection");
    rmCmd->add_option("names", rm->names, "Host names of the nodes");
    rmCmd->add_option("-s,--selection", rm->selection, "Selection string choosing the nodes")
        ->each([rm](const std::string&) { rm->hasSelection = true; });
    out.push_back({rmCmd, [rm](CliSession& cli, bool) { return nodeRemove(cli, *rm); }});

    auto import = std::make_shared<znpex::cli::BulkDefineArgs>();
    import->className = kNodeClass;
    import->progress = progress;
    auto* importCmd = node->add_subcommand(
        "import", "Define one node per row of a file; refused rows are reported with their line");
    importCmd->add_option("file", import->file, "CSV or JSON lines file")
        ->type_name("FILE")
        ->required();
    importCmd->add_option("--jobs", import->jobs, "Requests in flight at once (1: one at a time)")
        ->check(CLI::Range(1, znpex::cli::kMaxBulkJobs))
        ->capture_default_str();
    importCmd->footer(znpex::cli::kBulkFileHelp);
    out.push_back({importCmd, [import](CliSession& cli, bool) {
                       return znpex::cli::cmdDefineFile(cli, *import);
                   }});

    auto groupsName = std::make_shared<std::string>();
    auto* groupsCmd =
        node->add_subcommand("groups", "List the groups whose expanded members hold a node");
    groupsCmd->add_option("name", *groupsName, "The node's host name")->required();
    groupsCmd->footer("One group a line, by name; -o json gives a JSON array.");
    out.push_back(
        {groupsCmd, [groupsName](CliSession& cli, bool) { return nodeGroups(cli, *groupsName); }});

    auto syncName = std::make_shared<std::string>();
    auto* syncCmd = node->add_subcommand(
        "sync", "Fetch a node's data from its host's record of this server, show what changed");
    syncCmd->add_option("name", *syncName, "The node's host name")->required();
    syncCmd->footer(
        "Prints each attribute that changed as 'ATTR: old -> new', or 'no change';\n"
        "-o json gives {\"changed\": {ATTR: {\"old\": ..., \"new\": ...}}} with raw values.");
    out.push_back(
        {syncCmd, [syncName](CliSession& cli, bool) { return nodeSync(cli, *syncName); }});
}

}  // namespace orvctl
