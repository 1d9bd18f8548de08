// The node-group commands on orvctl's command line: their words, arguments
// and help.
#include <CLI/CLI.hpp>
#include <memory>

#include "orvctl/CommandLine.h"
#include "orvctl/GroupCommands.h"

namespace orvctl {
namespace {

struct NamesArgs {
    std::string name;
    std::vector<std::string> nodes;
};

}  // namespace

void addGroupCommands(CLI::App& app, std::vector<Command>& out) {
    auto* group = app.add_subcommand(
        "group", "Node groups: add, ls, show, members, add-members, rm-members, rm");
    group->require_subcommand(1, 1);
    group->footer(kFooter);

    auto add = std::make_shared<GroupAddArgs>();
    auto* addCmd = group->add_subcommand("add", "Define a group by its members or a selection");
    addCmd->add_option("name", add->name, "The group's name")->required();
    auto* members =
        addCmd
            ->add_option("--members", add->members,
                         "Host names and other groups (+NAME), comma-separated; \"\" for none")
            ->type_name("LIST")
            ->each([add](const std::string&) { add->hasMembers = true; });
    addCmd
        ->add_option("--select", add->selection,
                     "Selection string over the managed nodes, e.g. 'HWModel==\"m1\"'")
        ->type_name("SELECTION")
        ->each([add](const std::string&) { add->hasSelection = true; })
        ->excludes(members);
    addCmd->add_flag("--validate", add->validate,
                     "Check the members (ValidateNodes=1): host names must be nodes, and "
                     "+groups must check theirs");
    addCmd->footer(
        "Give exactly one of --members and --select. Without --validate a member list\n"
        "is taken as given; a selection group is always validated. The expanded member\n"
        "list follows the nodes a second after their last change.");
    out.push_back({addCmd, [add](CliSession& cli, bool) { return groupAdd(cli, *add); }});

    auto* lsCmd = group->add_subcommand(
        "ls", "List groups: name, kind, number of nodes, member list or selection");
    lsCmd->footer("Kind: members or selection. -o json gives every attribute with its raw value.");
    out.push_back({lsCmd, [](CliSession& cli, bool) { return groupList(cli); }});

    auto showName = std::make_shared<std::string>();
    auto* showCmd =
        group->add_subcommand("show", "Show a group's definition and its expanded members");
    showCmd->add_option("name", *showName, "The group's name")->required();
    out.push_back(
        {showCmd, [showName](CliSession& cli, bool) { return groupShow(cli, *showName); }});

    auto membersName = std::make_shared<std::string>();
    auto* membersCmd =
        group->add_subcommand("members", "List a group's expanded members, one a line");
    membersCmd->add_option("name", *membersName, "The group's name")->required();
    membersCmd->footer("-o json gives a JSON array.");
    out.push_back({membersCmd, [membersName](CliSession& cli, bool) {
                       return groupMembers(cli, *membersName);
                   }});

    for (bool adding : {true, false}) {
        auto change = std::make_shared<NamesArgs>();
        auto* cmd = group->add_subcommand(adding ? "add-members" : "rm-members",
                                          adding ? "Add members to a group's member list"
                                                 : "Remove members from a group's member list");
        cmd->add_option("name", change->name, "The group's name")->required();
        cmd->add_option("nodes", change->nodes, "Host names, or other groups as +NAME")->required();
        out.push_back({cmd, [change, adding](CliSession& cli, bool) {
                           return groupChangeMembers(cli, change->name, change->nodes, adding);
                       }});
    }

    auto rmNames = std::make_shared<std::vector<std::string>>();
    auto* rmCmd = group->add_subcommand("rm", "Remove groups");
    rmCmd->add_option("names", *rmNames, "The groups' names")->required();
    rmCmd->footer("A group that another group contains is not removed.");
    out.push_back({rmCmd, [rmNames](CliSession& cli, bool) { return groupRemove(cli, *rmNames); }});
}

}  // namespace orvctl
