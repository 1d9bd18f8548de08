// What "orvctl status" says about the nodes: how many there are by Status,
// PowerStatus and Mode, and which are not reachable, as text for a person
// or JSON for scripts. Pure: built from values already read.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "orvctl/Resources.h"
#include "znpex/proto/Json.h"

namespace orvctl {

struct StatusSummary {
    size_t nodes = 0;
    // By the words orvctl shows ("up", "down", "unknown"; "on", "off",
    // "unknown"; the mode as it stands). A value that could not be read
    // counts as "(error)".
    std::map<std::string, size_t> status;
    std::map<std::string, size_t> power;
    std::map<std::string, size_t> mode;
    std::vector<std::string> unreachable;  // Status down, by host name
    std::vector<std::string> unknown;      // Status unknown (never heard of yet)
};

StatusSummary summarize(const std::vector<ResourceValues>& nodes);
// "Nodes: 3", then one line each for status, power and mode ("Status: up 2,
// down 1"), then "Not reachable: a, b" and "Status unknown: c" when any.
void printSummary(std::ostream& out, const StatusSummary& s);
// {"nodes": n, "status": {"up": n, ...}, "power": {...}, "mode": {...},
//  "unreachable": [names], "unknown": [names]}
znpex::proto::Json summaryJson(const StatusSummary& s);

}  // namespace orvctl
