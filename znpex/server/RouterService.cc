// The service's own methods: sessions, the class list, the access list
// refresh and the status report.
#include <ctime>

#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/EnrollmentGate.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceErrors.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

void Router::sessionStart(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    proto::SessionStartParams p;
    if (!m.params.is_null()) {
        p = proto::decodeSessionStart(m.params);
    }
    // Option 4: the session's "rm.*" requests span the management domain,
    // where they run as this caller's user on this host. Only a caller the
    // kernel vouches for may ask: another host would take an unauthenticated
    // caller for a user of this one. Another host's service is never given
    // it: what it asks for stays here.
    bool domain = (p.options & 4u) != 0;
    if (domain && !c->isLocal() && peerHostOf(*c).empty()) {
        denied_.fetch_add(1);
        replyError(c, m.id, proto::kPermissionDenied,
                   "a domain-scoped session (option 4) is only for authenticated callers on "
                   "this host's local socket");
        return;
    }
    proto::SessionStartResult r;
    r.identity = identityOf(*c);
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        if (c->state.sessionId == 0) {
            c->state.sessionId = nextSession_.fetch_add(1);
        }
        c->state.clientName = p.client;
        r.session = c->state.sessionId;
    }
    setDomainSession(*c, domain && c->isLocal());
    replyResult(c, m.id, proto::encodeSessionStarted(r));
}

void Router::sessionEnd(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        c->state.sessionId = 0;
        c->state.clientName.clear();
    }
    setDomainSession(*c, false);
    replyResult(c, m.id, Json{{"ok", true}});
}

void Router::classList(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    auto rules = acl_.rules();
    Json out = Json::array();
    const std::string identity = identityOf(*c);
    for (ClassEntry& e : registry_.classes()) {
        // Describing a class is reading it. Before authenticating, a caller
        // sees only the class it may ask to be managed through.
        if (!isAllowed(*rules, identity, e.def.name, OpTarget::Class, OpAccess::Read) ||
            (identity == proto::kUnauthenticated && e.def.name != kEnrollmentClass)) {
            continue;
        }
        proto::ClassInfo info;
        info.def = std::move(e.def);
        info.rm = e.rmName;
        info.connected = e.connected;
        out.push_back(proto::encodeClassInfo(info));
    }
    replyResult(c, m.id, std::move(out));
}

void Router::refreshAcl(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    std::string why;
    if (!reloadAcl(&why)) {
        replyFailure(c, m.id, proto::kOperationFailed, *aclUnreadable(why));
        return;
    }
    AclStore::Status s = acl_.status();
    replyResult(c, m.id, Json{{"ok", true}, {"stanzas", s.stanzas}, {"entries", s.entries}});
}

bool Router::reloadAcl(std::string* why) {
    std::string failure;
    if (!acl_.reload(&failure)) {
        serviceLog("access control list not reloaded, the previous rules stay: %s",
                   failure.c_str());
        if (why != nullptr) {
            *why = failure;
        }
        return false;
    }
    AclStore::Status s = acl_.status();
    serviceLog("access control list %s loaded: %zu stanzas, %zu entries", acl_.path().c_str(),
               s.stanzas, s.entries);
    return true;
}

Json Router::status() const {
    Json managers = Json::array();
    for (const ManagerSummary& mgr : registry_.managers()) {
        managers.push_back(
            Json{{"rm", mgr.rmName}, {"connected", mgr.connected}, {"classes", mgr.classes}});
    }
    AclStore::Status a = acl_.status();
    Json acl = {{"path", acl_.path()},
                {"loaded", a.loaded},
                {"stanzas", a.stanzas},
                {"entries", a.entries},
                {"loadedAt", static_cast<int64_t>(a.loadedAt.tv_sec)}};
    if (!a.lastError.empty()) {
        acl["lastError"] = a.lastError;
    }
    auto up = clock_.monoNow() - started_;
    return Json{
        {"connections", connectionCount()},
        {"managers", std::move(managers)},
        {"acl", std::move(acl)},
        {"uptimeSeconds", std::chrono::duration_cast<std::chrono::seconds>(up).count()},
        {"requests",
         {{"forwarded", forwarded_.load()},
          {"denied", denied_.load()},
          {"timedOut", timedOut_.load()},
          {"notConnected", lost_.load()},
          {"malformed", malformed_.load()}}},
        {"notifications", notifications_.load()},
        {"events", {{"delivered", events_->delivered()}, {"watches", events_->watchCount()}}},
        {"peerMessages", peerMessages_.load()},
        {"peers", peerStatus()},
        {"refusedConnections", refused_.load()},
        {"limits", limitsStatus()},
        {"tables", diStatus()},
        {"heartbeat", heartbeatStatus()},
    };
}

}  // namespace znpex::server
