#include "bench/znpex/BenchManager.h"

#include <chrono>
#include <thread>

#include "tarn_rmf2v/RMResponses.h"

namespace znpexbench {
namespace {

class BenchRccp : public tarn_rmf2v::RMRccp {
public:
    explicit BenchRccp(tarn_rmf2v::RMRmcp* rmcp) : RMRccp(kBenchClass, RM_OBJECT_CLASS, rmcp) {
        tarn_rmf2v::RMClassDef def;
        def.name = kBenchClass;
        def.persistent = {{"Name", 0, ZN_CHAR_PTR, 0}};
        setClassDef(def);
        for (unsigned i = 0; i < 4; ++i) {
            handles_[i].bytes[0] = static_cast<unsigned char>(i + 1);
        }
    }
    void enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) override {
        rsp->done(handles_, 4);
    }

private:
    zn_resource_handle handles_[4] = {};
};

}  // namespace

BenchManager::BenchManager(unsigned dispatchThreads)
    : rmcp_(std::make_unique<tarn_rmf2v::RMRmcp>("Bench.RM", 1, nullptr, 0, 1)) {
    new BenchRccp(rmcp_.get());  // the control point owns its classes
    for (unsigned i = 0; i < dispatchThreads; ++i) {
        unsigned long id = 0;
        rmcp_->start(&id);
    }
}

BenchManager::~BenchManager() {
    if (conn_) {
        conn_->stop();
    }
    rmcp_->cleanup();
}

bool BenchManager::start(int timeoutMs) {
    conn_ = std::make_unique<tarn_rmf2v::RMServiceConnection>(*rmcp_);
    conn_->start();
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!conn_->connected()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace znpexbench
