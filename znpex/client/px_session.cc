// Sessions: connecting to the first contact that answers, the handshake,
// the end of a session, timeouts and the class list.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "znpex/client/ClientErrors.h"
#include "znpex/client/HostProof.h"
#include "znpex/client/Requests.h"
#include "znpex/client/Session.h"
#include "znpex/client/SessionLife.h"
#include "znpex/proto/ServiceMessages.h"

using namespace znpex::client;
namespace proto = znpex::proto;

namespace {

// How long an ending session waits for the service to acknowledge.
constexpr int kEndTimeoutMs = 2000;

bool supportedOptions(px_session_opts_t options) {
    px_session_opts_t scope = options & ~PX_SESSION_EXTENDED;
    return scope == PX_SCOPE_LOCAL || scope == PX_SCOPE_DOMAIN;
}

// Handshake on an open connection: over TCP the hello (and this host's
// proof, when it can make one) first, then the session itself.
int handshake(px_session& s, px_session_opts_t options) {
    proto::Json result;
    if (!s.conn->contact().local) {
        if (int rc = greetOverTcp(s); rc != PX_OK) {
            return rc;
        }
    }
    proto::SessionStartParams p{options, program_invocation_short_name};
    if (int rc = call(s, proto::kSessionStart, proto::encodeSessionStart(p), result); rc != PX_OK) {
        return rc;
    }
    try {
        proto::SessionStartResult r = proto::decodeSessionStarted(result);
        s.sessionId = r.session;
        s.identity = r.identity;
    } catch (const proto::ProtocolError& e) {
        return failReply(proto::kSessionStart, e.what());
    }
    return PX_OK;
}

}  // namespace

int px_start_session(const px_contact_t* contacts, uint32_t contact_count,
                     px_session_opts_t options, px_session_t* session) {
    if (session == nullptr) {
        return failInvalid("px_start_session", "nowhere to put the session");
    }
    *session = nullptr;
    if (!supportedOptions(options)) {
        return failOption(options);
    }
    if (contact_count > 0 && contacts == nullptr) {
        return failInvalid("px_start_session", "a contact count without contacts");
    }
    std::vector<Contact> targets;
    for (uint32_t i = 0; i < contact_count; ++i) {
        Contact c;
        std::string why;
        if (!parseContact(contacts[i].pc_host, c, &why)) {
            return failInvalid("px_start_session", why);
        }
        targets.push_back(c);
    }
    if (targets.empty()) {
        targets.emplace_back();  // this host's service
    }
    return guarded("px_start_session", [&] {
        int rc = PX_ECONNECT;
        for (const Contact& c : targets) {
            auto s = std::make_unique<px_session>();
            if (!s->wake.valid()) {
                return failConnect(c.text(),
                                   std::string("no wake-up descriptor: ") + std::strerror(errno));
            }
            std::string why;
            s->conn = Connection::open(c, defaultConnectTimeoutMs(), &why);
            if (!s->conn) {
                rc = failConnect(c.text(), why);
                continue;
            }
            // Until the session is up, a silent service counts against the
            // connect time, so the next contact gets its turn soon.
            s->requestTimeoutMs = defaultConnectTimeoutMs();
            rc = handshake(*s, options);
            s->requestTimeoutMs = defaultRequestTimeoutMs();
            if (rc == PX_OK) {
                addSession(s.get());  // may throw: the session is still owned here
                *session = s.release();
                return PX_OK;
            }
        }
        return rc;
    });
}

int px_end_session(px_session_t session) {
    if (session == nullptr) {
        return failInvalid("px_end_session", "no session");
    }
    // From here no call enters; the last one under way (this one, or any
    // still running on another thread) frees the session when it leaves.
    SessionUse use(session, beginEnd(session));
    if (!use) {
        return failEnded("px_end_session");
    }
    px_session& s = *session;
    // Woken by beginEnd, a px_dispatch on another thread returns 4 promptly;
    // once it has, no callback of this session runs any more.
    waitDispatchGone(s.events);
    bool open = false;
    {
        IoLock io(s);
        open = !s.conn->broken();
        s.requestTimeoutMs = std::min(s.requestTimeoutMs, kEndTimeoutMs);
    }
    if (open) {
        // Best effort: the connection closes whatever the answer.
        proto::Json ignored;
        if (guarded("px_end_session", [&] {
                return call(s, proto::kSessionEnd, proto::Json::object(), ignored);
            }) != PX_OK) {
            cu_set_no_error_1();
        }
    }
    return PX_OK;
}

int px_set_default_timeouts(int connect_ms, int request_ms) {
    setDefaultTimeouts(connect_ms, request_ms);
    return PX_OK;
}

int px_set_timeouts(px_session_t session, int request_ms) {
    if (session == nullptr) {
        return failInvalid("px_set_timeouts", "no session");
    }
    SessionUse use(session);
    if (!use) {
        return failEnded("px_set_timeouts");
    }
    if (request_ms > 0) {
        IoLock io(*session);
        session->requestTimeoutMs = request_ms;
    }
    return PX_OK;
}

const char* px_session_identity(px_session_t session) {
    SessionUse use(session);
    return use ? session->identity.c_str() : "";
}

const char* px_session_service_host(px_session_t session) {
    SessionUse use(session);
    return use ? session->serviceHost.c_str() : "";
}

int px_list_classes(px_session_t session, px_class_list_t** rsp) {
    if (session == nullptr || rsp == nullptr) {
        return failInvalid("px_list_classes", "no session or nowhere to put the response");
    }
    *rsp = nullptr;
    return onSession("px_list_classes", session, [&] {
        std::vector<proto::ClassInfo> classes;
        if (int rc = listClasses(*session, classes); rc != PX_OK) {
            return rc;
        }
        *rsp = makeClassList(classes).release();
        return PX_OK;
    });
}
