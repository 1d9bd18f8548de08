// What a session keeps for its event watches: the callbacks by registration
// id, the events received but not yet delivered (bounded), and whether a
// px_dispatch runs or the session is ending. Guarded by its own mutex, never
// held while a callback runs or while the session's I/O mutex is taken.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

#include "znpex/proto/Json.h"

struct px_event_2_t;

namespace znpex::client {

struct EventState {
    struct Registration {
        void (*callback)(void* session, px_event_2_t* event, void* arg) = nullptr;
        void* arg = nullptr;
    };
    std::mutex mu;
    std::condition_variable changed;  // dispatchers left
    std::map<uint64_t, Registration> registrations;
    std::deque<proto::Json> queue;  // "event.fired" params, oldest first
    uint64_t dropped = 0;
    int dispatchers = 0;
    bool ending = false;
    bool hooked = false;  // the connection hands its notifications here
};

// Tells a running px_dispatch that the session ends and waits until it has
// returned (called by px_end_session before the session goes).
void endDispatch(EventState& e);

}  // namespace znpex::client
