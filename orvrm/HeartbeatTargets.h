// What the heartbeat report handler calls on the two classes it feeds: the
// network interface class sets each address's status, the managed node class
// learns whether the node is alive. The classes implement these beside their
// control point base.
#pragma once

#include <cstdint>

namespace orvrm {

class InterfaceHeartbeatTarget {
public:
    virtual ~InterfaceHeartbeatTarget() = default;
    virtual void setHeartbeat(char* address, unsigned int state) = 0;
};

class NodeHeartbeatTarget {
public:
    virtual ~NodeHeartbeatTarget() = default;
    virtual void pexHearbeatMsgCB(uint64_t nodeId, int alive) = 0;
};

}  // namespace orvrm
