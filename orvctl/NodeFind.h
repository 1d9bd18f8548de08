// Finding nodes for the commands: by host name or by selection, with the
// values of the attributes a command shows.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "orvctl/NodeCommands.h"
#include "platform/zn_owned.h"
#include "platform/zn_types.h"
#include "znpex/proto/Json.h"

namespace orvctl {

// `text` as a selection's string literal: quoted, with quotes and
// backslashes escaped.
std::string selectionLiteral(const std::string& text);
// The selection of the node with host name `name`.
std::string nameSelection(const std::string& name);
// The message for a host name no node has: "no node named NAME".
std::string noNodeNamed(const std::string& name);

enum class Found { Yes, No, Failed };

// The node named `name`: Yes with its handle in *out; No when there is none
// (nothing printed); Failed after printing why.
Found findNode(CliSession& cli, const std::string& name, zn_resource_handle* out);

// One node's values, by attribute name.
struct NodeValues {
    zn_resource_handle handle{};
    std::map<std::string, zn::OwnedValue> values;
    std::map<std::string, zn::ErrorPtr> errors;  // attributes that could not be read

    const zn::OwnedValue* find(const std::string& name) const;
    std::string hostname() const;
    // {"handle": ..., "attributes": {name: value, ...}} with "errors" when
    // some could not be read, as znpex list -o json shows a resource.
    znpex::proto::Json json() const;
};

// The nodes `selection` picks ("" all), sorted by host name, with the
// persistent and dynamic attributes named (null: every one of that kind).
// A node or attribute that could not be read is printed and sets *status to
// kExitFailed; false after printing why when the query failed as a whole.
bool queryNodes(CliSession& cli, const std::string& selection,
                const std::vector<std::string>* persistent, const std::vector<std::string>* dynamic,
                std::vector<NodeValues>& out, int* status);

}  // namespace orvctl
