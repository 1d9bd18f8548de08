// TCP clients proving the host they run on. The proof is the peers' own
// (znhas/sec_proof.h) with a purpose of its own: the client names its host
// and the name it reached this service by, signs the service's fresh
// challenge with the host's private key, and the service checks it with the
// key its trusted host list holds for that name. A proven connection acts as
// "root@<host>": the key proves the host, and only root can read a host's
// private key. A client whose host is not listed (a node that has not asked
// to be managed yet) stays unauthenticated and may go on as such; a wrong
// signature closes the connection.
#include <strings.h>
#include <unistd.h>

#include <climits>

#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return !a.empty() && a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string systemHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0) {
        return {};
    }
    return name;
}

bool listedHost(const std::string& host) {
    sec_buffer_t token = nullptr;
    int rc = sec_get_host_token(host.c_str(), &token);
    if (token != nullptr) {
        sec_release_host_token(&token);
    }
    return rc == 0;
}

}  // namespace

std::string Router::clientHostOf(const Connection& c) const {
    std::lock_guard<std::mutex> g(peerMu_);
    auto it = clientHosts_.find(c.id());
    return it != clientHosts_.end() ? it->second : std::string();
}

void Router::authHello(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    proto::AuthHello h = proto::decodeAuthHello(m.params);
    proto::AuthChallenge r;
    r.identity = identityOf(*c);
    r.methods = {proto::kHostKeyMethod};
    const std::string self = options_.hostName.empty() ? systemHostName() : options_.hostName;
    // The name this service greets the other hosts' services under: a node's
    // agent learns here the name to trust this host's key under.
    r.host = peers_ != nullptr ? peers_->self().host : self;
    if (!proto::validHostName(r.host)) {
        r.host.clear();
    }
    if (h.host.empty()) {
        replyResult(c, m.id, proto::encodeAuthChallenge(r));
        return;
    }
    std::string arrivedAt;
    bool busy = false;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = localAddresses_.find(c->id());
        if (it != localAddresses_.end()) {
            arrivedAt = it->second;
        }
        busy = clientHosts_.count(c->id()) != 0 || clientHellos_.count(c->id()) != 0 ||
               peerHosts_.count(c->id()) != 0 || hellos_.count(c->id()) != 0;
    }
    std::string why;
    if (c->isLocal()) {
        why = "callers on the local socket are known by their user already";
    } else if (busy) {
        why = "this connection has authenticated, or begun to, already";
    } else if (std::string own = ownName(h.host);
               !own.empty() || sameName(h.host, self) || sameName(h.host, arrivedAt)) {
        why = "a client cannot take this host's names: " + (own.empty() ? h.host : own);
    } else if (ownName(h.to).empty() && !sameName(h.to, self) && !sameName(h.to, arrivedAt)) {
        why = "the proof is for " + h.to + ", not for this host (" + self + ")";
    } else if (!listedHost(h.host)) {
        why = "host " + h.host + " is not in the trusted host list";
    }
    if (!why.empty()) {
        // The connection stays open: a node not yet managed goes on unauthenticated.
        if (refusedClientProofs_.fetch_add(1) % 100 == 0) {
            serviceLog("host-key proof of connection %llu refused: %s",
                       static_cast<unsigned long long>(c->id()), why.c_str());
        }
        replyError(c, m.id, proto::kPermissionDenied, why);
        return;
    }
    r.challenge = znhas::newProofNonce();
    if (r.challenge.empty()) {
        replyError(c, m.id, proto::kOperationFailed, "no random challenge could be made");
        return;
    }
    {
        std::lock_guard<std::mutex> g(peerMu_);
        clientHellos_[c->id()] = PendingHello{h.host, h.to, r.challenge, {}};
    }
    replyResult(c, m.id, proto::encodeAuthChallenge(r));
}

void Router::authProve(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    std::vector<uint8_t> signature = proto::decodeAuthProve(m.params);
    PendingHello hello;
    bool pending = false;
    {
        std::lock_guard<std::mutex> g(peerMu_);
        auto it = clientHellos_.find(c->id());
        if (it != clientHellos_.end()) {
            hello = std::move(it->second);
            clientHellos_.erase(it);  // one answer per challenge
            pending = true;
        }
    }
    if (!pending) {
        replyError(c, m.id, proto::kPermissionDenied,
                   "auth.prove answers the challenge of an auth.hello that named a host");
        return;
    }
    std::string why;
    if (!znhas::verifyHostProof({proto::kProofOfClient, hello.host, hello.to, hello.ourNonce},
                                signature, &why)) {
        why = "no proof of host " + hello.host + "'s key: " + why;
        if (refusedClientProofs_.fetch_add(1) % 100 == 0) {
            serviceLog("host-key proof of connection %llu refused: %s",
                       static_cast<unsigned long long>(c->id()), why.c_str());
        }
        c->sendThenClose(proto::dumpJson(proto::makeError(m.id, proto::kPermissionDenied, why)));
        return;
    }
    {
        std::lock_guard<std::mutex> g(peerMu_);
        clientHosts_[c->id()] = hello.host;
    }
    c->authenticate(limitsFor(Transport::Tcp, true, false));
    pending_.release(c->id());
    replyResult(c, m.id, Json{{"identity", identityOf(*c)}});
}

}  // namespace znpex::server
