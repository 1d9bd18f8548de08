// The resource manager control point: owns the class control points of one
// resource manager, its dispatch threads and its link to the monitoring
// service. Requests come in through submit() (queued for the dispatch threads
// started by start()) or dispatchSync() (in the caller's thread); either way
// they become the right virtual call on the right control point, and any
// exception is mapped to an error at that boundary.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarn_rmf2v/RMRccp.h"
#include "tarn_rmf2v/RMRequest.h"
#include "tarn_rmf2v/RMRunnable.h"
#include "tarn_rmf2v/RMServiceLink.h"

namespace tarn_rmf {
class RMTree;
}

namespace tarn_rmf2v {

class RMRmcp {
public:
    using Completion = std::function<void(RMReply&&)>;

    // The program passes its name, its own argument, no class list, 0 and 1.
    RMRmcp(const char* rmName, int arg, RMClassList* classes, unsigned int, unsigned int);
    virtual ~RMRmcp();
    RMRmcp(const RMRmcp&) = delete;
    RMRmcp& operator=(const RMRmcp&) = delete;

    // Virtual operations, in slot order.
    virtual void connectionChanged(rm_conn_changed state);
    virtual tarn_rmf::RMTree* getTree();
    virtual RMRccp* createRCCP(char* className, cu_error_t** err);
    virtual void bindRCCP(RMBindRCCPResponse* rsp, rm_bind_RCCP_data* data, unsigned int count);
    virtual void unbindRCCP(RMUnbindRCCPResponse* rsp, RMRccp** rccps, unsigned int count);
    virtual void asyncError(rm_async_error_level level, int code, cu_error_t* err);
    virtual void PEXMessageReceived(int type, int subtype, void* data, unsigned int length);

    // Starts one dispatch thread and stores its id.
    void start(unsigned long* threadId);
    RMRccp* findRccpByName(const char* className);
    // This host's 64-bit node id: made once, kept under the state root.
    uint64_t getNodeId();
    // The management domain's name: "IW" unless the host belongs to a named
    // domain (the name in "/var/zn/cfg/domain_name").
    const char* getClusterName();
    void sendPEXMessage(int type, int subtype, void* data, unsigned int length);
    // Starts body->run(nullptr) on a thread of its own (callback context).
    void startCallbackThread(unsigned long* threadId, RMRunnable* body);
    // Stops the dispatch threads and destroys the class control points (last
    // created first). Idempotent.
    void cleanup();
    const std::string& getRmName() const { return rmName_; }

    // Framework side: requests and the service link.
    void submit(RMRequest request, Completion done);
    RMReply dispatchSync(RMRequest& request);
    void setServiceLink(RMServiceLink* link);  // not owned; null: none
    RMServiceLink* serviceLink();
    // Peer messages sent while no link was set (bounded, oldest dropped).
    struct PeerMessage {
        int type;
        int subtype;
        std::vector<unsigned char> data;
    };
    std::vector<PeerMessage> unsentPeerMessages();
    // Class control points in creation order.
    std::vector<RMRccp*> classes();
    size_t dispatchThreadCount();

private:
    friend class RMRccp;
    void registerRccp(RMRccp* rccp);
    void unregisterRccp(RMRccp* rccp);
    void dispatchLoop();

    std::string rmName_;
    int arg_;

    std::mutex classesMu_;  // guards classes_
    std::vector<RMRccp*> classes_;

    std::mutex queueMu_;  // guards queue_, stopping_, threads_
    std::condition_variable queueCv_;
    std::deque<std::pair<RMRequest, Completion>> queue_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
    std::vector<std::unique_ptr<std::thread>> callbackThreads_;

    std::mutex linkMu_;  // guards link_, unsent_, nodeId_, clusterName_
    RMServiceLink* link_ = nullptr;
    std::deque<PeerMessage> unsent_;
    uint64_t nodeId_ = 0;
    std::string clusterName_;
    bool cleaned_ = false;
};

}  // namespace tarn_rmf2v
