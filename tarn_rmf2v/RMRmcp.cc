#include "tarn_rmf2v/RMRmcp.h"

#include <pthread.h>

#include <algorithm>

#include "tarn_base/CTraceManager.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMNodeId.h"

namespace tarn_rmf2v {
namespace {

constexpr size_t kMaxUnsentPeerMessages = 256;

tarn_base::CTraceComponent* rmfTrace() {
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    static tarn_base::CTraceComponent* c = tarn_base::CTraceManager::newComponent("_RMF", cats, 2);
    return c;
}

}  // namespace

RMRmcp::RMRmcp(const char* rmName, int arg, RMClassList*, unsigned int, unsigned int)
    : rmName_(rmName != nullptr ? rmName : ""), arg_(arg) {}

RMRmcp::~RMRmcp() {
    cleanup();
}

void RMRmcp::connectionChanged(rm_conn_changed state) {
    for (RMRccp* c : classes()) {
        if (state == RM_CONNECTION_LOST) {
            // A lost service's watches died with it; keeping them would
            // send changes nobody asked for and make the next service's
            // watch start look like a repeat.
            c->getMonitor()->clear();
        }
        c->connectionChanged(state);
    }
}

tarn_rmf::RMTree* RMRmcp::getTree() {
    return nullptr;
}

RMRccp* RMRmcp::createRCCP(char* className, cu_error_t** err) {
    if (err != nullptr) {
        *err = defaults::common(tarn_rmf::RM_EINVALIDCLASS, className).release();
    }
    return nullptr;
}

void RMRmcp::bindRCCP(RMBindRCCPResponse* rsp, rm_bind_RCCP_data*, unsigned int) {
    rsp->done(nullptr);
}

void RMRmcp::unbindRCCP(RMUnbindRCCPResponse* rsp, RMRccp**, unsigned int) {
    rsp->done(nullptr);
}

void RMRmcp::asyncError(rm_async_error_level level, int code, cu_error_t* err) {
    if (auto* t = rmfTrace()) {
        t->writef(0, "asynchronous error level %d code %d: %s", static_cast<int>(level), code,
                  cu_error_text(err).c_str());
    }
}

void RMRmcp::PEXMessageReceived(int, int, void*, unsigned int) {}

void RMRmcp::start(unsigned long* threadId) {
    std::lock_guard<std::mutex> g(queueMu_);
    stopping_ = false;
    threads_.emplace_back([this] { dispatchLoop(); });
    if (threadId != nullptr) {
        *threadId = static_cast<unsigned long>(threads_.back().native_handle());
    }
}

size_t RMRmcp::dispatchThreadCount() {
    std::lock_guard<std::mutex> g(queueMu_);
    return threads_.size();
}

RMRccp* RMRmcp::findRccpByName(const char* className) {
    if (className == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> g(classesMu_);
    for (RMRccp* c : classes_) {
        if (c->getClassName() == className) {
            return c;
        }
    }
    return nullptr;
}

std::vector<RMRccp*> RMRmcp::classes() {
    std::lock_guard<std::mutex> g(classesMu_);
    return classes_;
}

void RMRmcp::registerRccp(RMRccp* rccp) {
    std::lock_guard<std::mutex> g(classesMu_);
    classes_.push_back(rccp);
}

void RMRmcp::unregisterRccp(RMRccp* rccp) {
    std::lock_guard<std::mutex> g(classesMu_);
    classes_.erase(std::remove(classes_.begin(), classes_.end(), rccp), classes_.end());
}

uint64_t RMRmcp::getNodeId() {
    std::lock_guard<std::mutex> g(linkMu_);
    if (nodeId_ == 0) {
        std::string why;
        nodeId_ = loadOrCreateNodeId(&why);
        if (nodeId_ == 0) {
            if (auto* t = rmfTrace()) {
                t->writef(0, "getNodeId: %s", why.c_str());
            }
        }
    }
    return nodeId_;
}

const char* RMRmcp::getClusterName() {
    std::lock_guard<std::mutex> g(linkMu_);
    if (clusterName_.empty()) {
        clusterName_ = loadClusterName();
    }
    return clusterName_.c_str();
}

void RMRmcp::setServiceLink(RMServiceLink* link) {
    std::deque<PeerMessage> pending;
    {
        std::lock_guard<std::mutex> g(linkMu_);
        link_ = link;
        if (link_ != nullptr) {
            pending.swap(unsent_);
        }
    }
    for (const PeerMessage& m : pending) {
        link->sendPeerMessage(m.type, m.subtype, m.data.data(),
                              static_cast<unsigned int>(m.data.size()));
    }
}

RMServiceLink* RMRmcp::serviceLink() {
    std::lock_guard<std::mutex> g(linkMu_);
    return link_;
}

std::vector<RMRmcp::PeerMessage> RMRmcp::unsentPeerMessages() {
    std::lock_guard<std::mutex> g(linkMu_);
    return std::vector<PeerMessage>(unsent_.begin(), unsent_.end());
}

void RMRmcp::sendPEXMessage(int type, int subtype, void* data, unsigned int length) {
    RMServiceLink* link = nullptr;
    {
        std::lock_guard<std::mutex> g(linkMu_);
        link = link_;
        if (link == nullptr) {
            // Kept until the service link exists, so start-up messages are not lost.
            PeerMessage m{type, subtype, {}};
            if (data != nullptr && length > 0) {
                auto* p = static_cast<unsigned char*>(data);
                m.data.assign(p, p + length);
            }
            unsent_.push_back(std::move(m));
            if (unsent_.size() > kMaxUnsentPeerMessages) {
                unsent_.pop_front();
            }
            return;
        }
    }
    link->sendPeerMessage(type, subtype, data, length);
}

void RMRmcp::startCallbackThread(unsigned long* threadId, RMRunnable* body) {
    if (body == nullptr) {
        return;
    }
    body->start(nullptr);
    if (threadId != nullptr) {
        *threadId = 0;
    }
}

void RMRmcp::submit(RMRequest request, Completion done) {
    {
        std::lock_guard<std::mutex> g(queueMu_);
        if (!stopping_ && !threads_.empty()) {
            queue_.emplace_back(std::move(request), std::move(done));
            queueCv_.notify_one();
            return;
        }
    }
    // No dispatch thread: answer at once rather than leave the client waiting.
    RMReply reply;
    reply.error = defaults::common(tarn_rmf::RM_ENOTCONNECTED, rmName_.c_str());
    reply.completed = true;
    if (done) {
        done(std::move(reply));
    }
}

void RMRmcp::dispatchLoop() {
    for (;;) {
        std::pair<RMRequest, Completion> job;
        {
            std::unique_lock<std::mutex> lk(queueMu_);
            queueCv_.wait(lk, [this] { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;  // stopping and drained
            }
            job = std::move(queue_.front());
            queue_.pop_front();
        }
        RMReply reply = dispatchSync(job.first);
        if (job.second) {
            job.second(std::move(reply));
        }
    }
}

void RMRmcp::cleanup() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> g(queueMu_);
        stopping_ = true;
        threads.swap(threads_);
    }
    queueCv_.notify_all();
    for (auto& t : threads) {
        if (t.joinable()) {
            t.join();
        }
    }
    std::vector<RMRccp*> owned;
    {
        std::lock_guard<std::mutex> g(classesMu_);
        if (cleaned_) {
            return;
        }
        cleaned_ = true;
        owned = classes_;
    }
    for (auto it = owned.rbegin(); it != owned.rend(); ++it) {
        delete *it;
    }
}

}  // namespace tarn_rmf2v
