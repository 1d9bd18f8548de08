// The node commands of orvctl, each given the session and its parsed
// arguments and returning the exit status (znpex::cli::kExit*). Refusals
// print the catalogue's text as the manager sent it.
#pragma once

#include <string>
#include <vector>

#include "znpex/cli/CliSession.h"

namespace orvctl {

using znpex::cli::CliSession;

inline constexpr char kNodeClass[] = "Kor.ManagedNode";

struct AddArgs {
    std::string name;
    std::vector<std::string> ips;
    std::string id;  // "": not given
    std::vector<std::string> assignments;
};

struct RemoveArgs {
    std::vector<std::string> names;
    std::string selection;
    bool hasSelection = false;
};

int nodeAdd(CliSession& cli, const AddArgs& args);
// wide: more columns in the table.
int nodeList(CliSession& cli, const std::string& selection, bool wide);
int nodeShow(CliSession& cli, const std::string& name);
int nodeSet(CliSession& cli, const std::string& name, const std::vector<std::string>& assignments);
int nodeRemove(CliSession& cli, const RemoveArgs& args);
// The groups whose expanded member list holds the node.
int nodeGroups(CliSession& cli, const std::string& name);
// The node's syncData action, and what it changed.
int nodeSync(CliSession& cli, const std::string& name);

}  // namespace orvctl
