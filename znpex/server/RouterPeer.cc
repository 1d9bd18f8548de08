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

#include <strings.h>

#include <algorithm>
#include <climits>
#include <optional>

#include "platform/clock.h"
#include "tarn_rmf2v/RMNodeId.h"
#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/HeartbeatReport.h"
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

// The wall clock in milliseconds since the epoch.
uint64_t nowMillis() {
    timespec t = zn::processClock().wallNow();
    return static_cast<uint64_t>(static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000);
}

// The tables and, once tuned, the domain's heartbeat.
Json replicateParams(uint64_t stamp, const di::Transaction& snapshot, const di::Heartbeat& h) {
    Json p{{"stamp", proto::decimal(stamp)}, {"tables", di::encodeTransaction(snapshot)}};
    if (h.frequency != 0) {
        p["heartbeat"] = di::encodeHeartbeat(h);
    }
    return p;
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
        // A stamp from beyond the allowed skew was never made by a clock of
        // the domain (an older version took any): it would freeze the tables.
        uint64_t limit = latestStamp();
        if (diStamp_ > limit) {
            serviceLog("table stamp %llu is ahead of this host's clock; taken as %llu",
                       static_cast<unsigned long long>(diStamp_),
                       static_cast<unsigned long long>(limit));
            diStamp_ = nowMillis();
            storeStamp(diStamp_);
        }
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
    // Until the far end proves its key it is held like any unauthenticated
    // caller, except that a link is idle between uses and always read.
    lo.greetingLimits = limitsFor(Transport::Tcp, false, false);
    lo.greetingLimits.idleTimeout = std::chrono::milliseconds(0);
    lo.greetingLimits.pauseReadingAbove = 0;
    lo.peerLimits = limitsFor(Transport::Tcp, true, true);
    // Outbound links leave from the address this service listens on, so the
    // other hosts see the address the node table lists for this one.
    if (listenAddress != "0.0.0.0" && listenAddress != "::") {
        lo.sourceAddress = listenAddress;
    }
    serviceLog("this host is %s, node id %llu; other hosts' services on port %u", self.host.c_str(),
               static_cast<unsigned long long>(self.nodeId), static_cast<unsigned>(lo.port));
    peers_ = std::make_unique<PeerDirectory>(executor_, self, lo,
                                             [this](const std::string& host) { peerUp(host); });
    startHeartbeats();
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
    di::Heartbeat h = heartbeat();
    bool server = heartbeatServer(h);
    std::vector<PeerHost> hosts;
    std::vector<uint64_t> ids;
    std::vector<std::string> own;
    bool serverListed = false;
    for (di::NodeEntry& n : di_.nodes()) {
        PeerHost p{std::move(n.hostname), n.nodeId, std::move(n.addresses)};
        if (peers_->isSelf(p)) {
            own = p.addresses;
            continue;
        }
        serverListed = serverListed || p.host == h.server;
        ids.push_back(p.nodeId);
        hosts.push_back(std::move(p));
    }
    // The server the beats go to belongs to the domain even when its own
    // table does not list it (a management server manages the others).
    if (!h.server.empty() && !server && !serverListed && !h.serverAddresses.empty()) {
        hosts.push_back(PeerHost{h.server, h.serverNodeId, h.serverAddresses});
    }
    peers_->setHosts(hosts);
    const std::string& listen = peers_->self().listenAddress;
    if (own.empty() && listen != "0.0.0.0" && listen != "::") {
        own.push_back(listen);
    }
    {
        std::lock_guard<std::mutex> g(hbMu_);
        selfAddresses_ = std::move(own);
    }
    monitor_.setNodes(server ? ids : std::vector<uint64_t>{}, clock_.monoNow());
}

std::string Router::peerHostOf(const Connection& c) const {
    std::lock_guard<std::mutex> g(peerMu_);
    auto it = peerHosts_.find(c.id());
    return it != peerHosts_.end() ? it->second : std::string();
}

std::string Router::identityOf(const Connection& c) const {
    if (std::string host = peerHostOf(c); !host.empty()) {
        return host + "@PEER";
    }
    if (std::string host = clientHostOf(c); !host.empty()) {
        return std::string(proto::kHostKeyUser) + "@" + host;
    }
    return c.identity();
}

std::string Router::ownName(const std::string& name) const {
    auto same = [&](const std::string& mine) {
        return !mine.empty() && mine.size() == name.size() &&
               strncasecmp(mine.data(), name.data(), name.size()) == 0;
    };
    if (same(proto::kLocalHost) || same("localhost.localdomain")) {
        return name + " names every host's own self";
    }
    if (peers_ != nullptr && (same(peers_->self().host) || same(peers_->self().listenAddress))) {
        return name + " is this host's own name";
    }
    return {};
}

void Router::refuseGreeting(const std::shared_ptr<Connection>& c, const Json& id,
                            const std::string& remote, const std::string& why, bool close) {
    if (refusedPeers_.fetch_add(1) % 100 == 0) {
        serviceLog("peer greeting from %s refused: %s", remote.c_str(), why.c_str());
    }
    std::string reply = proto::dumpJson(proto::makeError(id, proto::kPermissionDenied, why));
    if (close) {
        c->sendThenClose(std::move(reply));
    } else {
        c->send(std::move(reply));
    }
}

void Router::peerHello(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    PeerHello h = decodePeerHello(m.params);
    std::string remote;
    bool greeted = false;  // a second greeting on one connection is refused
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = tcpAddresses_.find(c->id());
        if (it != tcpAddresses_.end()) {
            remote = it->second;
        }
        greeted = peerHosts_.count(c->id()) != 0 || hellos_.count(c->id()) != 0 ||
                  clientHosts_.count(c->id()) != 0 || clientHellos_.count(c->id()) != 0;
    }
    // Trust rests on the key alone: where the connection comes from and what
    // the node table says prove nothing, since any local user can bind an
    // address and a peer can replicate any table.
    std::string why;
    if (peers_ == nullptr) {
        why = "this service takes no links from other hosts";
    } else if (remote.empty()) {
        why = "other hosts' services greet over TCP only";
    } else if (greeted) {
        why = "this connection has greeted already";
    } else if (std::string own = ownName(h.host); !own.empty()) {
        why = "a peer cannot take this host's names: " + own;
    } else if (ownName(h.to).empty()) {
        why = "the greeting is for " + h.to + ", not for this host (" + peers_->self().host + ")";
    } else if (!trustedHost(h.host)) {
        why = "host " + h.host + " is not in the trusted host list";
    }
    if (!why.empty()) {
        refuseGreeting(c, m.id, remote, why, !remote.empty());
        return;
    }
    PeerChallenge challenge;
    challenge.challenge = znhas::newProofNonce();
    if (challenge.challenge.empty()) {
        replyError(c, m.id, proto::kOperationFailed, "no random challenge could be made");
        return;
    }
    challenge.host = peers_->self().host;
    challenge.nodeId = peers_->self().nodeId;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        hellos_[c->id()] = PendingHello{h.host, h.to, challenge.challenge, std::move(h.nonce)};
    }
    replyResult(c, m.id, encodePeerChallenge(challenge));
}

void Router::peerProve(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    PeerProve p = decodePeerProve(m.params);
    std::string remote;
    PendingHello hello;
    bool pending = false;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = tcpAddresses_.find(c->id());
        if (it != tcpAddresses_.end()) {
            remote = it->second;
        }
        auto h = hellos_.find(c->id());
        if (h != hellos_.end()) {
            hello = std::move(h->second);
            hellos_.erase(h);  // one answer per challenge
            pending = true;
        }
    }
    if (!pending) {
        refuseGreeting(c, m.id, remote, "peer.prove answers the challenge of a peer.hello", false);
        return;
    }
    std::string why;
    if (!znhas::verifyHostProof({kProofOfCaller, hello.host, hello.to, hello.ourNonce}, p.signature,
                                &why)) {
        refuseGreeting(c, m.id, remote, "no proof of host " + hello.host + "'s key: " + why, true);
        return;
    }
    PeerHelloResult r;
    if (!znhas::signHostProof({kProofOfAnswerer, hello.to, hello.host, hello.theirNonce},
                              &r.signature, &why)) {
        serviceLog("cannot prove this host's key to %s: %s", hello.host.c_str(), why.c_str());
        c->sendThenClose(proto::dumpJson(proto::makeError(
            m.id, proto::kOperationFailed, "this host cannot prove its key: " + why)));
        return;
    }
    {
        std::lock_guard<std::mutex> g(peerMu_);
        peerHosts_[c->id()] = hello.host;
    }
    c->authenticate(limitsFor(Transport::Tcp, true, false));
    pending_.release(c->id());
    r.identity = hello.host + "@PEER";
    r.host = peers_->self().host;
    r.nodeId = peers_->self().nodeId;
    replyResult(c, m.id, encodePeerHelloResult(r));
}

void Router::peerDeliver(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    PeerDeliver d = decodePeerDeliver(m.params);
    if (d.message.type == proto::kHeartbeatMessageType) {
        heartbeatReceived(d);
    }
    bool delivered = deliverToManager(d.rm, d.message);
    if (delivered) {
        peerReceived_.fetch_add(1);
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
        // Stamps stay within the allowed skew of this clock (see diReplicate),
        // so the + 1 cannot wrap.
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
    peers_->fanOut(hosts, kDiReplicate, replicateParams(stamp, snapshot, heartbeat()),
                   options_.peerTimeout,
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
    peers_->send(host, kDiReplicate, replicateParams(stamp, snapshot, heartbeat()),
                 options_.peerTimeout, [](PeerLink::Outcome, Json) {});
}

void Router::diReplicate(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    const std::string w = "params";
    proto::requireObject(m.params, w);
    uint64_t stamp =
        proto::asDecimalUInt64(proto::requireField(m.params, "stamp", w), w + ".stamp");
    di::Transaction t = di::decodeTransaction(proto::requireField(m.params, "tables", w));
    std::optional<di::Heartbeat> beat;
    if (const Json* f = proto::findField(m.params, "heartbeat")) {
        beat = di::decodeHeartbeat(*f, w + ".heartbeat");
    }
    if (!t.clearNodes || !t.clearGroups || t.op == DI_TABLE_REMOVE) {
        throw proto::ProtocolError(
            w + ".tables: expected whole tables (both cleared first, rows added)");
    }
    if (uint64_t limit = latestStamp(); stamp > limit) {
        // No clock of the domain could have made it: taking it would make
        // every later, real change look older, here and on every host this
        // one answers with its tables.
        std::string host = peerHostOf(*c);
        if (refusedStamps_.fetch_add(1) % 100 == 0) {
            serviceLog(
                "tables from %s refused: stamp %llu is more than %lld ms ahead of this "
                "host's clock",
                host.c_str(), static_cast<unsigned long long>(stamp),
                static_cast<long long>(options_.maxStampSkew.count()));
        }
        replyResult(c, m.id,
                    Json{{"code", DI_EINVAL},
                         {"reason", "stamp " + std::to_string(stamp) +
                                        " is ahead of the receiving host's clock by more than " +
                                        std::to_string(options_.maxStampSkew.count()) + " ms"}});
        return;
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
    if (beat && beat->frequency != 0 && beat->sensitivity != 0) {
        // A server listening on every address is reached where its copy came from.
        if (!beat->server.empty() && beat->serverAddresses.empty()) {
            std::lock_guard<std::mutex> pg(peerMu_);
            auto it = tcpAddresses_.find(c->id());
            if (it != tcpAddresses_.end()) {
                beat->serverAddresses.push_back(it->second);
            }
        }
        bool changed = false;
        if (takeHeartbeat(*beat, &changed, &why) != DI_OK) {
            serviceLog("heartbeat from %s not stored: %s", peerHostOf(*c).c_str(), why.c_str());
        }
    }
    replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", true}, {"version", di_.version()}});
}

uint64_t Router::latestStamp() const {
    return nowMillis() + static_cast<uint64_t>(options_.maxStampSkew.count());
}

Json Router::peerStatus() const {
    Json j{{"delivered", peerDelivered_.load()},
           {"failed", peerFailed_.load()},
           {"unclaimed", peerUnclaimed_.load()},
           {"received", peerReceived_.load()},
           {"replicated", replicated_.load()},
           {"replicationsPartial", replicationsPartial_.load()},
           {"refusedGreetings", refusedPeers_.load()},
           {"refusedStamps", refusedStamps_.load()}};
    if (peers_ != nullptr) {
        j["host"] = peers_->self().host;
        j["nodeId"] = proto::decimal(peers_->self().nodeId);
        j["links"] = peers_->status();
    }
    return j;
}

}  // namespace znpex::server
