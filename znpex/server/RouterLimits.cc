// What connections may cost the service. A caller that has not authenticated
// gets small frames, deadlines for reading, idling and being written to, and
// its requests stop being read while its answers wait; all connections
// share one budget of buffered bytes, and when it runs out the oldest
// holders go first, unauthenticated ones before the rest. Memory that slow
// callers leave behind is handed back to the system. One address may keep
// only so many connections waiting to authenticate.
#include <algorithm>
#include <vector>

#include "znpex/proto/Frame.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;

namespace {

constexpr auto kHousekeeping = std::chrono::seconds(1);
// A reclaim frees this much beyond the excess, so that the next few frames
// do not start another at once.
constexpr size_t kReclaimSlackDivisor = 8;

}  // namespace

ConnectionLimits Router::limitsFor(Transport transport, bool authenticated, bool manager) const {
    ConnectionLimits l;
    if (!authenticated) {
        l.maxFrame = options_.unauthenticatedMaxFrame;
        l.maxQueued = options_.unauthenticatedMaxQueued;
        l.pauseReadingAbove = options_.unauthenticatedPause;
        l.readTimeout = options_.readTimeout;
        l.idleTimeout = options_.unauthenticatedIdle;
        l.writeTimeout = options_.writeTimeout;
        l.kernelSendBuffer = transport == Transport::Tcp ? options_.unauthenticatedPause : 0;
        return l;
    }
    l.maxFrame = proto::kMaxFrame;
    l.readTimeout = options_.readTimeout * 4;
    // A manager must always be read: its answers are how its queue drains.
    // Any other caller waits while 16 MiB of its answers are unread.
    l.pauseReadingAbove = manager ? 0 : (16u << 20);
    return l;
}

bool Router::admitPending(const Connection& c, const std::string& remote) {
    if (pending_.admit(c.id(), remote)) {
        return true;
    }
    // A source opening connections by the thousand: one line in a thousand.
    if ((pending_.refused() - 1) % 1000 == 0) {
        serviceLog(
            "refusing connections from %s: %zu of its connections are waiting to "
            "authenticate already (the limit per address)",
            remote.c_str(), pending_.limit());
    }
    return false;
}

void Router::reclaim(size_t over) {
    struct Candidate {
        std::shared_ptr<Connection> c;
        bool authenticated;
        Connection::Clock::time_point since;
        size_t bytes;
    };
    std::vector<Candidate> all;
    {
        std::lock_guard<std::mutex> g(connMu_);
        for (auto& [id, weak] : connections_) {
            auto c = weak.lock();
            if (c == nullptr || c->closed()) {
                continue;
            }
            size_t bytes = c->heldBytes();
            if (bytes != 0) {
                all.push_back(Candidate{std::move(c), false, {}, bytes});
            }
        }
    }
    for (Candidate& k : all) {
        k.authenticated = k.c->authenticated();
        k.since = k.c->heldSince();
    }
    std::sort(all.begin(), all.end(), [](const Candidate& a, const Candidate& b) {
        if (a.authenticated != b.authenticated) {
            return !a.authenticated;
        }
        return a.since < b.since;
    });
    size_t want = over + budget_.limit() / kReclaimSlackDivisor;
    size_t freed = 0;
    size_t count = 0;
    // Closing may run this connection's close at once (and its close handler
    // takes connMu_): no lock is held here.
    for (Candidate& k : all) {
        if (freed >= want) {
            break;
        }
        if (k.c->condemn()) {
            freed += k.bytes;
            ++count;
        }
    }
    budget_.countClosed(count);
    if (count != 0) {
        serviceLog("connection buffers over %zu MiB: closed %zu connections holding %zu KiB",
                   budget_.limit() >> 20, count, freed >> 10);
    }
}

void Router::startHousekeeping() {
    std::lock_guard<std::mutex> g(housekeepingMu_);
    housekeeping_ = std::make_unique<asio::steady_timer>(executor_, kHousekeeping);
    housekeeping_->async_wait([this](const asio::error_code& ec) {
        if (!ec) {
            housekeeping();
        }
    });
}

void Router::housekeeping() {
    budget_.tick();
    peerOutages_->flush();
    bool flushed = di_.flush();
    if (flushed == diFlushFailing_) {
        serviceLog(flushed ? "table changes synced to disk again"
                           : "table changes not synced to disk; trying every second");
        diFlushFailing_ = !flushed;
    }
    std::lock_guard<std::mutex> g(housekeepingMu_);
    if (housekeeping_ == nullptr) {
        return;  // stopped
    }
    housekeeping_->expires_after(kHousekeeping);
    housekeeping_->async_wait([this](const asio::error_code& ec) {
        if (!ec) {
            housekeeping();
        }
    });
}

void Router::noteClosed(const Connection& c) {
    CloseReason r = c.closeReason();
    std::atomic<uint64_t>* counter = nullptr;
    switch (r) {
        case CloseReason::None:
        case CloseReason::Budget:  // the reclaim logs its own
            return;
        case CloseReason::ReadTimeout:
            counter = &closedForReadTimeout_;
            break;
        case CloseReason::IdleTimeout:
            counter = &closedForIdle_;
            break;
        case CloseReason::WriteTimeout:
            counter = &closedForWriteTimeout_;
            break;
        case CloseReason::QueueFull:
            counter = &closedForQueue_;
            break;
    }
    // Hostile callers come in numbers: one line in a hundred of each kind.
    if (counter->fetch_add(1) % 100 == 0) {
        serviceLog("connection %llu (%s) closed: %s", static_cast<unsigned long long>(c.id()),
                   c.identity().c_str(), closeReasonText(r));
    }
}

Json Router::limitsStatus() const {
    return Json{{"held", budget_.held()},
                {"budget", budget_.limit()},
                {"pendingPerAddress", pending_.limit()},
                {"refusedPending", pending_.refused()},
                {"closed",
                 {{"readTimeout", closedForReadTimeout_.load()},
                  {"idle", closedForIdle_.load()},
                  {"writeTimeout", closedForWriteTimeout_.load()},
                  {"queueFull", closedForQueue_.load()},
                  {"budget", budget_.closed()}}}};
}

}  // namespace znpex::server
