// How orvctl reads and shows node groups: a member list as typed on the
// command line, and a group as its listing shows it (kind, definition,
// expanded members).
#pragma once

#include <string>
#include <vector>

#include "orvctl/Resources.h"

namespace orvctl {

// "n1,n2,+rack": the names between commas, blanks around each dropped; ""
// gives no names (an empty group). Empty names stay, for the manager to
// refuse.
std::vector<std::string> splitMembers(const std::string& text);
// The names joined by commas.
std::string joinNames(const std::vector<std::string>& names);

struct GroupSummary {
    std::string name;
    std::string kind;                // "members" or "selection"
    std::string definition;          // the member list or the selection string
    bool validate = false;           // ValidateNodes
    std::vector<std::string> nodes;  // the expanded member list
};

// A group's summary from its Name, MemberList, SelectStr, ValidateNodes and
// ExpMemberList; what was not read counts as empty.
GroupSummary summaryOf(const ResourceValues& group);

}  // namespace orvctl
