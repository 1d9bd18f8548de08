// The one list of methods the service accepts, with what each needs: where it
// may come from (local socket only, root only), and for resource-manager
// operations whether it is a class or a resource operation and whether it
// reads or writes. A method not in the table is refused before anything else
// looks at it. The table is built once and never changes (thread-safe).
#pragma once

#include <string>

#include "tarn_rmf2v/RMRequest.h"
#include "znpex/server/Authorize.h"

namespace znpex::server {

enum class MethodKind {
    SessionStart,
    SessionEnd,
    ClassList,
    RefreshAcl,
    Status,
    AuthHello,
    AuthProve,  // a TCP client proves the host it runs on
    Register,   // a resource manager announces itself and its classes
    ManagerOp,  // "rm.<operation>", forwarded to the class's manager
    // Notifications a registered resource manager sends (no reply).
    NotifyResourcesUndefined,
    NotifyAttributesModified,
    PeerSend,
    EventRegister,    // a client sets up an event watch
    EventUnregister,  // and ends it
    // Distributed-information tables.
    DiRefresh,  // a resource manager on this host applies a table transaction
    DiTuneHeartbeat,
    DiNodes,   // read the node table
    DiGroups,  // read the node-group table
    DiWatch,   // be told of every change of the tables
    // Between hosts' services.
    PeerHello,    // a link from another host's service greets this one
    PeerProve,    // and proves its host key
    PeerDeliver,  // a peer message for a manager on this host
    DiReplicate,  // another host's table change (or its whole tables)
};

struct MethodInfo {
    std::string name;
    MethodKind kind = MethodKind::ManagerOp;
    bool localOnly = false;      // refused on TCP connections
    bool rootOnly = false;       // refused unless the peer is root on this host
    bool privileged = false;     // refused unless the peer is root or the service's own user
    bool notification = false;   // comes without an id and gets no reply
    bool managerOnly = false;    // only from a connection that registered as a manager
    bool authenticated = false;  // refused to connections that are still UNAUTHENT
    bool peerOnly = false;       // only from another host's service after "peer.hello"
    // Manager operations only:
    tarn_rmf2v::RMRequestOp op = tarn_rmf2v::RMRequestOp::EnumerateResources;
    OpTarget target = OpTarget::Class;
    OpAccess access = OpAccess::Read;
    bool watch = false;  // asks for change notifications of the class
};

// The entry of `method`, or null when the service does not offer it.
const MethodInfo* findMethod(const std::string& method);
// The "rm.<operation>" entry of a request operation (never null).
const MethodInfo& methodOf(tarn_rmf2v::RMRequestOp op);

}  // namespace znpex::server
