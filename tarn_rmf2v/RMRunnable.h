// Base of the program's callback thread bodies: a CRunnable that the resource
// manager control point starts inside its callback context
// (RMRmcp::startCallbackThread). Subclasses override run(void*).
#pragma once

#include "tarn_base/CRunnable.h"

namespace tarn_rmf2v {

class RMRunnable : public tarn_base::CRunnable {
public:
    // The arguments are the framework's thread settings (stack size in KiB,
    // detach flag, priority, policy); this platform keeps the defaults and
    // records them for status output.
    RMRunnable(unsigned int stackKiB, char detached, unsigned int priority, int policy)
        : stackKiB_(stackKiB), detached_(detached), priority_(priority), policy_(policy) {}
    unsigned int stackKiB() const { return stackKiB_; }
    char detached() const { return detached_; }
    unsigned int priority() const { return priority_; }
    int policy() const { return policy_; }

private:
    unsigned int stackKiB_;
    char detached_;
    unsigned int priority_;
    int policy_;
};

}  // namespace tarn_rmf2v
