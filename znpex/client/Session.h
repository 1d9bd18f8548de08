// A client session: the connection to one service, the identity it was given,
// the timeouts and a cache of class definitions (for attribute and action
// names). The px_ functions and the command line go through call()/callRm().
// Thread-safe: calls on one session are serialised by its I/O mutex; the
// class cache has its own mutex; how long it lives is in SessionLife.h.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMReply.h"
#include "tarn_rmf2v/RMRequest.h"
#include "znpex/client/Connection.h"
#include "znpex/client/WakeFd.h"
#include "znpex/client/px_event_state.h"
#include "znpex/proto/ClassDefCodec.h"

struct px_session {
    std::mutex ioMu;  // one request on the wire at a time; taken through IoLock
    std::unique_ptr<znpex::client::Connection> conn;
    std::string identity;
    std::string serviceHost;  // the name the service greets other hosts under ("" unknown)
    uint64_t sessionId = 0;
    int requestTimeoutMs = 30000;

    std::mutex cacheMu;  // guards classes, classesLoaded
    std::map<std::string, znpex::proto::ClassInfo> classes;
    bool classesLoaded = false;

    znpex::client::EventState events;  // event watches and their queue

    // Calls under way and the hand-over of ioMu to them from a px_dispatch
    // waiting on the socket (SessionLife.h). Never taken while ioMu is held.
    std::mutex lifeMu;               // guards the four below
    std::condition_variable lifeCv;  // a call let go of ioMu, or the session is ending
    int calls = 0;                   // calls under way (px_end_session's among them)
    bool ending = false;             // px_end_session has begun: no call enters
    int ioUsers = 0;                 // calls that want or hold ioMu (IoLock)
    bool polling = false;            // px_dispatch waits on the socket holding ioMu
    znpex::client::WakeFd wake;      // ends that wait: another call, or the end
};

namespace znpex::client {

// Process-wide defaults for new sessions (milliseconds).
int defaultConnectTimeoutMs();
int defaultRequestTimeoutMs();
void setDefaultTimeouts(int connectMs, int requestMs);

// One request: PX_OK with the result, or the failure's code with the thread's
// error set (a JSON-RPC error reply included).
int call(px_session& s, const std::string& method, proto::Json params, proto::Json& result);
// A resource-manager request: encoded, sent, and its reply decoded.
int callRm(px_session& s, const tarn_rmf2v::RMRequest& request, tarn_rmf2v::RMReply& reply);
// Several of them with up to kPipelineWindow on the wire at once, so that a
// request per resource costs no round trip each; replies in request order.
// The first failure ends the batch, as the same requests one by one would.
inline constexpr size_t kPipelineWindow = 16;
int callRmMany(px_session& s, const std::vector<tarn_rmf2v::RMRequest>& requests,
               std::vector<tarn_rmf2v::RMReply>& replies);
// The class list (fetched afresh, and cached).
int listClasses(px_session& s, std::vector<proto::ClassInfo>& out);
// The definition of one class, fetched once and again when not found;
// PX_EFAILED with the common "class not known" error when the service does
// not show it.
int classDef(px_session& s, const std::string& name, tarn_rmf2v::RMClassDef& out);

}  // namespace znpex::client
