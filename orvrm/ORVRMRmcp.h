// The resource manager control point of this daemon: owns the registry tree,
// creates the five class control points through the factory table, reacts to
// asynchronous framework errors and takes heartbeat reports from the other
// instances. Its mutex serialises every update of the distributed
// node-information tables.
#pragma once

#include <mutex>

#include "tarn_rmf/registry/RMTree.h"
#include "tarn_rmf2v/RMRmcp.h"

class ORVRMRmcp : public tarn_rmf2v::RMRmcp {
public:
    ORVRMRmcp(const char* rmName, unsigned int arg);
    ~ORVRMRmcp() override;

    tarn_rmf::RMTree* getTree() override;
    tarn_rmf2v::RMRccp* createRCCP(char* className, cu_error_t** err) override;
    void asyncError(rm_async_error_level level, int code, cu_error_t* err) override;
    void PEXMessageReceived(int type, int subtype, void* data, unsigned int length) override;

    // Base cleanup, then the registry tree.
    void cleanup();
    std::mutex& diMutex() { return diMutex_; }

private:
    tarn_rmf::RMTree* tree_ = nullptr;  // owned
    std::mutex diMutex_;
};

// True when the daemon runs on the hardware management console: the console
// tool "/opt/ysu/bin/lsysu" can be opened for reading (it is never run).
bool isOnAnXCU();
