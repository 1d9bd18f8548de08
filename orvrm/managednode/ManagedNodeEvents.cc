// The class's event sessions: a registered session is kept with the thread
// that dispatches its events; the thread's end clears it and, for a session
// that was lost, schedules the recovery; the class's destruction ends both.
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/PEXCBThread.h"

namespace orvrm {

bool ManagedNodeRccp::adoptEventSession(EventLink& link, px_session_t session, uint64_t regId,
                                        std::unique_ptr<EventDispatchThread> thread) {
    std::unique_ptr<EventDispatchThread> previous;
    px_session_t live = nullptr;
    {
        std::lock_guard<std::mutex> g(eventMu_);
        if (stopping_) {
            return false;
        }
        previous = std::move(link.thread);
        live = link.session;
        link.session = nullptr;
        link.regId = 0;
    }
    // A session still held is replaced: ended on purpose, so its thread
    // leaves without recovery. Both outside eventMu_, which that thread takes
    // on its way out.
    if (live != nullptr) {
        px_end_session(live);
    }
    previous.reset();
    std::lock_guard<std::mutex> g(eventMu_);
    if (stopping_) {
        return false;
    }
    link.session = session;
    link.regId = regId;
    link.thread = std::move(thread);
    unsigned long id = 0;
    getRmcp()->startCallbackThread(&id, link.thread.get());
    return true;
}

bool ManagedNodeRccp::clearEventSession(EventLink& link, px_session_t session) {
    std::lock_guard<std::mutex> g(eventMu_);
    if (link.session != session) {
        return false;
    }
    link.session = nullptr;
    link.regId = 0;
    return true;
}

void ManagedNodeRccp::endEventSessions() {
    px_session_t sessions[2] = {};
    {
        std::lock_guard<std::mutex> g(eventMu_);
        stopping_ = true;
        sessions[0] = localLink_.session;
        sessions[1] = dpexLink_.session;
        localLink_.session = dpexLink_.session = nullptr;
        localLink_.regId = dpexLink_.regId = 0;
    }
    // Not under eventMu_: ending waits for a callback in progress, and the
    // threads take eventMu_ on their way out.
    for (px_session_t s : sessions) {
        if (s != nullptr) {
            px_end_session(s);
        }
    }
    localLink_.thread.reset();
    dpexLink_.thread.reset();
}

void ManagedNodeRccp::localDispatchEnded(px_session_t session, int rc) {
    clearEventSession(localLink_, session);
    if (rc == PX_DISPATCH_ENDED) {
        return;
    }
    px_end_session(session);
    std::lock_guard<std::mutex> g(eventMu_);
    if (!stopping_) {
        scheduleLocalPEXEventReg(30);
    }
}

bool ManagedNodeRccp::powerEventsRegistered() {
    std::lock_guard<std::mutex> g(eventMu_);
    return localLink_.regId != 0;
}

}  // namespace orvrm
