#include "znpex/server/HeartbeatMonitor.h"

#include <unordered_set>

namespace znpex::server {

void HeartbeatMonitor::setNodes(const std::vector<uint64_t>& nodeIds, Duration now) {
    std::unordered_set<uint64_t> keep(nodeIds.begin(), nodeIds.end());
    std::lock_guard<std::mutex> g(mu_);
    for (auto it = nodes_.begin(); it != nodes_.end();) {
        it = keep.count(it->first) != 0 ? std::next(it) : nodes_.erase(it);
    }
    for (uint64_t id : nodeIds) {
        nodes_.try_emplace(id, State{now, false});
    }
}

void HeartbeatMonitor::addNodes(const std::vector<uint64_t>& nodeIds, Duration now) {
    std::lock_guard<std::mutex> g(mu_);
    for (uint64_t id : nodeIds) {
        nodes_.try_emplace(id, State{now, false});
    }
}

void HeartbeatMonitor::removeNodes(const std::vector<uint64_t>& nodeIds) {
    std::lock_guard<std::mutex> g(mu_);
    for (uint64_t id : nodeIds) {
        nodes_.erase(id);
    }
}

bool HeartbeatMonitor::beat(uint64_t nodeId, Duration now, bool* wasSilent) {
    std::lock_guard<std::mutex> g(mu_);
    auto it = nodes_.find(nodeId);
    if (it == nodes_.end()) {
        return false;
    }
    if (wasSilent != nullptr) {
        *wasSilent = it->second.reportedSilent;
    }
    it->second = State{now, false};
    return true;
}

std::vector<uint64_t> HeartbeatMonitor::newlySilent(Duration now, Duration limit) {
    std::vector<uint64_t> out;
    std::lock_guard<std::mutex> g(mu_);
    for (auto& [id, s] : nodes_) {
        if (!s.reportedSilent && now - s.lastBeat >= limit) {
            s.reportedSilent = true;
            out.push_back(id);
        }
    }
    return out;
}

void HeartbeatMonitor::restart(Duration now) {
    std::lock_guard<std::mutex> g(mu_);
    for (auto& [id, s] : nodes_) {
        s = State{now, false};
    }
}

size_t HeartbeatMonitor::watched() const {
    std::lock_guard<std::mutex> g(mu_);
    return nodes_.size();
}

size_t HeartbeatMonitor::silent() const {
    std::lock_guard<std::mutex> g(mu_);
    size_t n = 0;
    for (const auto& [id, s] : nodes_) {
        n += s.reportedSilent ? 1 : 0;
    }
    return n;
}

}  // namespace znpex::server
