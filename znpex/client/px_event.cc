#include "znpex/client/px_event.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "znpex/client/ClientErrors.h"
#include "znpex/client/EventDecode.h"
#include "znpex/client/Responses.h"
#include "znpex/client/Session.h"
#include "znpex/client/SessionLife.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

using namespace znpex::client;
namespace proto = znpex::proto;

namespace {

constexpr char kRegister[] = "event.register";
constexpr char kUnregister[] = "event.unregister";
constexpr char kFired[] = "event.fired";

void deliver(px_session& s, RspPtr<px_event_2_t> event) {
    EventState::Registration reg;
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        auto it = s.events.registrations.find(event->pe_registration);
        if (it != s.events.registrations.end()) {
            reg = it->second;
        }
    }
    if (reg.callback == nullptr) {
        return;  // unregistered meanwhile
    }
    reg.callback(&s, event.release(), reg.arg);
}

void enqueue(EventState& events, RspPtr<px_event_2_t> event) {
    std::lock_guard<std::mutex> g(events.mu);
    if (events.queue.size() >= PX_EVENT_QUEUE_MAX) {
        ++events.dropped;
        return;
    }
    events.queue.push_back(std::move(event));
}

// Routes the connection's events into the session's queue (once): plain
// ones straight from their text, any other through the parsed message.
void hook(px_session& s) {
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        if (s.events.hooked) {
            return;
        }
        s.events.hooked = true;
    }
    EventState* events = &s.events;
    s.conn->setFrameFilter([events](const std::string& frame) {
        RspPtr<px_event_2_t> e;
        try {
            e = eventFromText(frame);
        } catch (const std::bad_alloc&) {
            return false;  // the general road tries, and drops it as it drops any it cannot read
        }
        if (e == nullptr) {
            return false;
        }
        enqueue(*events, std::move(e));
        return true;
    });
    s.conn->setNotificationSink([events](proto::RpcMessage&& m) {
        if (m.method != kFired) {
            return;
        }
        RspPtr<px_event_2_t> e;
        try {
            e = eventFromParams(m.params);
        } catch (const std::exception&) {
            return;  // an event this client cannot read is not one it can deliver
        }
        enqueue(*events, std::move(e));
    });
}

// Takes the oldest waiting event; null when none waits.
RspPtr<px_event_2_t> takeEvent(px_session& s) {
    std::lock_guard<std::mutex> g(s.events.mu);
    if (s.events.queue.empty()) {
        return nullptr;
    }
    RspPtr<px_event_2_t> e = std::move(s.events.queue.front());
    s.events.queue.pop_front();
    return e;
}

// Reads what has come already, without waiting (px_dispatch option 0).
int pumpNow(px_session& s) {
    IoLock io(s);
    std::string why;
    if (s.conn->pump(0, &why) == Connection::Status::Failed) {
        return failComm(s.conn->contact().text(), why);
    }
    return PX_OK;
}

bool eventsWaiting(px_session& s) {
    std::lock_guard<std::mutex> g(s.events.mu);
    return !s.events.queue.empty();
}

// Waits for the service on the socket and the session's wake-up descriptor
// together, holding the connection only while no other call wants it (they
// read events for us meanwhile). Returns when something was read, events
// wait, another call wants the connection, or the session is ending; the
// caller looks which.
int waitAndRead(px_session& s) {
    {
        std::unique_lock<std::mutex> l(s.lifeMu);
        s.lifeCv.wait(l, [&s] { return s.ending || s.ioUsers == 0 || eventsWaiting(s); });
        // ioUsers is 0: every call takes ioMu through IoLock, so it is free.
        if (s.ending || s.ioUsers > 0 || !s.ioMu.try_lock()) {
            return PX_OK;
        }
        s.polling = true;  // from now on a call that wants ioMu wakes us
    }
    std::string why;
    Connection::Status st = Connection::Status::Ok;
    {
        std::unique_lock<std::mutex> io(s.ioMu, std::adopt_lock);
        // The last call that had the connection may have read events: those first.
        if (!eventsWaiting(s)) {
            st = s.conn->pump(-1, &why, s.wake.fd());
        }
    }
    {
        // Not under ioMu: lifeMu is never taken holding it. A call that saw
        // polling meanwhile woke us for nothing; the drain below clears that.
        std::lock_guard<std::mutex> l(s.lifeMu);
        s.polling = false;
    }
    // Whatever woke us is in the session's state, looked at next.
    s.wake.drain();
    if (st == Connection::Status::Failed) {
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

void waitDispatchGone(EventState& e) {
    std::unique_lock<std::mutex> lk(e.mu);
    e.changed.wait(lk,
                   [&e] { return !e.dispatching || e.dispatcher == std::this_thread::get_id(); });
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
    SessionUse use(session);
    if (!use) {
        return failEnded("px_reg_event_select");
    }
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
        IoLock io(*session);
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
    SessionUse use(session);
    if (!use) {
        return failEnded("px_unreg_event");
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
    SessionUse use(session);
    if (!use) {
        return PX_DISPATCH_ENDED;
    }
    px_session& s = *session;
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        if (s.events.dispatching) {
            return failInvalid("px_dispatch", "another px_dispatch runs on this session");
        }
        s.events.dispatching = true;
        s.events.dispatcher = std::this_thread::get_id();
    }
    int rc = PX_OK;
    bool pumped = false;
    for (;;) {
        if (isEnding(s)) {
            rc = PX_DISPATCH_ENDED;
            break;
        }
        if (RspPtr<px_event_2_t> e = takeEvent(s)) {
            deliver(s, std::move(e));
            continue;
        }
        if (option == 0 && pumped) {
            break;
        }
        rc = option == 0 ? pumpNow(s) : waitAndRead(s);
        pumped = true;
        if (rc != PX_OK) {
            // What came before the connection failed still reaches its callback.
            while (!isEnding(s)) {
                RspPtr<px_event_2_t> last = takeEvent(s);
                if (last == nullptr) {
                    break;
                }
                deliver(s, std::move(last));
            }
            break;
        }
    }
    {
        std::lock_guard<std::mutex> g(s.events.mu);
        s.events.dispatching = false;
        s.events.dispatcher = std::thread::id();
    }
    // Still a call on the session (use): px_end_session may be waiting for this.
    s.events.changed.notify_all();
    return rc;
}

uint64_t px_events_dropped(px_session_t session) {
    SessionUse use(session);
    if (!use) {
        return 0;
    }
    std::lock_guard<std::mutex> g(session->events.mu);
    return session->events.dropped;
}
