// How long a client session lives, and how its calls share the connection
// with a px_dispatch blocked on it. The library keeps a table of its live
// sessions; every call on a session enters it (refused once the session is
// ending) and leaves it, and the last call to leave an ending session frees
// it. So px_end_session may run on any thread while other calls are under
// way: nothing they use goes before they have left.
#pragma once

#include "znpex/client/Session.h"

namespace znpex::client {

// A session px_start_session just made; its calls may enter from now on.
void addSession(px_session* s);
// Enters a call on s: false, with nothing held, when s is no live session
// or is ending.
bool enterCall(px_session* s);
// Leaves a call; frees s when it is ending and this was its last call.
void leaveCall(px_session* s);
// Marks s ending and wakes whatever waits on it (a px_dispatch returns).
// Holds a call as enterCall does: leave it when done. False when s is no
// live session or was ending already.
bool beginEnd(px_session* s);
bool isEnding(px_session& s);

// One call on a session for as long as it lives (a function's whole run).
class SessionUse {
public:
    explicit SessionUse(px_session* s) : s_(s), entered_(s != nullptr && enterCall(s)) {}
    // Takes over a call entered otherwise (beginEnd's), when entered.
    SessionUse(px_session* s, bool entered) : s_(s), entered_(entered) {}
    ~SessionUse() {
        if (entered_) {
            leaveCall(s_);
        }
    }
    SessionUse(const SessionUse&) = delete;
    SessionUse& operator=(const SessionUse&) = delete;
    explicit operator bool() const { return entered_; }

private:
    px_session* s_;
    bool entered_;
};

// Holds the session's I/O mutex for one exchange on the connection. A
// px_dispatch waiting on the socket holds that mutex: it is woken and lets
// go, and takes it again only when no call wants it; meanwhile it delivers
// the events those calls read.
class IoLock {
public:
    explicit IoLock(px_session& s);
    ~IoLock();
    IoLock(const IoLock&) = delete;
    IoLock& operator=(const IoLock&) = delete;

private:
    px_session& s_;
};

}  // namespace znpex::client
