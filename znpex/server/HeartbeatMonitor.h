// Which hosts of the domain keep beating, as the management server's service
// sees it: every heartbeat report is recorded by node id, and a host not
// heard from for the domain's frequency times its sensitivity is reported
// silent once, until it beats again. Times come from the caller (a
// monotonic clock), so tests give any. Thread-safe.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/clock.h"

namespace znpex::server {

class HeartbeatMonitor {
public:
    using Duration = zn::Clock::Duration;

    // The hosts to watch. Hosts no longer listed are forgotten; new ones
    // count as heard from at `now`, so a host that never beats is reported
    // one silence limit after it joined.
    void setNodes(const std::vector<uint64_t>& nodeIds, Duration now);
    // The same for a few hosts joining or leaving (a change of the table).
    void addNodes(const std::vector<uint64_t>& nodeIds, Duration now);
    void removeNodes(const std::vector<uint64_t>& nodeIds);
    // A beat of `nodeId`. False when the host is not watched. *wasSilent
    // tells whether it had been reported silent (its beat raises it again).
    bool beat(uint64_t nodeId, Duration now, bool* wasSilent = nullptr);
    // The watched hosts not heard from for `limit` or longer that were not
    // reported yet; from now on they count as reported.
    std::vector<uint64_t> newlySilent(Duration now, Duration limit);
    // Forgets every host's silence and beat: all count as heard from `now`
    // (a new tuning starts the count again).
    void restart(Duration now);

    size_t watched() const;
    size_t silent() const;

private:
    struct State {
        Duration lastBeat{};
        bool reportedSilent = false;
    };
    mutable std::mutex mu_;  // guards nodes_
    std::unordered_map<uint64_t, State> nodes_;
};

}  // namespace znpex::server
