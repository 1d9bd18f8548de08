// Event watches of the client interface: register a watch on a class (an
// event expression over its resources' attributes, "Name@P" for previous
// values, an optional re-arm expression), then run px_dispatch to have each
// event delivered to the watch's callback.
//
// Contract:
// - px_reg_event_select takes option 2, optionally with PX_EVENT_OPT_CLASS
//   (any other: PX_ENOTSUPPORTED); selection null or "" watches every
//   resource; rearm null: none. The response carries the registration id;
//   free it with px_free_response.
// - With PX_EVENT_OPT_CLASS the watch is on the class's own attributes (its
//   class-level persistent and dynamic ones): the expression, re-arm and
//   attribute names are those, and its events have PX_EVENT_CLASS and no
//   resource handle.
// - Events reach the session whenever the service has one, also while no
//   px_dispatch runs: they wait in the session's queue, which holds up to
//   PX_EVENT_QUEUE_MAX events; past that, new events are dropped and counted
//   (px_events_dropped). Each is delivered once.
// - px_dispatch(session, 1) blocks, calling each event's callback on the
//   calling thread, and returns PX_DISPATCH_ENDED (4) when px_end_session
//   was called on the session (on another thread, or in a callback),
//   PX_ECOMM when the connection was lost. It waits on the connection and a
//   wake-up descriptor together: other calls on the session and its end
//   wake it at once. px_dispatch(session, 0) delivers what is waiting and
//   returns PX_OK. Other options: PX_EINVAL, and so is a second px_dispatch
//   on a session while one runs. Ending from any thread: px_client.h.
// - The callback owns the event and releases it with px_free_response.
#pragma once

#include <cstdint>

#include "znpex/client/px_client.h"

inline constexpr int PX_DISPATCH_ENDED = 4;
// Or'ed into px_reg_event_select's option 2: watch the class itself.
inline constexpr uint32_t PX_EVENT_OPT_CLASS = 0x100;
inline constexpr uint32_t PX_EVENT_QUEUE_MAX = 65536;

inline constexpr int32_t PX_RSP_REG_EVENT = 5;
inline constexpr int32_t PX_RSP_EVENT = 6;

// Event flags.
inline constexpr uint32_t PX_EVENT_ERROR = 0x1;  // pe_errnum says what went wrong
inline constexpr uint32_t PX_EVENT_CLASS = 0x4;  // about the class, no resource

// One attribute sent with an event (the names the registration listed).
struct px_event_attr_t {
    char* pe_name;
    int32_t pe_id;
    zn_data_type_t pe_type;
    zn_value_t pe_value;
};

struct px_event_2_t {
    px_rsp_hdr_t hdr;  // pr_type PX_RSP_EVENT
    uint64_t pe_registration;
    char* pe_class;
    int pe_has_handle;
    zn_resource_handle pe_handle;
    uint32_t pe_flags;
    int32_t pe_errnum;  // error events: 0x40004, 0x40005, 0x4000a, 0x4000b, 0x4000c, 0x40010
    px_event_attr_t* pe_attrs;
    uint32_t pe_attr_count;
};

struct px_reg_event_rsp_t {
    px_rsp_hdr_t hdr;  // pr_type PX_RSP_REG_EVENT
    uint64_t registration;
};

// session: the session the event came through; arg: the registration's.
typedef void (*px_event_cb_t)(void* session, px_event_2_t* event, void* arg);

int px_reg_event_select(px_session_t session, uint32_t option, const char* class_name,
                        const char* selection, const char* const* attr_names, uint32_t attr_count,
                        const char* expression, const char* rearm, px_event_cb_t callback,
                        void* arg, px_reg_event_rsp_t** rsp);
int px_unreg_event(px_session_t session, uint64_t registration);
int px_dispatch(px_session_t session, int option);
// Events dropped because the session's queue was full.
uint64_t px_events_dropped(px_session_t session);

namespace znpex::client {
// Releases what an event or registration response holds (not the struct).
void freeEventParts(px_rsp_hdr_t* rsp);
}  // namespace znpex::client
