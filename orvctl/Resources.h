// Reading resources for the commands: the resources a selection picks in a
// class, with the values of the attributes a command shows, sorted by their
// name; and selecting one by its name.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "platform/zn_types.h"
#include "znpex/cli/CliSession.h"
#include "znpex/proto/Json.h"

namespace orvctl {

using znpex::cli::CliSession;

// `text` as a selection's string literal: quoted, with quotes and
// backslashes escaped.
std::string selectionLiteral(const std::string& text);

// One resource's values, by attribute name.
struct ResourceValues {
    zn_resource_handle handle{};
    std::map<std::string, zn::OwnedValue> values;
    std::map<std::string, zn::ErrorPtr> errors;  // attributes that could not be read

    const zn::OwnedValue* find(const std::string& name) const;
    // A text attribute's value; "" when it has none.
    std::string text(const std::string& name) const;
    // {"handle": ..., "attributes": {name: value, ...}} with "errors" when
    // some could not be read, as znpex list -o json shows a resource.
    znpex::proto::Json json() const;
};

// What to read of each resource: the persistent and dynamic attributes
// named (null: every one of that kind; an empty list: none of that kind),
// and the text attribute the result is sorted by.
struct ResourceQuery {
    ResourceQuery(const char* cls, const char* sort) : className(cls), sortBy(sort) {}

    const char* className;
    const char* sortBy;
    std::string selection;                       // "": every resource
    const zn_resource_handle* handle = nullptr;  // this resource alone, not a selection
    const std::vector<std::string>* persistent = nullptr;
    const std::vector<std::string>* dynamic = nullptr;
};

enum class Found { Yes, No, Failed };

// The first resource of `className` that `selection` picks: Yes with its
// handle in *out; No when there is none (nothing printed); Failed after
// printing why.
Found findResource(CliSession& cli, const char* className, const std::string& selection,
                   zn_resource_handle* out);

// The resources `q` picks. A resource or attribute that could not be read is
// printed and sets *status to kExitFailed; false after printing why when the
// query failed as a whole.
bool queryResources(CliSession& cli, const ResourceQuery& q, std::vector<ResourceValues>& out,
                    int* status);

}  // namespace orvctl
