// The router's side of the management domain: links to the other hosts'
// services, the greeting that makes an inbound connection a peer, peer
// messages between managers of the same name, and table replication.
//
// Table replication itself is RouterReplicate.cc.
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
            diStamp_ = wallMillis();
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
    lo.outages = peerOutages_;
    serviceLog("this host is %s, node id %llu; other hosts' services on port %u", self.host.c_str(),
               static_cast<unsigned long long>(self.nodeId), static_cast<unsigned>(lo.port));
    peers_ = std::make_unique<PeerDirectory>(executor_, self, lo,
                                             [this](const std::string& host) { peerUp(host); });
    startHeartbeats();
    refreshPeers();
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

void Router::refreshPeers(const di::Transaction& change) {
    if (peers_ == nullptr) {
        return;
    }
    di::Heartbeat h = heartbeat();
    bool remove = change.op == DI_TABLE_REMOVE;
    std::vector<PeerHost> upserts;
    std::vector<std::string> removed;
    std::vector<uint64_t> ids;
    for (const di::NodeEntry& n : change.nodes) {
        // Rows that are this host or the heartbeat's server change more than
        // the list of hosts: those take the whole table again.
        PeerHost p{n.hostname, n.nodeId, n.addresses};
        std::optional<PeerHost> known = peers_->byName(n.hostname);
        if (n.hostname == h.server || (!remove && peers_->isSelf(p)) ||
            (known && known->nodeId != n.nodeId && !remove) || (remove && !known)) {
            refreshPeers();
            return;
        }
        if (remove) {
            if (known) {
                ids.push_back(known->nodeId);
            }
            removed.push_back(n.hostname);
        } else {
            ids.push_back(n.nodeId);
            upserts.push_back(std::move(p));
        }
    }
    peers_->updateHosts(upserts, removed);
    if (heartbeatServer(h)) {
        if (remove) {
            monitor_.removeNodes(ids);
        } else {
            monitor_.addNodes(ids, clock_.monoNow());
        }
    }
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
    // A host that greets is up: what this one has for it need not wait
    // for its link's pause (long for a host never reached).
    if (peers_ != nullptr) {
        peers_->heardFrom(hello.host);
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
    // The sender is answered once the message has gone to the manager, so a
    // manager that falls behind slows its senders rather than letting their
    // messages pile up here.
    bool delivered = deliverToManager(d.rm, d.message, [this, c, id = m.id](bool written) {
        if (written) {
            peerReceived_.fetch_add(1);
        }
        replyResult(c, id, Json{{"delivered", written}});
    });
    if (!delivered) {
        replyResult(c, m.id, Json{{"delivered", false}});
    }
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

Json Router::peerStatus() const {
    Json j{{"delivered", peerDelivered_.load()},
           {"failed", peerFailed_.load()},
           {"unclaimed", peerUnclaimed_.load()},
           {"received", peerReceived_.load()},
           {"replicated", replicated_.load()},
           {"replicationsPartial", replicationsPartial_.load()},
           {"refusedGreetings", refusedPeers_.load()},
           {"refusedStamps", refusedStamps_.load()},
           {"changesSent", changesSent_.load()},
           {"copiesSent", copiesSent_.load()},
           {"partsSent", partsSent_.load()},
           {"bytesReplicated", bytesReplicated_.load()},
           {"behindAnswers", behindAnswers_.load()},
           {"changesApplied", changesApplied_.load()},
           {"copiesApplied", copiesApplied_.load()}};
    if (peers_ != nullptr) {
        j["host"] = peers_->self().host;
        j["nodeId"] = proto::decimal(peers_->self().nodeId);
        j["links"] = peers_->status();
    }
    return j;
}

}  // namespace znpex::server
