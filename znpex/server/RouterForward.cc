// The resource-manager half of the router: registration, forwarding of
// "rm.*" requests with their answers, and the managers' notifications.
#include <optional>
#include <vector>

#include "znpex/proto/AttributesModifiedText.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/EnrollmentGate.h"
#include "znpex/server/PeerMessages.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceErrors.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

// A user name another host's service may forward: what its local socket
// could have given, never an identity of its own.
bool validForwardedUser(const std::string& user) {
    if (user.empty() || user.size() > kMaxHostName || user == proto::kUnauthenticated ||
        user == "*") {
        return false;
    }
    for (unsigned char ch : user) {
        if (ch == '@' || ch <= ' ' || ch == 0x7F) {
            return false;
        }
    }
    return true;
}

}  // namespace

void Router::registerManager(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    proto::RegisterParams p = proto::decodeRegister(m.params);
    std::shared_ptr<ManagerSession> session;
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        session = c->state.manager;
    }
    if (session != nullptr && session->rmName() != p.rm) {
        replyFailure(c, m.id, proto::kOperationFailed,
                     *registrationRefused(p.rm, "this connection serves " + session->rmName()));
        return;
    }
    if (session == nullptr) {
        session = std::make_shared<ManagerSession>(c, p.rm, executor_);
    }
    size_t count = p.classes.size();
    std::vector<std::string> names;
    for (const auto& d : p.classes) {
        names.push_back(d.name);
    }
    std::string why;
    if (!registry_.registerManager(p.rm, std::move(p.classes), session, &why)) {
        serviceLog("resource manager %s refused: %s", p.rm.c_str(), why.c_str());
        replyFailure(c, m.id, proto::kOperationFailed, *registrationRefused(p.rm, why));
        return;
    }
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        c->state.manager = session;
    }
    c->setLimits(limitsFor(c->transport(), true, true));
    {
        std::lock_guard<std::mutex> g(peerMu_);
        managersByName_[p.rm] = c;  // where peer messages for this name go
    }
    serviceLog("resource manager %s registered %zu classes (%s)", p.rm.c_str(), count,
               c->identity().c_str());
    replyResult(c, m.id, Json{{"ok", true}});
    c->send(proto::dumpJson(proto::makeNotification(proto::kRmConnectionChanged,
                                                    proto::encodeConnectionChanged(true))));
    events_->managerBack(names);
}

void Router::forward(const std::shared_ptr<Connection>& c, const RpcMessage& m,
                     const MethodInfo& info) {
    if (!m.params.is_object()) {
        replyError(c, m.id, proto::kInvalidParams, "params must be an object");
        return;
    }
    // Decoding checks every field before anything reaches a manager.
    tarn_rmf2v::RMRequest request = proto::decodeRequestParams(info.op, m.params);
    const std::string& cls = request.className;
    if (peers_ != nullptr && inDomainSession(*c)) {
        domainForward(c, m, info, cls);
        return;
    }
    std::string identity = identityOf(*c);
    if (std::string host = peerHostOf(*c); !host.empty()) {
        // Another host's service asks for its caller, a user the kernel
        // vouched for there: "<user>@<that host>", under this host's rules.
        const Json* user = proto::findField(m.params, "user");
        if (user == nullptr || !user->is_string() ||
            !validForwardedUser(user->get_ref<const std::string&>())) {
            replyError(c, m.id, proto::kInvalidParams,
                       "params.user: expected the caller's user name (no '@', blank or control "
                       "character; not UNAUTHENT)");
            return;
        }
        identity = user->get<std::string>() + "@" + host;
    }
    auto rules = acl_.rules();
    bool gated =
        identity == proto::kUnauthenticated &&
        !openBeforeAuthentication(info, request, registry_.classActionName(cls, request.actionId));
    if (gated || !isAllowed(*rules, identity, cls, info.target, info.access)) {
        denied_.fetch_add(1);
        replyFailure(c, m.id, proto::kPermissionDenied, *permissionDenied(identity, m.method, cls));
        return;
    }
    ClassLookup where = registry_.find(cls);
    if (!where.known) {
        replyFailure(c, m.id, proto::kOperationFailed, *unknownClass(cls));
        return;
    }
    if (!where.connected) {
        lost_.fetch_add(1);
        replyFailure(c, m.id, proto::kNotConnected, *notConnected(where.rmName));
        return;
    }
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        if (c->state.pendingRequests >= options_.maxPendingPerConnection) {
            replyFailure(c, m.id, proto::kOperationFailed,
                         *tooManyRequests(static_cast<int>(options_.maxPendingPerConnection)));
            return;
        }
        ++c->state.pendingRequests;
    }
    Json params = m.params;
    params["identity"] = identity;  // never what the client claims
    params.erase("user");
    auto session = std::static_pointer_cast<ManagerSession>(where.endpoint);
    Forwarded f{c, m.id, m.method, cls, where.rmName, info.watch};
    bool sent = session->forward(
        m.method, std::move(params), options_.requestTimeout,
        [this, f](ManagerSession::Outcome o, Json response) { answer(f, o, std::move(response)); });
    if (!sent) {
        {
            std::lock_guard<std::mutex> g(c->stateMu);
            --c->state.pendingRequests;
        }
        lost_.fetch_add(1);
        replyFailure(c, m.id, proto::kNotConnected, *notConnected(where.rmName));
        return;
    }
    forwarded_.fetch_add(1);
}

void Router::answer(const Forwarded& f, ManagerSession::Outcome outcome, Json response) {
    auto c = f.client.lock();
    if (c == nullptr) {
        return;  // the client left; nobody to tell
    }
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        --c->state.pendingRequests;
    }
    switch (outcome) {
        case ManagerSession::Outcome::Answered: {
            const Json* result = proto::findField(response, "result");
            if (result == nullptr && proto::findField(response, "error") == nullptr) {
                replyError(c, f.clientId, proto::kInternalError,
                           "the resource manager " + f.rmName + " answered with nothing");
                return;
            }
            if (f.watch && result != nullptr && result->is_object() && !result->contains("error")) {
                addWatcher(c, f.className);
            }
            response["id"] = f.clientId;
            c->send(proto::dumpJson(response));
            return;
        }
        case ManagerSession::Outcome::TimedOut:
            timedOut_.fetch_add(1);
            replyFailure(c, f.clientId, proto::kOperationFailed,
                         *managerTimedOut(f.rmName, f.method,
                                          static_cast<long long>(options_.requestTimeout.count())));
            return;
        case ManagerSession::Outcome::Lost:
            lost_.fetch_add(1);
            replyFailure(c, f.clientId, proto::kNotConnected, *notConnected(f.rmName));
            return;
    }
}

void Router::addWatcher(const std::shared_ptr<Connection>& c, const std::string& className) {
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        if (c->closed() || !c->state.watched.insert(className).second) {
            return;
        }
    }
    std::lock_guard<std::mutex> g(watchMu_);
    watchers_[className][c->id()] = c;
}

std::shared_ptr<ManagerSession> Router::managerOf(const std::shared_ptr<Connection>& c) {
    std::lock_guard<std::mutex> g(c->stateMu);
    return c->state.manager;
}

void Router::managerNotification(const std::shared_ptr<Connection>& c, const RpcMessage& m,
                                 const MethodInfo& info) {
    std::shared_ptr<ManagerSession> session = managerOf(c);
    if (session == nullptr) {
        return;  // only registered managers speak for classes
    }
    auto payload = [&m] { return proto::dumpJson(proto::makeNotification(m.method, m.params)); };
    switch (info.kind) {
        case MethodKind::NotifyResourcesUndefined: {
            proto::ResourcesUndefined undefined = proto::decodeResourcesUndefined(m.params);
            if (speaksFor(session, undefined.className)) {
                events_->resourcesUndefined(undefined);
                notifyWatchers(undefined.className, OpTarget::Resource, payload);
            }
            return;
        }
        case MethodKind::NotifyAttributesModified:
            attributesModified(session, proto::decodeAttributesModified(m.params), payload);
            return;
        case MethodKind::PeerSend:
            // Other instances of a manager live on the domain's other hosts.
            peerMessages_.fetch_add(1);
            peerSend(session->rmName(), m);
            return;
        default:
            return;
    }
}

bool Router::attributesModifiedText(const std::shared_ptr<Connection>& c,
                                    const std::string& payload) {
    std::optional<proto::AttributesModified> n = proto::scanAttributesModifiedNotification(payload);
    if (!n) {
        return false;
    }
    // Taken as the general road takes this notification.
    const MethodInfo* info = findMethod(proto::kNotifyAttributesModified);
    if (info == nullptr || !refusal(*c, *info).empty()) {
        return true;
    }
    if (std::shared_ptr<ManagerSession> session = managerOf(c)) {
        // Watchers get the canonical text, as from the general road.
        attributesModified(session, *n, [&n] { return proto::attributesModifiedNotification(*n); });
    }
    return true;
}

bool Router::speaksFor(const std::shared_ptr<ManagerSession>& session, const std::string& cls) {
    if (registry_.find(cls).endpoint != session) {
        return false;  // a manager speaks only for its own classes
    }
    notifications_.fetch_add(1);
    return true;
}

void Router::attributesModified(const std::shared_ptr<ManagerSession>& session,
                                const proto::AttributesModified& n,
                                const std::function<std::string()>& payload) {
    if (speaksFor(session, n.className)) {
        events_->attributesModified(n);
        notifyWatchers(n.className, n.hasHandle ? OpTarget::Resource : OpTarget::Class, payload);
    }
}

void Router::notifyWatchers(const std::string& className, OpTarget target,
                            const std::function<std::string()>& makePayload) {
    std::vector<std::shared_ptr<Connection>> targets;
    {
        std::lock_guard<std::mutex> g(watchMu_);
        auto it = watchers_.find(className);
        if (it == watchers_.end()) {
            return;
        }
        for (auto& [id, weak] : it->second) {
            if (auto w = weak.lock()) {
                targets.push_back(std::move(w));
            }
        }
    }
    auto rules = acl_.rules();
    std::string payload;  // encoded for the first watcher allowed, if any
    for (auto& w : targets) {
        // Rules may have changed since it started watching.
        if (isAllowed(*rules, identityOf(*w), className, target, OpAccess::Read)) {
            if (payload.empty()) {
                payload = makePayload();
            }
            w->send(payload);
        }
    }
}

}  // namespace znpex::server
