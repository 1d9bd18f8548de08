// The node-group commands of orvctl, each given the session and its parsed
// arguments and returning the exit status (znpex::cli::kExit*). Refusals
// print the catalogue's text as the manager sent it; a name no group has
// gives "no group named NAME".
#pragma once

#include <string>
#include <vector>

#include "znpex/cli/CliSession.h"

namespace orvctl {

using znpex::cli::CliSession;

inline constexpr char kGroupClass[] = "Kor.NodeGroup";

struct GroupAddArgs {
    std::string name;
    std::string members;  // "n1,n2,+group"
    bool hasMembers = false;
    std::string selection;
    bool hasSelection = false;
    bool validate = false;  // ValidateNodes=1
};

int groupAdd(CliSession& cli, const GroupAddArgs& args);
int groupList(CliSession& cli);
int groupShow(CliSession& cli, const std::string& name);
// The expanded member list, one name a line.
int groupMembers(CliSession& cli, const std::string& name);
// AddMembers (adding) or RemMembers with `nodes`.
int groupChangeMembers(CliSession& cli, const std::string& name,
                       const std::vector<std::string>& nodes, bool adding);
int groupRemove(CliSession& cli, const std::vector<std::string>& names);

}  // namespace orvctl
