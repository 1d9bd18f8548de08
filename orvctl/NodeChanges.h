// What changed on a node between two readings of its attributes, and how
// the change reads: "ATTR: old -> new" a line, or as JSON
// {"changed": {ATTR: {"old": ..., "new": ...}}} with raw values.
#pragma once

#include <string>
#include <vector>

#include "orvctl/Resources.h"
#include "znpex/proto/Json.h"

namespace orvctl {

struct AttrChange {
    std::string name;
    std::string oldText;  // as a table shows it; an empty value reads ""
    std::string newText;
    znpex::proto::Json oldValue;  // raw; null when the attribute had no value
    znpex::proto::Json newValue;
};

// The attributes whose values differ, by name; an attribute that could not
// be read either time is left out.
std::vector<AttrChange> changesBetween(const ResourceValues& before, const ResourceValues& after);
// "ATTR: old -> new".
std::string changeLine(const AttrChange& c);
// {"changed": {ATTR: {"old": ..., "new": ...}, ...}}.
znpex::proto::Json changesJson(const std::vector<AttrChange>& changes);

}  // namespace orvctl
