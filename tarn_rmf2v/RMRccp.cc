#include "tarn_rmf2v/RMRccp.h"

#include <sys/random.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "platform/clock.h"
#include "tarn_base/CException.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMRmcp.h"

namespace tarn_rmf2v {
namespace {

// 64 unpredictable bits; falls back to time and a counter if the kernel's
// generator is unavailable, which still never repeats within a process.
uint64_t uniqueBits() {
    uint64_t v = 0;
    if (getrandom(&v, sizeof v, 0) == static_cast<ssize_t>(sizeof v)) {
        return v;
    }
    static std::atomic<uint64_t> counter{0};
    timespec now = zn::processClock().wallNow();
    uint64_t micros =
        static_cast<uint64_t>(now.tv_sec) * 1'000'000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    return (micros << 16) ^ counter.fetch_add(1);
}

}  // namespace

size_t HandleHash::operator()(const zn_resource_handle& h) const noexcept {
    // FNV-1a over the whole handle.
    uint64_t x = 1469598103934665603ull;
    for (unsigned char b : h.bytes) {
        x = (x ^ b) * 1099511628211ull;
    }
    return static_cast<size_t>(x);
}

RMRccp::RMRccp(const char* className, rm_object_type type, RMRmcp* rmcp)
    : className_(className != nullptr ? className : ""), type_(type), rmcp_(rmcp) {
    def_.name = className_;
    if (rmcp_ != nullptr) {
        rmcp_->registerRccp(this);
    }
}

RMRccp::~RMRccp() {
    std::vector<RMRcp*> left;
    {
        std::lock_guard<std::mutex> g(rcpMu_);
        left.assign(rcpOrder_.begin(), rcpOrder_.end());
        rcpOrder_.clear();
        rcps_.clear();
    }
    for (RMRcp* rcp : left) {
        rcp->deleted_ = true;
        rcp->release();
    }
    if (rmcp_ != nullptr) {
        rmcp_->unregisterRccp(this);
    }
}

tarn_rmf::RMBaseTable* RMRccp::getClassTable() { return nullptr; }
tarn_rmf::RMBaseTable* RMRccp::getResourceTable() { return resourceTable_; }
RMMonitor* RMRccp::getMonitor() { return &monitor_; }

RMRcp* RMRccp::createRCP(zn_resource_handle* handle, cu_error_t** err) {
    (void)handle;
    if (err != nullptr) {
        *err = defaults::notSupported("createRCP").release();
    }
    return nullptr;
}

RMRcp* RMRccp::createRCP(zn_resource_handle*, rm_attribute_value*, unsigned int) {
    return nullptr;
}

void RMRccp::addRcp(RMRcp* rcp) {
    if (rcp == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> g(rcpMu_);
    if (rcps_.count(rcp->handle_) != 0) {
        throw tarn_base::CErrorException("RMRccp::addRcp: handle already registered in " +
                                             className_,
                                         0);
    }
    rcpOrder_.push_back(rcp);
    rcps_.emplace(rcp->handle_, std::prev(rcpOrder_.end()));
}

void RMRccp::removeRcp(RMRcp* rcp) {
    if (rcp == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> g(rcpMu_);
    auto it = rcps_.find(rcp->handle_);
    if (it != rcps_.end() && *it->second == rcp) {
        rcpOrder_.erase(it->second);
        rcps_.erase(it);
    }
}

RMRcp* RMRccp::findRcpByHandle(const zn_resource_handle* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> g(rcpMu_);
    auto it = rcps_.find(*handle);
    return it == rcps_.end() ? nullptr : *it->second;
}

RMRcp* RMRccp::findAndReserveRcp(const zn_resource_handle* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> g(rcpMu_);
    auto it = rcps_.find(*handle);
    if (it == rcps_.end()) {
        return nullptr;
    }
    RMRcp* rcp = *it->second;
    rcp->refs_.fetch_add(1, std::memory_order_relaxed);
    return rcp;
}

void RMRccp::enumerateRcps(int (*fn)(void*, RMRcp*, int), void* arg) {
    if (fn == nullptr) {
        return;
    }
    std::vector<RMRcp*> snapshot;
    {
        std::lock_guard<std::mutex> g(rcpMu_);
        snapshot.reserve(rcpOrder_.size());
        for (RMRcp* rcp : rcpOrder_) {
            rcp->refs_.fetch_add(1, std::memory_order_relaxed);
            snapshot.push_back(rcp);
        }
    }
    size_t i = 0;
    for (; i < snapshot.size(); ++i) {
        int stop = fn(arg, snapshot[i], static_cast<int>(i));
        snapshot[i]->unreserve();
        if (stop != 0) {
            ++i;
            break;
        }
    }
    for (; i < snapshot.size(); ++i) {
        snapshot[i]->unreserve();
    }
}

void RMRccp::setClassDef(RMClassDef def) {
    std::lock_guard<std::mutex> g(defMu_);
    def_ = std::move(def);
    def_.name = className_;
}

RMClassDef RMRccp::classDef() {
    std::lock_guard<std::mutex> g(defMu_);
    return def_;
}

size_t RMRccp::rcpCount() {
    std::lock_guard<std::mutex> g(rcpMu_);
    return rcps_.size();
}

void RMRccp::bindRCP(RMBindRCPResponse* rsp, rm_bind_RCP_data*, unsigned int) { rsp->done(nullptr); }

void RMRccp::unbindRCP(RMUnbindRCPResponse* rsp, RMRcp**, unsigned int) { rsp->done(nullptr); }

void RMRccp::enumerateResources(RMEnumResourcesResponse* rsp) {
    std::vector<zn_resource_handle> handles;
    enumerateRcps(
        [](void* a, RMRcp* rcp, int) {
            static_cast<std::vector<zn_resource_handle>*>(a)->push_back(*rcp->getResourceHandle());
            return 0;
        },
        &handles);
    rsp->done(handles.data(), static_cast<unsigned int>(handles.size()));
}

void RMRccp::enumerateSelectResources(RMEnumResourcesResponse* rsp, char* selectString) {
    // Without a table the base can only answer the selection of everything.
    if (selectString == nullptr || *selectString == '\0' || std::strcmp(selectString, "*") == 0) {
        enumerateResources(rsp);
        return;
    }
    rsp->done(defaults::notSupported("enumerateSelectResources").get());
}

void RMRccp::validateResourceHandles(RMValidateResourceHandlesResponse* rsp,
                                     zn_resource_handle* handles, unsigned int count) {
    auto unknown = defaults::common(tarn_rmf::RM_EINVALIDHANDLE, "validateResourceHandles");
    for (unsigned int i = 0; handles != nullptr && i < count; ++i) {
        rsp->result(&handles[i], findRcpByHandle(&handles[i]) != nullptr ? nullptr : unknown.get());
    }
    rsp->done(nullptr);
}

void RMRccp::defineResource(RMDefineResourceResponse* rsp, zn_structured_data*,
                            rm_attribute_value*, unsigned int) {
    rsp->done(nullptr, defaults::notSupported("defineResource").get());
}

int RMRccp::validateDefineParms(rm_attribute_value*, unsigned int, zn_structured_data*,
                                cu_error_t**, unsigned int*, unsigned int*) {
    return 0;
}

void RMRccp::undefineResources(RMUndefineResourcesResponse* rsp, zn_structured_data*,
                               zn_resource_handle* handles, unsigned int count) {
    auto unknown = defaults::common(tarn_rmf::RM_EINVALIDHANDLE, "undefineResource");
    auto unsupported = defaults::notSupported("undefineResource");
    for (unsigned int i = 0; handles != nullptr && i < count; ++i) {
        rsp->result(&handles[i], findRcpByHandle(&handles[i]) != nullptr ? unsupported.get()
                                                                         : unknown.get());
    }
    rsp->done(nullptr);
}

void RMRccp::refreshConfig(RMSimpleResponse* rsp) { rsp->done(nullptr); }

void RMRccp::getClassAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "getClassAttributeValues");
}

int RMRccp::validateSetClassParms(rm_attribute_value*, cu_error_t**, unsigned int) { return 0; }

void RMRccp::setClassAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                     unsigned int count) {
    defaults::unknownValues(rsp, values, count, "setClassAttributeValues");
}

void RMRccp::invokeClassAction(RMActionResponse* rsp, int, zn_structured_data*) {
    rsp->done(defaults::notSupported("invokeClassAction").get());
}

void RMRccp::enablePersClassAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                              unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "enablePersClassAttrsNotification");
}

void RMRccp::disablePersClassAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                               unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "disablePersClassAttrsNotification");
}

void RMRccp::reportPersAttributeValues(int* ids, unsigned int count, RMAttributeValueResponse* rsp) {
    defaults::unknownIds(rsp, ids, count, "reportPersAttributeValues");
}

void RMRccp::startMonitoringClassAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                       unsigned int count) {
    defaults::unknownMonitoring(rsp, attrs, count, "startMonitoringClassAttrs");
}

void RMRccp::startMonitoring(int attributeId, unsigned int) {
    monitor_.startMonitoring(nullptr, attributeId);
}

void RMRccp::stopMonitoringClassAttrs(RMAttributeIdResponse* rsp, int* ids, unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "stopMonitoringClassAttrs");
}

void RMRccp::stopMonitoring(int attributeId) { monitor_.stopMonitoring(nullptr, attributeId); }

void RMRccp::reportDynAttributeValues(int* ids, unsigned int count, RMAttributeValueResponse* rsp) {
    defaults::unknownIds(rsp, ids, count, "reportDynAttributeValues");
}

void RMRccp::startMonitoringMatchSet(RMEnumResourcesResponse* rsp, char*, unsigned long long,
                                     rm_match_set_monitor_opts) {
    rsp->done(defaults::notSupported("startMonitoringMatchSet").get());
}

void RMRccp::stopMonitoringMatchSet(RMSimpleResponse* rsp, unsigned long long) {
    rsp->done(defaults::notSupported("stopMonitoringMatchSet").get());
}

void RMRccp::connectionChanged(rm_conn_changed) {}

void RMRccp::getClassACL(RMGetAclResponse* rsp) {
    rsp->done(nullptr, defaults::notSupported("getClassACL").get());
}

void RMRccp::setClassACL(RMSimpleResponse* rsp, zn_binary*) {
    rsp->done(defaults::notSupported("setClassACL").get());
}

void RMRccp::getNewResourceACL(RMGetAclResponse* rsp) {
    rsp->done(nullptr, defaults::notSupported("getNewResourceACL").get());
}

void RMRccp::setNewResourceACL(RMSimpleResponse* rsp, zn_binary*) {
    rsp->done(defaults::notSupported("setNewResourceACL").get());
}

unsigned long long RMRccp::getTargetNodeId(RMClassOps) {
    return rmcp_ != nullptr ? rmcp_->getNodeId() : 0;
}

void RMRccp::newResourceApplied(zn_resource_handle*, rm_attribute_value*, unsigned int,
                                zn_structured_data*) {}
void RMRccp::newResourceCommitted(zn_resource_handle*, rm_attribute_value*, unsigned int,
                                  zn_structured_data*) {}
void RMRccp::newResourceAborted(zn_resource_handle*, rm_attribute_value*, unsigned int,
                                zn_structured_data*) {}
void RMRccp::delResourceApplied(zn_resource_handle*, zn_structured_data*) {}
void RMRccp::delResourceCommitted(zn_resource_handle*, zn_structured_data*) {}
void RMRccp::delResourceAborted(zn_resource_handle*, zn_structured_data*) {}
void RMRccp::chgClassApplied(rm_attribute_value*, unsigned int, zn_structured_data*) {}
void RMRccp::chgClassCommitted(rm_attribute_value*, unsigned int, zn_structured_data*) {}
void RMRccp::chgClassAborted(rm_attribute_value*, unsigned int, zn_structured_data*) {}

void RMRccp::makeResourceHandles(unsigned int count, unsigned int classCode, unsigned int,
                                 zn_resource_handle* out) {
    if (out == nullptr) {
        return;
    }
    // Layout: mark 0x5A, version 1, class code (16 bits), node id (64 bits),
    // 64 unpredictable bits; all big-endian. The node id separates hosts, the
    // random part separates restarts and resources.
    uint64_t node = rmcp_ != nullptr ? rmcp_->getNodeId() : 0;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned char* b = out[i].bytes;
        b[0] = 0x5A;
        b[1] = 0x01;
        b[2] = static_cast<unsigned char>(classCode >> 8);
        b[3] = static_cast<unsigned char>(classCode);
        uint64_t r = uniqueBits();
        for (int k = 0; k < 8; ++k) {
            b[4 + k] = static_cast<unsigned char>(node >> (56 - 8 * k));
            b[12 + k] = static_cast<unsigned char>(r >> (56 - 8 * k));
        }
    }
}

void RMRccp::notifyResourcesUndefined(zn_resource_handle** handles, unsigned int count) {
    RMServiceLink* link = rmcp_ != nullptr ? rmcp_->serviceLink() : nullptr;
    std::vector<zn_resource_handle> list;
    for (unsigned int i = 0; handles != nullptr && i < count; ++i) {
        if (handles[i] != nullptr) {
            list.push_back(*handles[i]);
            monitor_.forget(handles[i]);
        }
    }
    if (link != nullptr && !list.empty()) {
        link->resourcesUndefined(className_, list);
    }
}

void RMRccp::notifyPersistentClassAttrsModified(rm_attribute_value* values, unsigned int count) {
    if (RMServiceLink* link = rmcp_ != nullptr ? rmcp_->serviceLink() : nullptr) {
        link->attributesModified(className_, nullptr, true, values, count);
    }
}

void RMRccp::notifyDynamicClassAttrsModified(rm_attribute_value* values, unsigned int count) {
    if (RMServiceLink* link = rmcp_ != nullptr ? rmcp_->serviceLink() : nullptr) {
        link->attributesModified(className_, nullptr, false, values, count);
    }
}

}  // namespace tarn_rmf2v
