// Finding node groups for the commands: by name, or every one, with the
// attributes a command shows.
#pragma once

#include <string>
#include <vector>

#include "orvctl/GroupCommands.h"
#include "orvctl/Resources.h"

namespace orvctl {

// The selection of the group named `name`.
std::string groupSelection(const std::string& name);
// The message for a name no group has: "no group named NAME".
std::string noGroupNamed(const std::string& name);

// The group named `name`: Yes with its handle in *out; No when there is
// none (nothing printed); Failed after printing why.
Found findGroup(CliSession& cli, const std::string& name, zn_resource_handle* out);

// The groups `selection` picks ("" all), sorted by name, with the
// persistent attributes named (null: every one). A group or attribute that
// could not be read is printed and sets *status to kExitFailed; false after
// printing why when the query failed as a whole.
bool queryGroups(CliSession& cli, const std::string& selection,
                 const std::vector<std::string>* persistent, std::vector<ResourceValues>& out,
                 int* status);

}  // namespace orvctl
