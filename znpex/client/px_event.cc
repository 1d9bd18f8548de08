#include "znpex/client/px_event.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "znpex/client/ClientErrors.h"
#include "znpex/client/Responses.h"
#include "znpex/client/Session.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

using namespace znpex::client;
namespace proto = znpex::proto;

namespace {

constexpr char kRegister[] = "event.register";
constexpr char kUnregister[] = "event.unregister";
constexpr char kFired[] = "event.fired";
// How long px_dispatch holds the session's connection per wait, so other
// calls on the session get their turn and px_end_session is noticed. Each
// wait that ends empty costs a wake-up of the dispatching thread, which adds
// up with many sessions in one process (1,000 sessions waiting 20 ms each
// woke 50,000 times a second, most of the client's time under load).
constexpr int kPumpMs = 200;

char* copyText(const std::string& s) {
    char* p = strdup(s.c_str());
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

// Builds the C event from "event.fired" params; throws ProtocolError for a
// malformed one, std::bad_alloc when memory runs out (nothing left behind).
px_event_2_t* makeEvent(const proto::Json& p) {
    auto* e = static_cast<px_event_2_t*>(std::calloc(1, sizeof(px_event_2_t)));
    if (e == nullptr) {
        throw std::bad_alloc();
    }
    e->hdr.pr_type = static_cast<px_response_type_t>(PX_RSP_EVENT);
    RspPtr<px_event_2_t> owned(e);
    e->pe_registration = p.at("registration").get<uint64_t>();
    e->pe_class = copyText(p.at("class").get<std::string>());
    e->pe_flags = p.at("flags").get<uint32_t>();
    if (const proto::Json* err = proto::findField(p, "error"); err != nullptr) {
        e->pe_errnum = err->get<int32_t>();
    }
    if (const proto::Json* h = proto::findField(p, "handle"); h != nullptr) {
        e->pe_handle = proto::handleFromHex(*h, "event.handle");
        e->pe_has_handle = 1;
    }
    const proto::Json& attrs = p.at("attributes");
    if (!attrs.is_array()) {
        throw proto::ProtocolError("event.attributes must be an array");
    }
    if (!attrs.empty()) {
        e->pe_attrs =
            static_cast<px_event_attr_t*>(std::calloc(attrs.size(), sizeof(px_event_attr_t)));
        if (e->pe_attrs == nullptr) {
            throw std::bad_alloc();
        }
    }
    for (const proto::Json& a : attrs) {
        px_event_attr_t& out = e->pe_attrs[e->pe_attr_count];
        zn::OwnedValue v = proto::decodeValue(a, "event.attributes");
        out.pe_name = copyText(a.at("name").get<std::string>());
        out.pe_id = a.at("id").get<int32_t>();
        out.pe_type = v.type();
        out.pe_value = v.release();
        ++e->pe_attr_count;
    }
    return owned.release();
}

void deliver(px_session& s, const proto::Json& params) {
    uint64_t id = 0;
    px_event_2_t* event = nullptr;
    try {
        id = params.at("registration").get<uint64_t>();
        event = makeEvent(params);
    } catch (const std::exception&) {
        return;  // an event this client cannot read is not one it can deliver
    }
    EventState::Registration reg;
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        auto it = s.events.registrations.find(id);
        if (it != s.events.registrations.end()) {
            reg = it->second;
        }
    }
    if (reg.callback == nullptr) {
        px_free_response(event);  // unregistered meanwhile
        return;
    }
    reg.callback(&s, event, reg.arg);
}

// Routes the connection's notifications into the session's queue (once).
void hook(px_session& s) {
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        if (s.events.hooked) {
            return;
        }
        s.events.hooked = true;
    }
    EventState* events = &s.events;
    s.conn->setNotificationSink([events](proto::RpcMessage&& m) {
        if (m.method != kFired) {
            return;
        }
        std::lock_guard<std::mutex> g(events->mu);
        if (events->queue.size() >= PX_EVENT_QUEUE_MAX) {
            ++events->dropped;
            return;
        }
        events->queue.push_back(std::move(m.params));
    });
}

// Takes the oldest waiting event; false when none waits.
bool takeEvent(px_session& s, proto::Json& out) {
    std::lock_guard<std::mutex> g(s.events.mu);
    if (s.events.queue.empty()) {
        return false;
    }
    out = std::move(s.events.queue.front());
    s.events.queue.pop_front();
    return true;
}

bool ending(px_session& s) {
    std::lock_guard<std::mutex> g(s.events.mu);
    return s.events.ending;
}

// Reads what the service sent within kPumpMs (0: without waiting).
int pump(px_session& s, int waitMs) {
    std::lock_guard<std::mutex> g(s.ioMu);
    if (!s.conn) {
        return failComm("(none)", "the session has no connection");
    }
    std::string why;
    if (s.conn->pump(waitMs, &why) == Connection::Status::Failed) {
        return failComm(s.conn->contact().text(), why);
    }
    return PX_OK;
}

}  // namespace

namespace znpex::client {

void freeEventParts(px_rsp_hdr_t* rsp) {
    if (rsp->pr_type != static_cast<px_response_type_t>(PX_RSP_EVENT)) {
        return;  // a registration response holds nothing more
    }
    auto* e = reinterpret_cast<px_event_2_t*>(rsp);
    std::free(e->pe_class);
    for (uint32_t i = 0; i < e->pe_attr_count; ++i) {
        std::free(e->pe_attrs[i].pe_name);
        zn_value_free(e->pe_attrs[i].pe_type, e->pe_attrs[i].pe_value);
    }
    std::free(e->pe_attrs);
}

void endDispatch(EventState& e) {
    std::unique_lock<std::mutex> lk(e.mu);
    e.ending = true;
    e.changed.wait(lk, [&e] { return e.dispatchers == 0; });
}

}  // namespace znpex::client

int px_reg_event_select(px_session_t session, uint32_t option, const char* class_name,
                        const char* selection, const char* const* attr_names, uint32_t attr_count,
                        const char* expression, const char* rearm, px_event_cb_t callback,
                        void* arg, px_reg_event_rsp_t** rsp) {
    if ((option & ~PX_EVENT_OPT_CLASS) != 2) {
        return failOption(option);
    }
    if (session == nullptr || class_name == nullptr || expression == nullptr ||
        callback == nullptr || rsp == nullptr || (attr_count > 0 && attr_names == nullptr)) {
        return failInvalid("px_reg_event_select",
                           "a session, class, expression, callback and response are required");
    }
    *rsp = nullptr;
    proto::Json names = proto::Json::array();
    for (uint32_t i = 0; i < attr_count; ++i) {
        if (attr_names[i] == nullptr) {
            return failInvalid("px_reg_event_select", "an attribute name is null");
        }
        names.push_back(attr_names[i]);
    }
    proto::Json params = {
        {"class", class_name}, {"attributes", std::move(names)}, {"expression", expression}};
    if (selection != nullptr && selection[0] != '\0') {
        params["selection"] = selection;
    }
    if (rearm != nullptr && rearm[0] != '\0') {
        params["rearm"] = rearm;
    }
    if ((option & PX_EVENT_OPT_CLASS) != 0) {
        params["classLevel"] = true;
    }
    {
        std::lock_guard<std::mutex> g(session->ioMu);
        if (!session->conn) {
            return failComm("(none)", "the session has no connection");
        }
        hook(*session);
    }
    auto* out = static_cast<px_reg_event_rsp_t*>(std::calloc(1, sizeof(px_reg_event_rsp_t)));
    if (out == nullptr) {
        return failNoMemory("px_reg_event_select");
    }
    out->hdr.pr_type = static_cast<px_response_type_t>(PX_RSP_REG_EVENT);
    proto::Json result;
    int rc = call(*session, kRegister, std::move(params), result);
    const proto::Json* id = rc == PX_OK ? proto::findField(result, "registration") : nullptr;
    if (rc == PX_OK && (id == nullptr || !id->is_number_unsigned())) {
        rc = failReply(kRegister, "no registration id");
    }
    if (rc != PX_OK) {
        std::free(out);
        return rc;
    }
    out->registration = id->get<uint64_t>();
    {
        std::lock_guard<std::mutex> g(session->events.mu);
        session->events.registrations[out->registration] = {callback, arg};
    }
    *rsp = out;
    return PX_OK;
}

int px_unreg_event(px_session_t session, uint64_t registration) {
    if (session == nullptr) {
        return failInvalid("px_unreg_event", "no session");
    }
    proto::Json result;
    int rc = call(*session, kUnregister, proto::Json{{"registration", registration}}, result);
    if (rc == PX_OK) {
        std::lock_guard<std::mutex> g(session->events.mu);
        session->events.registrations.erase(registration);
    }
    return rc;
}

int px_dispatch(px_session_t session, int option) {
    if (session == nullptr || (option != 0 && option != 1)) {
        return failInvalid("px_dispatch", "a session and option 0 or 1 are required");
    }
    px_session& s = *session;
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        if (s.events.ending) {
            return PX_DISPATCH_ENDED;
        }
        ++s.events.dispatchers;
    }
    int rc = PX_OK;
    bool pumped = false;
    for (;;) {
        if (ending(s)) {
            rc = PX_DISPATCH_ENDED;
            break;
        }
        proto::Json params;
        if (takeEvent(s, params)) {
            deliver(s, params);
            continue;
        }
        if (option == 0 && pumped) {
            break;
        }
        rc = pump(s, option == 0 ? 0 : kPumpMs);
        pumped = true;
        if (rc != PX_OK) {
            // What came before the connection failed still reaches its callback.
            proto::Json last;
            while (!ending(s) && takeEvent(s, last)) {
                deliver(s, last);
            }
            break;
        }
    }
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        --s.events.dispatchers;
    }
    s.events.changed.notify_all();
    return rc;
}

uint64_t px_events_dropped(px_session_t session) {
    if (session == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> g(session->events.mu);
    return session->events.dropped;
}
