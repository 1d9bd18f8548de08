#include "znpex/client/SessionLife.h"

#include <unordered_set>

namespace znpex::client {
namespace {

// Live sessions. Taken before a session's lifeMu when both are needed.
struct LiveTable {
    std::mutex mu;
    std::unordered_set<px_session*> sessions;
};

LiveTable& live() {
    // Never destroyed: a session may still end while the process exits.
    static auto* table = new LiveTable;
    return *table;
}

}  // namespace

void addSession(px_session* s) {
    LiveTable& t = live();
    std::lock_guard<std::mutex> g(t.mu);
    t.sessions.insert(s);
}

bool enterCall(px_session* s) {
    LiveTable& t = live();
    std::lock_guard<std::mutex> g(t.mu);
    if (t.sessions.count(s) == 0) {
        return false;
    }
    std::lock_guard<std::mutex> l(s->lifeMu);
    if (s->ending) {
        return false;
    }
    ++s->calls;
    return true;
}

void leaveCall(px_session* s) {
    bool last = false;
    {
        LiveTable& t = live();
        std::lock_guard<std::mutex> g(t.mu);
        std::lock_guard<std::mutex> l(s->lifeMu);
        last = --s->calls == 0 && s->ending;
        if (last) {
            t.sessions.erase(s);
        }
    }
    if (last) {
        delete s;  // no call is under way and none can enter
    }
}

bool beginEnd(px_session* s) {
    {
        LiveTable& t = live();
        std::lock_guard<std::mutex> g(t.mu);
        if (t.sessions.count(s) == 0) {
            return false;
        }
        std::lock_guard<std::mutex> l(s->lifeMu);
        if (s->ending) {
            return false;
        }
        s->ending = true;
        ++s->calls;
    }
    s->lifeCv.notify_all();
    s->wake.signal();
    return true;
}

bool isEnding(px_session& s) {
    std::lock_guard<std::mutex> l(s.lifeMu);
    return s.ending;
}

IoLock::IoLock(px_session& s) : s_(s) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> l(s.lifeMu);
        ++s.ioUsers;
        wake = s.polling;
    }
    if (wake) {
        s.wake.signal();
    }
    s.ioMu.lock();
}

IoLock::~IoLock() {
    s_.ioMu.unlock();
    {
        std::lock_guard<std::mutex> l(s_.lifeMu);
        --s_.ioUsers;
    }
    // A px_dispatch waits for its turn, or for events this call read.
    s_.lifeCv.notify_all();
}

}  // namespace znpex::client
