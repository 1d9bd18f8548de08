#include "tarn_rmf2v/RMRcp.h"

#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMRccp.h"
#include "tarn_rmf2v/RMRmcp.h"

namespace tarn_rmf2v {

RMRcp::RMRcp(const zn_resource_handle* handle, RMRccp* rccp, unsigned int variety)
    : handle_(handle != nullptr ? *handle : zn_resource_handle{}),
      rccp_(rccp),
      variety_(variety) {}

RMRcp::~RMRcp() = default;

RMRmcp* RMRcp::getRmcp() const { return rccp_ != nullptr ? rccp_->getRmcp() : nullptr; }

void RMRcp::setResourceVariety(unsigned int variety) { variety_ = variety; }

unsigned int RMRcp::getResourceVariety() { return variety_; }

void RMRcp::deleteRcp() {
    if (deleted_.exchange(true)) {
        return;
    }
    if (rccp_ != nullptr) {
        rccp_->removeRcp(this);
        rccp_->getMonitor()->forget(&handle_);
    }
    release();
}

void RMRcp::release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

void RMRcp::unreserve() { release(); }

void RMRcp::getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "getAttributeValues");
}

int RMRcp::validateSetResourceParms(rm_attribute_value*, cu_error_t**, unsigned int) { return 0; }

void RMRcp::setAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                               unsigned int count) {
    defaults::unknownValues(rsp, values, count, "setAttributeValues");
}

void RMRcp::invokeAction(RMActionResponse* rsp, int, zn_structured_data*) {
    rsp->done(defaults::notSupported("invokeAction").get());
}

void RMRcp::enablePersResourceAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                                unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "enablePersResourceAttrsNotification");
}

void RMRcp::disablePersResourceAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                                 unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "disablePersResourceAttrsNotification");
}

void RMRcp::reportPersAttributeValues(int* ids, unsigned int count, RMAttributeValueResponse* rsp) {
    defaults::unknownIds(rsp, ids, count, "reportPersAttributeValues");
}

void RMRcp::startMonitoringResourceAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                         unsigned int count) {
    defaults::unknownMonitoring(rsp, attrs, count, "startMonitoringResourceAttrs");
}

void RMRcp::startMonitoring(int attributeId, unsigned int) {
    if (rccp_ != nullptr) {
        rccp_->getMonitor()->startMonitoring(&handle_, attributeId);
    }
}

void RMRcp::stopMonitoringResourceAttrs(RMAttributeIdResponse* rsp, int* ids, unsigned int count) {
    defaults::unknownIds(rsp, ids, count, "stopMonitoringResourceAttrs");
}

void RMRcp::stopMonitoring(int attributeId) {
    if (rccp_ != nullptr) {
        rccp_->getMonitor()->stopMonitoring(&handle_, attributeId);
    }
}

void RMRcp::reportDynAttributeValues(int* ids, unsigned int count, RMAttributeValueResponse* rsp) {
    defaults::unknownIds(rsp, ids, count, "reportDynAttributeValues");
}

void RMRcp::online(RMSimpleResponse* rsp, unsigned long long*, unsigned int, zn_structured_data*) {
    rsp->done(defaults::notSupported("online").get());
}

void RMRcp::offline(RMSimpleResponse* rsp, rm_offline_opts, zn_structured_data*) {
    rsp->done(defaults::notSupported("offline").get());
}

void RMRcp::reset(RMSimpleResponse* rsp, zn_structured_data*) {
    rsp->done(defaults::notSupported("reset").get());
}

void RMRcp::getResourceACL(RMGetAclResponse* rsp) {
    rsp->done(nullptr, defaults::notSupported("getResourceACL").get());
}

void RMRcp::setResourceACL(RMSimpleResponse* rsp, zn_binary*) {
    rsp->done(defaults::notSupported("setResourceACL").get());
}

unsigned long long RMRcp::getTargetNodeId(RMResourceOps) {
    RMRmcp* rmcp = getRmcp();
    return rmcp != nullptr ? rmcp->getNodeId() : 0;
}

void RMRcp::chgResourceApplied(rm_attribute_value*, unsigned int, zn_structured_data*) {}
void RMRcp::chgResourceCommitted(rm_attribute_value*, unsigned int, zn_structured_data*) {}
void RMRcp::chgResourceAborted(rm_attribute_value*, unsigned int, zn_structured_data*) {}

void RMRcp::notifyPersistentResourceAttrsModified(rm_attribute_value* values, unsigned int count) {
    RMRmcp* rmcp = getRmcp();
    if (RMServiceLink* link = rmcp != nullptr ? rmcp->serviceLink() : nullptr) {
        link->attributesModified(rccp_->getClassName(), &handle_, true, values, count);
    }
}

void RMRcp::notifyDynamicResourceAttrsModified(rm_attribute_value* values, unsigned int count) {
    RMRmcp* rmcp = getRmcp();
    if (RMServiceLink* link = rmcp != nullptr ? rmcp->serviceLink() : nullptr) {
        link->attributesModified(rccp_->getClassName(), &handle_, false, values, count);
    }
}

}  // namespace tarn_rmf2v
