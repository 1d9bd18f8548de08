// Scoped guards for the control points' own locks: a request handler holds
// the guard of its class or resource for its whole run. Both locks are
// recursive, so a handler may call helpers that take the same guard.
#pragma once

#include "tarn_rmf2v/RMRccp.h"
#include "tarn_rmf2v/RMRcp.h"

namespace tarn_rmf2v {

class lockRccp {
public:
    explicit lockRccp(RMRccp* rccp) : m_(rccp->mutex()) { m_.lock(); }
    ~lockRccp() { m_.unlock(); }
    lockRccp(const lockRccp&) = delete;
    lockRccp& operator=(const lockRccp&) = delete;

private:
    std::recursive_mutex& m_;
};

class lockRcp {
public:
    explicit lockRcp(RMRcp* rcp) : m_(rcp->mutex()) { m_.lock(); }
    ~lockRcp() { m_.unlock(); }
    lockRcp(const lockRcp&) = delete;
    lockRcp& operator=(const lockRcp&) = delete;

private:
    std::recursive_mutex& m_;
};

}  // namespace tarn_rmf2v
