// Stands in for a failing store in tests: while a fault is installed, each
// store step of every cached table of the process asks it first, and a true
// answer makes the step throw RMTableError kStorage, as a full or failing
// disk would, before anything of the step is applied (a refused write
// changes neither the store nor the table in memory). Thread safe.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace tarn_rmf {

enum class RMStoreStep {
    kOpen,   // opening a table: its definition and rows are read
    kWrite,  // a change written through, or the pending changes written
    kSync,   // sync(): the durable commit and the checkpoint
};

using RMStoreFault = std::function<bool(const std::string& tablePath, RMStoreStep step)>;

// Installs `fault` for every table (null removes it).
void RMSetStoreFault(RMStoreFault fault);
// Throws kStorage for table `tablePath` when the installed fault refuses `step`.
void RMCheckStoreFault(const std::string& tablePath, RMStoreStep step);

// Installs a fault for its own lifetime.
class RMScopedStoreFault {
public:
    explicit RMScopedStoreFault(RMStoreFault fault) { RMSetStoreFault(std::move(fault)); }
    ~RMScopedStoreFault() { RMSetStoreFault(nullptr); }
    RMScopedStoreFault(const RMScopedStoreFault&) = delete;
    RMScopedStoreFault& operator=(const RMScopedStoreFault&) = delete;
};

}  // namespace tarn_rmf
