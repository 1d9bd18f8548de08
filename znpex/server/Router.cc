#include "znpex/server/Router.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "znpex/di/DiCodec.h"
#include "znpex/proto/Frame.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/PeerIdentity.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

// The numeric address at the other end of a TCP socket (or at this end:
// `local`), or "".
std::string socketAddress(int fd, bool local = false) {
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    sockaddr* sa = reinterpret_cast<sockaddr*>(&ss);
    if ((local ? ::getsockname(fd, sa, &len) : ::getpeername(fd, sa, &len)) != 0) {
        return {};
    }
    char text[INET6_ADDRSTRLEN] = {};
    const void* where = nullptr;
    if (ss.ss_family == AF_INET) {
        where = &reinterpret_cast<const sockaddr_in*>(&ss)->sin_addr;
    } else if (ss.ss_family == AF_INET6) {
        where = &reinterpret_cast<const sockaddr_in6*>(&ss)->sin6_addr;
    } else {
        return {};
    }
    return ::inet_ntop(ss.ss_family, where, text, sizeof(text)) != nullptr ? text : "";
}

}  // namespace

Router::Router(AclStore& acl, RmRegistry& registry, di::DiStore& di, RouterOptions options)
    : acl_(acl),
      registry_(registry),
      options_(options),
      clock_(zn::processClock()),
      started_(clock_.monoNow()),
      events_(std::make_unique<EventService>(
          registry_,
          std::min<std::chrono::milliseconds>(options.requestTimeout, std::chrono::seconds(10)))),
      di_(di),
      budget_(options.bufferBudget),
      pending_(options.maxPendingPerAddress),
      // With many hosts powered off, their outages come as one line a minute.
      peerOutages_(std::make_shared<PeerOutageLog>(
          clock_, std::chrono::minutes(1),
          [](const std::string& line) { serviceLog("%s", line.c_str()); })) {
    budget_.setReclaim([this](size_t over) { reclaim(over); });
    hb_ = di_.heartbeat();
}

Router::~Router() = default;

void Router::accept(Connection::Socket socket, Transport transport) {
    asio::error_code ignored;
    if (connectionCount() >= options_.maxConnections) {
        if (refused_.fetch_add(1) % 1000 == 0) {
            serviceLog("refusing connections: %zu are open already", options_.maxConnections);
        }
        socket.close(ignored);
        return;
    }
    std::string identity = proto::kUnauthenticated;
    uid_t uid = static_cast<uid_t>(-1);
    bool authenticated = transport == Transport::Local;
    if (transport == Transport::Local) {
        auto cred = peerCredentials(socket.native_handle());
        if (!cred) {
            socket.close(ignored);  // no credentials: no identity to give it
            return;
        }
        uid = cred->uid;
        identity = localIdentity(uid);
    } else {
        int one = 1;
        ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        // Peers that vanish without a word are noticed by the kernel too.
        ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
    }
    std::string remote = transport == Transport::Tcp ? socketAddress(socket.native_handle()) : "";
    std::string local =
        transport == Transport::Tcp ? socketAddress(socket.native_handle(), true) : "";
    auto c =
        std::make_shared<Connection>(std::move(socket), transport, std::move(identity), uid, *this,
                                     limitsFor(transport, authenticated, false), &budget_);
    if (!remote.empty() && !admitPending(*c, remote)) {
        return;  // never started: dropping it closes the socket
    }
    {
        std::lock_guard<std::mutex> g(connMu_);
        connections_.emplace(c->id(), c);
    }
    if (!remote.empty()) {
        std::lock_guard<std::mutex> g(peerMu_);
        tcpAddresses_.emplace(c->id(), std::move(remote));
        localAddresses_.emplace(c->id(), std::move(local));
    }
    c->start();
}

size_t Router::connectionCount() const {
    std::lock_guard<std::mutex> g(connMu_);
    return connections_.size();
}

void Router::closeAll() {
    if (peers_ != nullptr) {
        peers_->shutdown();
    }
    {
        std::lock_guard<std::mutex> g(housekeepingMu_);
        housekeeping_.reset();
        hbTimer_.reset();
    }
    std::vector<std::shared_ptr<Connection>> all;
    {
        std::lock_guard<std::mutex> g(connMu_);
        for (auto& [id, weak] : connections_) {
            if (auto c = weak.lock()) {
                all.push_back(std::move(c));
            }
        }
    }
    for (auto& c : all) {
        c->close();
    }
}

void Router::stopEvents() {
    if (events_->stopping() > 0) {
        // Closing drops what a connection has not written yet: give the
        // error events a moment to reach the sockets.
        clock_.sleepFor(std::chrono::milliseconds(100));
    }
}

void Router::onMessage(const std::shared_ptr<Connection>& c, std::string payload) {
    try {
        if (attributesModifiedText(c, payload)) {
            return;  // the busiest message, taken the short way
        }
    } catch (const proto::ProtocolError&) {
        return;  // a notification gets no answer
    } catch (const std::exception& e) {
        serviceLog("request %s of connection %llu failed: %s", proto::kNotifyAttributesModified,
                   static_cast<unsigned long long>(c->id()), e.what());
        return;
    }
    RpcMessage m;
    try {
        m = proto::parseMessage(payload);
    } catch (const proto::ProtocolError& e) {
        malformed_.fetch_add(1);
        c->sendThenClose(proto::dumpJson(proto::makeError(e.id(), e.code(), e.what())));
        return;
    }
    try {
        switch (m.kind) {
            case RpcMessage::Kind::Request:
                handleRequest(c, m);
                break;
            case RpcMessage::Kind::Notification:
                handleNotification(c, m);
                break;
            case RpcMessage::Kind::Result:
            case RpcMessage::Kind::Error:
                handleReply(c, m);
                break;
        }
    } catch (const proto::ProtocolError& e) {
        if (m.kind == RpcMessage::Kind::Request) {
            replyError(c, m.id, e.code(), e.what());
        }
    } catch (const std::exception& e) {
        serviceLog("request %s of connection %llu failed: %s", m.method.c_str(),
                   static_cast<unsigned long long>(c->id()), e.what());
        if (m.kind == RpcMessage::Kind::Request) {
            replyError(c, m.id, proto::kInternalError, e.what());
        }
    }
}

void Router::onOversize(const std::shared_ptr<Connection>& c, uint64_t length) {
    malformed_.fetch_add(1);
    size_t cap = c->authenticated() ? proto::kMaxFrame : options_.unauthenticatedMaxFrame;
    std::string why = "a frame of " + std::to_string(length) + " bytes is over the limit of " +
                      std::to_string(cap);
    if (!c->authenticated()) {
        why += " for callers that have not authenticated";
    }
    c->sendThenClose(proto::dumpJson(proto::makeError(nullptr, proto::kInvalidRequest, why)));
}

void Router::onClosed(const std::shared_ptr<Connection>& c) {
    noteClosed(*c);
    pending_.release(c->id());
    {
        std::lock_guard<std::mutex> g(partsMu_);
        copies_.erase(c->id());  // a copy cut off by its connection
    }
    std::shared_ptr<ManagerSession> manager;
    std::set<std::string> watched;
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        manager = std::move(c->state.manager);
        watched.swap(c->state.watched);
    }
    {
        std::lock_guard<std::mutex> g(watchMu_);
        for (const std::string& cls : watched) {
            auto it = watchers_.find(cls);
            if (it != watchers_.end()) {
                it->second.erase(c->id());
                if (it->second.empty()) {
                    watchers_.erase(it);
                }
            }
        }
    }
    events_->connectionClosed(c->id());
    {
        std::lock_guard<std::mutex> g(diWatchMu_);
        diWatchers_.erase(c->id());
    }
    if (manager != nullptr) {
        std::vector<std::string> classes;
        for (const ClassEntry& e : registry_.classes()) {
            if (e.endpoint.lock() == manager) {
                classes.push_back(e.def.name);
            }
        }
        registry_.detach(manager.get());
        events_->managerGone(classes);
        manager->failAll();
        serviceLog("resource manager %s disconnected", manager->rmName().c_str());
    }
    {
        std::lock_guard<std::mutex> g(peerMu_);
        tcpAddresses_.erase(c->id());
        peerHosts_.erase(c->id());
        hellos_.erase(c->id());
        clientHosts_.erase(c->id());
        clientHellos_.erase(c->id());
        localAddresses_.erase(c->id());
        domainSessions_.erase(c->id());
        if (manager != nullptr) {
            auto it = managersByName_.find(manager->rmName());
            if (it != managersByName_.end() && it->second.lock() == c) {
                managersByName_.erase(it);
            }
        }
    }
    std::lock_guard<std::mutex> g(connMu_);
    connections_.erase(c->id());
}

std::string Router::refusal(const Connection& c, const MethodInfo& info) const {
    if (info.localOnly && !c.isLocal()) {
        return info.name + " is only offered on the local socket";
    }
    if (info.rootOnly && !c.isLocalRoot()) {
        return info.name + " is not allowed for " + c.identity();
    }
    if (info.privileged && !c.isLocalRoot() && c.uid() != ::geteuid()) {
        return info.name + " is not allowed for " + c.identity();
    }
    std::string identity = identityOf(c);
    if (info.authenticated && identity == proto::kUnauthenticated) {
        return info.name + " is not allowed for " + identity;
    }
    if (info.peerOnly && peerHostOf(c).empty()) {
        return info.name + " is only offered to other hosts' services";
    }
    return {};
}

void Router::handleRequest(const std::shared_ptr<Connection>& c, RpcMessage& m) {
    const MethodInfo* info = findMethod(m.method);
    if (info == nullptr) {
        replyError(c, m.id, proto::kMethodNotFound, "no method " + m.method);
        return;
    }
    if (info->notification) {
        replyError(c, m.id, proto::kMethodNotFound, m.method + " is a notification");
        return;
    }
    if (std::string why = refusal(*c, *info); !why.empty()) {
        replyError(c, m.id, proto::kMethodNotFound, why);
        return;
    }
    if (!m.params.is_null() && !m.params.is_object()) {
        replyError(c, m.id, proto::kInvalidParams, "params: expected an object");
        return;
    }
    switch (info->kind) {
        case MethodKind::SessionStart:
            sessionStart(c, m);
            break;
        case MethodKind::SessionEnd:
            sessionEnd(c, m);
            break;
        case MethodKind::ClassList:
            classList(c, m);
            break;
        case MethodKind::RefreshAcl:
            refreshAcl(c, m);
            break;
        case MethodKind::Status:
            replyResult(c, m.id, status());
            break;
        case MethodKind::AuthHello:
            authHello(c, m);
            break;
        case MethodKind::AuthProve:
            authProve(c, m);
            break;
        case MethodKind::Register:
            registerManager(c, m);
            break;
        case MethodKind::ManagerOp:
            forward(c, m, *info);
            break;
        case MethodKind::EventRegister:
            eventRegister(c, m);
            break;
        case MethodKind::EventUnregister:
            eventUnregister(c, m);
            break;
        case MethodKind::DiRefresh:
            diRefresh(c, m);
            break;
        case MethodKind::DiTuneHeartbeat:
            diTuneHeartbeat(c, m);
            break;
        case MethodKind::DiNodes:
            replyResult(c, m.id, di::encodeNodes(di_.nodes()));
            break;
        case MethodKind::DiGroups:
            replyResult(c, m.id, di::encodeGroups(di_.groups()));
            break;
        case MethodKind::DiWatch:
            diWatch(c, m);
            break;
        case MethodKind::PeerHello:
            peerHello(c, m);
            break;
        case MethodKind::PeerProve:
            peerProve(c, m);
            break;
        case MethodKind::PeerDeliver:
            peerDeliver(c, m);
            break;
        case MethodKind::DiReplicate:
            diReplicate(c, m);
            break;
        case MethodKind::NotifyResourcesUndefined:
        case MethodKind::NotifyAttributesModified:
        case MethodKind::PeerSend:
            break;  // notifications, answered above
    }
}

void Router::handleNotification(const std::shared_ptr<Connection>& c, RpcMessage& m) {
    const MethodInfo* info = findMethod(m.method);
    // A notification gets no answer, so what cannot be taken is dropped.
    if (info == nullptr || !info->notification || !refusal(*c, *info).empty() ||
        (!m.params.is_null() && !m.params.is_object())) {
        return;
    }
    managerNotification(c, m, *info);
}

void Router::handleReply(const std::shared_ptr<Connection>& c, RpcMessage& m) {
    std::shared_ptr<ManagerSession> manager;
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        manager = c->state.manager;
    }
    if (manager == nullptr || !m.id.is_number_unsigned()) {
        return;  // nobody here asked anything
    }
    Json response;
    if (m.kind == RpcMessage::Kind::Result) {
        response = proto::makeResult(m.id, std::move(m.result));
    } else {
        response = proto::makeError(m.id, m.errorCode, m.errorMessage, std::move(m.errorData));
    }
    manager->complete(m.id.get<uint64_t>(), std::move(response));
}

void Router::replyResult(const std::shared_ptr<Connection>& c, const Json& id, Json result) {
    c->send(proto::dumpJson(proto::makeResult(id, std::move(result))));
}

void Router::replyError(const std::shared_ptr<Connection>& c, const Json& id, int code,
                        const std::string& message) {
    c->send(proto::dumpJson(proto::makeError(id, code, message)));
}

void Router::replyFailure(const std::shared_ptr<Connection>& c, const Json& id, int code,
                          const cu_error_t& err) {
    c->send(proto::dumpJson(proto::makeErrorFrom(id, code, err)));
}

}  // namespace znpex::server
