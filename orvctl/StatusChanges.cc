#include "orvctl/StatusChanges.h"

#include "orvctl/NodeWords.h"
#include "znpex/proto/Json.h"

namespace orvctl {
namespace {

std::string word(const std::string& attribute, uint32_t v) {
    return attribute == "PowerStatus" ? powerWord(v) : statusWord(v);
}

}  // namespace

void StatusTracker::know(const std::string& node, const std::string& attribute, uint32_t value) {
    known_[{node, attribute}] = value;
}

std::optional<StatusChange> StatusTracker::update(const std::string& node,
                                                  const std::string& attribute, uint32_t value) {
    auto key = std::make_pair(node, attribute);
    auto it = known_.find(key);
    std::optional<uint32_t> old;
    if (it != known_.end()) {
        if (it->second == value) {
            return std::nullopt;
        }
        old = it->second;
    }
    known_[key] = value;
    return StatusChange{node, attribute, old, value};
}

void StatusTracker::forget(const std::string& node) {
    for (auto it = known_.begin(); it != known_.end();) {
        it = it->first.first == node ? known_.erase(it) : std::next(it);
    }
}

std::string isoTime(timespec t) {
    std::tm tm{};
    gmtime_r(&t.tv_sec, &tm);
    char buf[32] = {};
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

std::string changeLine(const StatusChange& c, timespec when, bool json) {
    if (json) {
        znpex::proto::Json j{{"time", isoTime(when)},
                             {"node", c.node},
                             {"attribute", c.attribute},
                             {"old", nullptr},
                             {"new", c.now}};
        if (c.old) {
            j["old"] = *c.old;
        }
        return znpex::proto::dumpJson(j);
    }
    return isoTime(when) + ' ' + c.node + ' ' + c.attribute + ' ' +
           (c.old ? word(c.attribute, *c.old) : "?") + " -> " + word(c.attribute, c.now);
}

std::string removedLine(const std::string& node, timespec when, bool json) {
    if (json) {
        return znpex::proto::dumpJson(
            znpex::proto::Json{{"time", isoTime(when)}, {"node", node}, {"removed", true}});
    }
    return isoTime(when) + ' ' + node + " removed";
}

}  // namespace orvctl
