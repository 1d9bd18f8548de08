// The domain's heartbeat. The management server's manager tunes it
// ("di.tuneHeartbeat"): this host becomes the server the beats go to, and
// the tuning travels to every host with the tables. Every other host's
// service then sends a heartbeat report about itself to the server at the
// domain's frequency; the server's service records each host's beats and,
// for a host that missed `sensitivity` beats in a row, hands its manager a
// report with no answering interface, once, until the host beats again.
#include "znpex/di/DiCodec.h"
#include "znpex/proto/HeartbeatReport.h"
#include "znpex/server/PeerMessages.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;

namespace {

// How often the beat and the silence are looked at: well below any frequency
// (whole seconds), so a silent host is reported within a fraction of a
// second of its limit.
constexpr std::chrono::milliseconds kHeartbeatTick{200};

bool sameHeartbeat(const di::Heartbeat& a, const di::Heartbeat& b) {
    return a.frequency == b.frequency && a.sensitivity == b.sensitivity && a.rm == b.rm &&
           a.server == b.server && a.serverNodeId == b.serverNodeId &&
           a.serverAddresses == b.serverAddresses;
}

proto::PeerMessage reportMessage(const proto::HeartbeatReport& r) {
    proto::PeerMessage m;
    m.type = proto::kHeartbeatMessageType;
    m.subtype = proto::kHeartbeatMessageSubtype;
    m.data = proto::buildHeartbeatReport(r);
    return m;
}

}  // namespace

bool Router::heartbeatServer(const di::Heartbeat& h) const {
    return peers_ != nullptr && !h.server.empty() && h.server == peers_->self().host;
}

di::Heartbeat Router::heartbeat() const {
    std::lock_guard<std::mutex> g(hbMu_);
    return hb_;
}

int Router::takeHeartbeat(const di::Heartbeat& h, bool* changed, std::string* why) {
    *changed = false;
    {
        std::lock_guard<std::mutex> g(hbMu_);
        if (sameHeartbeat(h, hb_)) {
            return DI_OK;
        }
    }
    if (int rc = di_.setHeartbeat(h, why); rc != DI_OK) {
        return rc;
    }
    zn::Clock::Duration now = clock_.monoNow();
    {
        std::lock_guard<std::mutex> g(hbMu_);
        hb_ = h;
        nextBeat_ = now;  // the first beat at once
    }
    monitor_.restart(now);
    *changed = true;
    refreshPeers();
    return DI_OK;
}

void Router::startHeartbeats() {
    {
        std::lock_guard<std::mutex> g(hbMu_);
        nextBeat_ = clock_.monoNow();
    }
    std::lock_guard<std::mutex> g(housekeepingMu_);
    hbTimer_ = std::make_unique<asio::steady_timer>(executor_, kHeartbeatTick);
    hbTimer_->async_wait([this](const asio::error_code& ec) {
        if (!ec) {
            heartbeatTick();
        }
    });
}

void Router::heartbeatTick() {
    zn::Clock::Duration now = clock_.monoNow();
    di::Heartbeat h;
    bool beatNow = false;
    {
        std::lock_guard<std::mutex> g(hbMu_);
        h = hb_;
        if (h.frequency != 0 && now >= nextBeat_) {
            nextBeat_ = now + std::chrono::seconds(h.frequency);
            beatNow = true;
        }
    }
    if (h.frequency != 0 && !h.server.empty()) {
        if (heartbeatServer(h)) {
            auto limit = std::chrono::seconds(h.frequency) * h.sensitivity;
            for (uint64_t id : monitor_.newlySilent(now, limit)) {
                silentReports_.fetch_add(1);
                deliverToManager(h.rm, reportMessage(proto::HeartbeatReport{id, {}}));
            }
        } else if (beatNow) {
            sendBeat(h);
        }
    }
    std::lock_guard<std::mutex> g(housekeepingMu_);
    if (hbTimer_ == nullptr) {
        return;  // stopped
    }
    hbTimer_->expires_after(kHeartbeatTick);
    hbTimer_->async_wait([this](const asio::error_code& ec) {
        if (!ec) {
            heartbeatTick();
        }
    });
}

void Router::sendBeat(const di::Heartbeat& h) {
    proto::HeartbeatReport r;
    r.nodeId = peers_->self().nodeId;
    {
        std::lock_guard<std::mutex> g(hbMu_);
        for (const std::string& a : selfAddresses_) {
            r.entries.push_back(proto::HeartbeatEntry{1, a});
        }
    }
    PeerDeliver d{h.rm, reportMessage(r)};
    peers_->send(h.server, kPeerDeliver, encodePeerDeliver(d), options_.peerTimeout,
                 [this](PeerLink::Outcome o, Json) {
                     (o == PeerLink::Outcome::Answered ? beatsSent_ : beatsFailed_).fetch_add(1);
                 });
}

void Router::heartbeatReceived(const PeerDeliver& d) {
    di::Heartbeat h = heartbeat();
    if (!heartbeatServer(h) || d.rm != h.rm) {
        return;
    }
    proto::HeartbeatReport r;
    std::string why;
    if (!proto::parseHeartbeatReport(d.message.data.data(), d.message.data.size(), r, why) ||
        !monitor_.beat(r.nodeId, clock_.monoNow())) {
        beatsRefused_.fetch_add(1);  // the manager judges it; it counts for no host here
        return;
    }
    beatsReceived_.fetch_add(1);
}

bool Router::deliverToManager(const std::string& rm, const proto::PeerMessage& m,
                              Connection::Written written) {
    std::shared_ptr<Connection> manager;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = managersByName_.find(rm);
        if (it != managersByName_.end()) {
            manager = it->second.lock();
        }
    }
    if (manager == nullptr || manager->closed()) {
        return false;
    }
    std::string payload =
        proto::dumpJson(proto::makeNotification(proto::kPeerReceived, proto::encodePeerMessage(m)));
    if (written) {
        manager->send(std::move(payload), std::move(written));
    } else {
        manager->send(std::move(payload));
    }
    return true;
}

Json Router::heartbeatStatus() const {
    di::Heartbeat h = heartbeat();
    const char* role = h.frequency == 0 || h.server.empty() ? "none"
                       : heartbeatServer(h)                 ? "server"
                                                            : "sender";
    return Json{{"frequency", h.frequency},
                {"sensitivity", h.sensitivity},
                {"rm", h.rm},
                {"server", h.server},
                {"role", role},
                {"sent", beatsSent_.load()},
                {"sendFailed", beatsFailed_.load()},
                {"received", beatsReceived_.load()},
                {"refused", beatsRefused_.load()},
                {"silentReports", silentReports_.load()},
                {"watched", monitor_.watched()},
                {"silent", monitor_.silent()}};
}

}  // namespace znpex::server
