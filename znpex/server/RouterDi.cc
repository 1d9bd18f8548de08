// The distributed-information tables as the service offers them: a manager
// on this host refreshes a transaction into them (applied, safe from a crash
// of the service, before the answer; on disk within the second; then handed
// on to the other hosts of the domain), tunes the
// heartbeat, and every authenticated session may read the tables and watch
// them change.
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

int Router::applyDi(const di::Transaction& t, std::string* why, uint64_t stamp) {
    int rc = di_.apply(t, why, stamp);
    if (rc != DI_OK) {
        return rc;
    }
    if (t.clearNodes) {
        refreshPeers();
    } else if (!t.nodes.empty()) {
        refreshPeers(t);
    }
    bool nodes = t.clearNodes || !t.nodes.empty();
    bool groups = t.clearGroups || !t.groups.empty();
    std::string note = proto::dumpJson(proto::makeNotification(
        di::kDiChanged, Json{{"version", di_.version()}, {"nodes", nodes}, {"groups", groups}}));
    std::vector<std::shared_ptr<Connection>> targets;
    {
        std::lock_guard<std::mutex> g(diWatchMu_);
        for (auto& [id, weak] : diWatchers_) {
            if (auto w = weak.lock()) {
                targets.push_back(std::move(w));
            }
        }
    }
    for (auto& w : targets) {
        w->send(note);
    }
    return DI_OK;
}

void Router::diRefresh(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    di::Transaction t = di::decodeTransaction(m.params);  // ProtocolError: invalid params
    std::weak_ptr<Connection> weak = c;
    Json id = m.id;
    std::string identity = c->identity();
    replicateChange(t, [this, weak, id, identity](int code, const std::string& why) {
        auto conn = weak.lock();
        if (code != DI_OK && code != DI_EPARTIAL) {
            serviceLog("table refresh from %s not applied: %s", identity.c_str(), why.c_str());
            if (conn) {
                replyResult(conn, id, Json{{"code", code}, {"reason", why}});
            }
            return;
        }
        if (conn) {
            replyResult(conn, id, Json{{"code", code}, {"version", di_.version()}});
        }
    });
}

void Router::diTuneHeartbeat(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    di::Heartbeat h = di::decodeHeartbeat(m.params);
    if (h.frequency == 0 || h.sensitivity == 0) {
        throw proto::ProtocolError("params: frequency and sensitivity must be at least 1");
    }
    // The beats come here: this host is the server, reached where it listens.
    h.server.clear();
    h.serverNodeId = 0;
    h.serverAddresses.clear();
    if (peers_ != nullptr) {
        const PeerDirectory::Self& self = peers_->self();
        h.server = self.host;
        h.serverNodeId = self.nodeId;
        if (self.listenAddress != "0.0.0.0" && self.listenAddress != "::") {
            h.serverAddresses.push_back(self.listenAddress);
        }
    }
    std::string why;
    bool changed = false;
    int rc = takeHeartbeat(h, &changed, &why);
    if (rc != DI_OK) {
        serviceLog("heartbeat tuning not stored: %s", why.c_str());
        replyResult(c, m.id, Json{{"code", rc}, {"reason", why}});
        return;
    }
    if (changed) {
        serviceLog("heartbeat tuned by %s: every %u s, %u missed beats%s%s", c->identity().c_str(),
                   h.frequency, h.sensitivity, h.rm.empty() ? "" : ", reported to ", h.rm.c_str());
        // The other hosts learn it as a change that carries it.
        if (peers_ != nullptr) {
            replicateChange(di::Transaction{}, [](int, const std::string&) {});
        }
    }
    replyResult(c, m.id, Json{{"code", DI_OK}});
}

void Router::diWatch(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    {
        std::lock_guard<std::mutex> g(diWatchMu_);
        if (!c->closed()) {
            diWatchers_[c->id()] = c;
        }
    }
    replyResult(c, m.id, Json{{"version", di_.version()}});
}

Json Router::diStatus() const {
    di::Heartbeat h = heartbeat();
    return Json{{"version", di_.version()},
                {"nodes", di_.nodes().size()},
                {"groups", di_.groups().size()},
                {"heartbeat", {{"frequency", h.frequency}, {"sensitivity", h.sensitivity}}}};
}

}  // namespace znpex::server
