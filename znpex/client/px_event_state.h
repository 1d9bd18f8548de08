// What a session keeps for its event watches: the callbacks by registration
// id, the events received but not yet delivered (bounded), and which thread
// runs px_dispatch. Guarded by its own mutex, never held while a callback
// runs or while the session's I/O mutex is taken.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "znpex/client/Responses.h"
#include "znpex/client/px_event.h"

namespace znpex::client {

struct EventState {
    struct Registration {
        void (*callback)(void* session, px_event_2_t* event, void* arg) = nullptr;
        void* arg = nullptr;
    };
    std::mutex mu;
    std::condition_variable changed;  // the dispatcher left
    std::map<uint64_t, Registration> registrations;
    std::deque<RspPtr<px_event_2_t>> queue;  // decoded, oldest first
    uint64_t dropped = 0;
    bool dispatching = false;
    std::thread::id dispatcher;  // while dispatching
    bool hooked = false;         // the connection hands its notifications here
};

// Waits until no px_dispatch runs on the session, unless the caller is the
// dispatching thread itself (a callback ending its own session). Called by
// px_end_session once the session is ending, so the dispatch returns soon.
void waitDispatchGone(EventState& e);

}  // namespace znpex::client
