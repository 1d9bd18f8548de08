// The router's side of the management domain: links to the other hosts'
// services, the greeting that makes an inbound connection a peer, peer
// messages between managers of the same name, and table replication.
//
// Replication sends whole tables, stamped with the time of the change that
// made them (milliseconds, kept increasing per host). A host takes a copy
// only when its stamp is newer than the newest it has, so copies may arrive
// in any order and a host that missed changes catches up from the first
// copy it gets: after every local change, and whenever a link to a host
// comes up (again). The stamp is stored with the tables, so a restarted host
// neither takes an older copy over the newer tables it kept nor is ignored
// when it sends them.
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "tarn_rmf2v/RMNodeId.h"
#include "znhas/znhas.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

std::string systemHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    return name;
}

// True when the trusted host list has a key for `host`.
bool trustedHost(const std::string& host) {
    sec_buffer_t token = nullptr;
    int rc = sec_get_host_token(host.c_str(), &token);
    if (token != nullptr) {
        sec_release_host_token(&token);
    }
    return rc == 0;
}

uint64_t nowMillis() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

Json replicateParams(uint64_t stamp, const di::Transaction& snapshot) {
    return Json{{"stamp", proto::decimal(stamp)}, {"tables", di::encodeTransaction(snapshot)}};
}

// The "code" of a peer's "di.replicate" answer, or -1.
int replicateCode(const PeerReply& r) {
    if (r.outcome != PeerLink::Outcome::Answered) {
        return -1;
    }
    const Json* result = proto::findField(r.response, "result");
    if (result == nullptr || !result->is_object() || !result->contains("code") ||
        !(*result)["code"].is_number_integer()) {
        return -1;
    }
    return (*result)["code"].get<int>();
}

}  // namespace

void Router::startPeers(const std::string& listenAddress, uint16_t port) {
    {
        std::lock_guard<std::mutex> g(diStampMu_);
        diStamp_ = di_.stamp();
    }
    PeerDirectory::Self self;
    self.host = options_.hostName.empty() ? systemHostName() : options_.hostName;
    self.nodeId = options_.nodeId;
    if (self.nodeId == 0) {
        std::string why;
        self.nodeId = tarn_rmf2v::loadOrCreateNodeId(&why);
        if (self.nodeId == 0) {
            serviceLog("no node id (%s): this host is known by its address only", why.c_str());
        }
    }
    self.listenAddress = listenAddress;
    PeerLinkOptions lo;
    lo.port = options_.peerPort != 0 ? options_.peerPort : port;
    lo.connectTimeout =
        std::min<std::chrono::milliseconds>(options_.peerTimeout, std::chrono::seconds(3));
    lo.helloTimeout = options_.peerTimeout;
    lo.backoffMax = options_.peerBackoffMax;
    // Outbound links leave from the address this service listens on, so the
    // other hosts see the address the node table lists for this one.
    if (listenAddress != "0.0.0.0" && listenAddress != "::") {
        lo.sourceAddress = listenAddress;
    }
    serviceLog("this host is %s, node id %llu; other hosts' services on port %u", self.host.c_str(),
               static_cast<unsigned long long>(self.nodeId), static_cast<unsigned>(lo.port));
    peers_ = std::make_unique<PeerDirectory>(executor_, self, lo,
                                             [this](const std::string& host) { peerUp(host); });
    refreshPeers();
    setDiReplicator([this](const di::Transaction& t, std::function<void(int)> done) {
        replicate(t, std::move(done));
    });
    // A restarted host offers what it kept; hosts with newer tables answer
    // with theirs (see diReplicate), so both sides catch up without waiting
    // for the next change.
    for (const PeerHost& h : peers_->hosts()) {
        peerUp(h.host);
    }
}

void Router::refreshPeers() {
    if (peers_ == nullptr) {
        return;
    }
    std::vector<PeerHost> hosts;
    for (di::NodeEntry& n : di_.nodes()) {
        hosts.push_back(PeerHost{std::move(n.hostname), n.nodeId, std::move(n.addresses)});
    }
    peers_->setHosts(hosts);
}

std::string Router::peerHostOf(const Connection& c) const {
    std::lock_guard<std::mutex> g(peerMu_);
    auto it = peerHosts_.find(c.id());
    return it != peerHosts_.end() ? it->second : std::string();
}

std::string Router::identityOf(const Connection& c) const {
    std::string host = peerHostOf(c);
    return host.empty() ? c.identity() : host + "@PEER";
}

void Router::peerHello(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    PeerHello h = decodePeerHello(m.params);
    std::string remote;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = tcpAddresses_.find(c->id());
        if (it != tcpAddresses_.end()) {
            remote = it->second;
        }
    }
    std::string why;
    if (peers_ == nullptr) {
        why = "this service takes no links from other hosts";
    } else if (remote.empty()) {
        why = "other hosts' services greet over TCP only";
    } else if (!trustedHost(h.host)) {
        why = "host " + h.host + " is not in the trusted host list";
    } else if (h.host != remote) {
        bool listed = false;
        for (const di::NodeEntry& n : di_.nodes()) {
            if (n.hostname == h.host) {
                listed = listed || std::find(n.addresses.begin(), n.addresses.end(), remote) !=
                                       n.addresses.end();
            }
        }
        if (!listed) {
            why = "the node table does not list " + remote + " as an address of " + h.host;
        }
    }
    if (!why.empty()) {
        if (refusedPeers_.fetch_add(1) % 100 == 0) {
            serviceLog("peer greeting from %s refused: %s", remote.c_str(), why.c_str());
        }
        replyError(c, m.id, proto::kPermissionDenied, why);
        return;
    }
    {
        std::lock_guard<std::mutex> g(peerMu_);
        peerHosts_[c->id()] = h.host;
    }
    PeerHelloResult r;
    r.identity = h.host + "@PEER";
    r.host = peers_->self().host;
    r.nodeId = peers_->self().nodeId;
    replyResult(c, m.id, encodePeerHelloResult(r));
}

void Router::peerDeliver(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    PeerDeliver d = decodePeerDeliver(m.params);
    std::shared_ptr<Connection> manager;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = managersByName_.find(d.rm);
        if (it != managersByName_.end()) {
            manager = it->second.lock();
        }
    }
    bool delivered = manager != nullptr && !manager->closed();
    if (delivered) {
        peerReceived_.fetch_add(1);
        manager->send(proto::dumpJson(
            proto::makeNotification(proto::kPeerReceived, proto::encodePeerMessage(d.message))));
    }
    replyResult(c, m.id, Json{{"delivered", delivered}});
}

void Router::peerSend(const std::string& rmName, const RpcMessage& m) {
    PeerDeliver d;
    d.rm = rmName;
    d.message = proto::decodePeerMessage(m.params);
    if (peers_ == nullptr) {
        return;
    }
    std::vector<std::string> hosts;
    for (const PeerHost& h : peers_->hosts()) {
        hosts.push_back(h.host);
    }
    peers_->fanOut(hosts, kPeerDeliver, encodePeerDeliver(d), options_.peerTimeout,
                   [this](std::vector<PeerReply> replies) {
                       for (const PeerReply& r : replies) {
                           const Json* result = proto::findField(r.response, "result");
                           if (r.outcome != PeerLink::Outcome::Answered || result == nullptr) {
                               peerFailed_.fetch_add(1);
                           } else if (result->is_object() && result->value("delivered", false)) {
                               peerDelivered_.fetch_add(1);
                           } else {
                               peerUnclaimed_.fetch_add(1);
                           }
                       }
                   });
}

void Router::storeStamp(uint64_t stamp) {
    std::string why;
    if (di_.setStamp(stamp, &why) != DI_OK) {
        // The tables are right; only a restart before the next change could
        // take an older copy for newer.
        serviceLog("table stamp not stored: %s", why.c_str());
    }
}

void Router::replicate(const di::Transaction&, std::function<void(int code)> done) {
    uint64_t stamp = 0;
    di::Transaction snapshot;
    {
        std::lock_guard<std::mutex> g(diStampMu_);
        stamp = std::max(nowMillis(), diStamp_ + 1);
        diStamp_ = stamp;
        snapshot = di_.snapshot();
        storeStamp(stamp);
    }
    std::vector<std::string> hosts;
    if (peers_ != nullptr) {
        for (const PeerHost& h : peers_->hosts()) {
            hosts.push_back(h.host);
        }
    }
    if (hosts.empty()) {
        done(DI_OK);
        return;
    }
    peers_->fanOut(hosts, kDiReplicate, replicateParams(stamp, snapshot), options_.peerTimeout,
                   [this, done = std::move(done)](std::vector<PeerReply> replies) {
                       bool all = true;
                       for (const PeerReply& r : replies) {
                           all = all && replicateCode(r) == DI_OK;
                       }
                       (all ? replicated_ : replicationsPartial_).fetch_add(1);
                       done(all ? DI_OK : DI_EPARTIAL);
                   });
}

void Router::peerUp(const std::string& host) {
    uint64_t stamp = 0;
    di::Transaction snapshot;
    {
        std::lock_guard<std::mutex> g(diStampMu_);
        stamp = diStamp_;
        if (stamp != 0) {
            snapshot = di_.snapshot();
        }
    }
    if (stamp == 0) {
        return;  // nothing newer than what a restarted host has itself
    }
    peers_->send(host, kDiReplicate, replicateParams(stamp, snapshot), options_.peerTimeout,
                 [](PeerLink::Outcome, Json) {});
}

void Router::diReplicate(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    const std::string w = "params";
    proto::requireObject(m.params, w);
    uint64_t stamp =
        proto::asDecimalUInt64(proto::requireField(m.params, "stamp", w), w + ".stamp");
    di::Transaction t = di::decodeTransaction(proto::requireField(m.params, "tables", w));
    if (!t.clearNodes || !t.clearGroups || t.op == DI_TABLE_REMOVE) {
        throw proto::ProtocolError(
            w + ".tables: expected whole tables (both cleared first, rows added)");
    }
    std::unique_lock<std::mutex> g(diStampMu_);
    if (stamp <= diStamp_) {
        // What we have is as new: nothing to take. When it is newer, the
        // sender missed changes: it gets ours back.
        bool newer = stamp < diStamp_;
        g.unlock();
        replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", false}, {"version", di_.version()}});
        if (std::string host = peerHostOf(*c); newer && !host.empty()) {
            peerUp(host);
        }
        return;
    }
    std::string why;
    int rc = applyDi(t, &why);
    if (rc != DI_OK) {
        serviceLog("tables from %s not applied: %s", peerHostOf(*c).c_str(), why.c_str());
        replyResult(c, m.id, Json{{"code", rc}, {"reason", why}});
        return;
    }
    diStamp_ = stamp;
    storeStamp(stamp);
    replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", true}, {"version", di_.version()}});
}

Json Router::peerStatus() const {
    Json j{{"delivered", peerDelivered_.load()},
           {"failed", peerFailed_.load()},
           {"unclaimed", peerUnclaimed_.load()},
           {"received", peerReceived_.load()},
           {"replicated", replicated_.load()},
           {"replicationsPartial", replicationsPartial_.load()},
           {"refusedGreetings", refusedPeers_.load()}};
    if (peers_ != nullptr) {
        j["host"] = peers_->self().host;
        j["nodeId"] = proto::decimal(peers_->self().nodeId);
        j["links"] = peers_->status();
    }
    return j;
}

}  // namespace znpex::server
