// What "orvctl watch" prints: the nodes' Status and PowerStatus as last
// known, and for each event the changes it brings, one line each
// ("2026-11-24T09:50:01Z n3 Status up -> down") or one JSON object per line
// ({"time", "node", "attribute", "old", "new"}, raw numbers, old null when
// it was not known). Pure: the caller feeds it values and the time.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orvctl {

struct StatusChange {
    std::string node;
    std::string attribute;  // "Status" or "PowerStatus"
    std::optional<uint32_t> old;
    uint32_t now;
};

class StatusTracker {
public:
    // What the nodes had when the watch began (no line).
    void know(const std::string& node, const std::string& attribute, uint32_t value);
    // A value an event carries: the change it is, or none when the value is
    // the one known already.
    std::optional<StatusChange> update(const std::string& node, const std::string& attribute,
                                       uint32_t value);
    // The node went: what was known of it is forgotten.
    void forget(const std::string& node);

private:
    std::map<std::pair<std::string, std::string>, uint32_t> known_;
};

// ISO 8601 in UTC, to the second.
std::string isoTime(timespec t);
std::string changeLine(const StatusChange& c, timespec when, bool json);
// A node that went ("... n3 removed", or {"time", "node", "removed": true}).
std::string removedLine(const std::string& node, timespec when, bool json);

}  // namespace orvctl
