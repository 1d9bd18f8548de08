// Finding nodes for the commands: by host name or by selection, with the
// values of the attributes a command shows.
#pragma once

#include <string>
#include <vector>

#include "orvctl/NodeCommands.h"
#include "orvctl/Resources.h"

namespace orvctl {

using NodeValues = ResourceValues;

// The selection of the node with host name `name`.
std::string nameSelection(const std::string& name);
// The message for a host name no node has: "no node named NAME".
std::string noNodeNamed(const std::string& name);

// The node named `name`: Yes with its handle in *out; No when there is none
// (nothing printed); Failed after printing why.
Found findNode(CliSession& cli, const std::string& name, zn_resource_handle* out);

// The nodes `selection` picks ("" all), sorted by host name, with the
// persistent and dynamic attributes named (null: every one of that kind;
// empty: none). A node or attribute that could not be read is printed and
// sets *status to kExitFailed; false after printing why when the query
// failed as a whole.
bool queryNodes(CliSession& cli, const std::string& selection,
                const std::vector<std::string>* persistent, const std::vector<std::string>* dynamic,
                std::vector<NodeValues>& out, int* status);

}  // namespace orvctl
