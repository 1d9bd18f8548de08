#include "tarn_rmf/registry/RMStoreFault.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

std::mutex g_mu;
std::shared_ptr<const RMStoreFault> g_fault;  // under g_mu
std::atomic<bool> g_installed{false};         // spares the mutex when none is

const char* stepName(RMStoreStep step) {
    switch (step) {
        case RMStoreStep::kOpen:
            return "opening a table";
        case RMStoreStep::kWrite:
            return "writing a change";
        case RMStoreStep::kSync:
            return "syncing";
    }
    return "a store step";
}

}  // namespace

void RMSetStoreFault(RMStoreFault fault) {
    auto next = fault ? std::make_shared<const RMStoreFault>(std::move(fault)) : nullptr;
    std::lock_guard<std::mutex> g(g_mu);
    g_installed.store(next != nullptr);
    g_fault = std::move(next);
}

void RMCheckStoreFault(const std::string& tablePath, RMStoreStep step) {
    if (!g_installed.load()) {
        return;
    }
    std::shared_ptr<const RMStoreFault> fault;
    {
        std::lock_guard<std::mutex> g(g_mu);
        fault = g_fault;
    }
    if (fault && (*fault)(tablePath, step)) {
        throw RMTableError::build(RMTableErrc::kStorage, tablePath.c_str(), stepName(step),
                                  "the store refused it");
    }
}

}  // namespace tarn_rmf
