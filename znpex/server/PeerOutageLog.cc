#include "znpex/server/PeerOutageLog.h"

namespace znpex::server {

namespace {

// Hosts named in a summary line; the rest are counted.
constexpr size_t kExamples = 3;

}  // namespace

PeerOutageLog::PeerOutageLog(const zn::Clock& clock, zn::Clock::Duration interval, Sink sink)
    : clock_(clock), interval_(interval), sink_(std::move(sink)) {}

bool PeerOutageLog::intervalPassedLocked(zn::Clock::Duration now) const {
    return !wrote_ || now - lastLine_ >= interval_;
}

void PeerOutageLog::down(const std::string& host, const std::string& why) {
    std::string line;
    {
        std::lock_guard<std::mutex> g(mu_);
        down_.insert(host);
        zn::Clock::Duration now = clock_.monoNow();
        if (intervalPassedLocked(now) && unreported_ == 0) {
            wrote_ = true;
            lastLine_ = now;
            line = "peer link to " + host + " is down (" + why +
                   "); its messages are dropped until it is back";
        } else {
            ++unreported_;
            if (examples_.size() < kExamples) {
                examples_.push_back(host + " (" + why + ")");
            }
        }
    }
    if (!line.empty()) {
        sink_(line);
    }
}

void PeerOutageLog::up(const std::string& host) {
    bool wasDown = false;
    {
        std::lock_guard<std::mutex> g(mu_);
        wasDown = down_.erase(host) != 0;
    }
    if (wasDown) {
        sink_("peer link to " + host + " is up again");
    }
}

void PeerOutageLog::flush() {
    std::string line;
    {
        std::lock_guard<std::mutex> g(mu_);
        zn::Clock::Duration now = clock_.monoNow();
        if (unreported_ == 0 || !intervalPassedLocked(now)) {
            return;
        }
        line = "peer links down: " + std::to_string(down_.size()) + " hosts, " +
               std::to_string(unreported_) + " more since the last line, among them";
        for (size_t i = 0; i < examples_.size(); ++i) {
            line += (i == 0 ? " " : ", ") + examples_[i];
        }
        line += "; their messages are dropped until they are back";
        unreported_ = 0;
        examples_.clear();
        wrote_ = true;
        lastLine_ = now;
    }
    sink_(line);
}

size_t PeerOutageLog::downCount() const {
    std::lock_guard<std::mutex> g(mu_);
    return down_.size();
}

}  // namespace znpex::server
