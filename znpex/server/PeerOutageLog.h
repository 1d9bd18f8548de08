// The service log's account of peer links that are down, kept short when
// many hosts have no service (powered off): the first outage after a quiet
// interval is logged at once, the ones that follow within the interval are
// counted and summed up in one line when it ends, and a host coming back is
// logged at once. Times come from the clock given. Thread-safe.
#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace znpex::server {

class PeerOutageLog {
public:
    using Sink = std::function<void(const std::string& line)>;

    PeerOutageLog(const zn::Clock& clock, zn::Clock::Duration interval, Sink sink);

    // `host`'s link went down (once per outage), for `why`.
    void down(const std::string& host, const std::string& why);
    // `host`'s link is up again after an outage.
    void up(const std::string& host);
    // Writes the summary once the interval has passed and there is news.
    void flush();

    size_t downCount() const;

private:
    bool intervalPassedLocked(zn::Clock::Duration now) const;

    const zn::Clock& clock_;
    const zn::Clock::Duration interval_;
    const Sink sink_;
    mutable std::mutex mu_;  // guards everything below
    std::set<std::string> down_;
    size_t unreported_ = 0;              // outages since the last line
    std::vector<std::string> examples_;  // the first few of them, with why
    bool wrote_ = false;
    zn::Clock::Duration lastLine_{};
};

}  // namespace znpex::server
