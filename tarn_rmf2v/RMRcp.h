// The resource control point: one resource (one row) of a class. The program
// derives its resource classes from it and overrides the request operations
// it serves; the base answers every request with the framework's defaults.
// Lifetime: a control point is registered with its class by addRcp() and
// leaves it by deleteRcp(); it is destroyed when it has left its class and no
// holder has it reserved (findAndReserveRcp ... unreserve), never before.
#pragma once

#include <atomic>
#include <mutex>

#include "tarn_rmf2v/RMResponses.h"
#include "tarn_rmf2v/RMTypes.h"

namespace tarn_rmf2v {

class RMRccp;
class RMRmcp;

class RMRcp {
public:
    RMRcp(const zn_resource_handle* handle, RMRccp* rccp, unsigned int variety);
    virtual ~RMRcp();
    RMRcp(const RMRcp&) = delete;
    RMRcp& operator=(const RMRcp&) = delete;

    // Virtual operations, in slot order.
    virtual void setResourceVariety(unsigned int variety);
    virtual unsigned int getResourceVariety();
    // Leaves the class; destroyed once no holder has it reserved.
    virtual void deleteRcp();
    virtual void getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count);
    virtual int validateSetResourceParms(rm_attribute_value* values, cu_error_t** err,
                                         unsigned int count);
    virtual void setAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                    unsigned int count);
    virtual void invokeAction(RMActionResponse* rsp, int actionId, zn_structured_data* input);
    virtual void enablePersResourceAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                                     unsigned int count);
    virtual void disablePersResourceAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                                      unsigned int count);
    virtual void reportPersAttributeValues(int* ids, unsigned int count,
                                           RMAttributeValueResponse* rsp);
    virtual void startMonitoringResourceAttrs(RMAttributeValueResponse* rsp,
                                              rm_monitoring_data* attrs, unsigned int count);
    virtual void startMonitoring(int attributeId, unsigned int options);
    virtual void stopMonitoringResourceAttrs(RMAttributeIdResponse* rsp, int* ids,
                                             unsigned int count);
    virtual void stopMonitoring(int attributeId);
    virtual void reportDynAttributeValues(int* ids, unsigned int count,
                                          RMAttributeValueResponse* rsp);
    virtual void online(RMSimpleResponse* rsp, unsigned long long* nodeIds, unsigned int count,
                        zn_structured_data* options);
    virtual void offline(RMSimpleResponse* rsp, rm_offline_opts opts, zn_structured_data* options);
    virtual void reset(RMSimpleResponse* rsp, zn_structured_data* options);
    virtual void getResourceACL(RMGetAclResponse* rsp);
    virtual void setResourceACL(RMSimpleResponse* rsp, zn_binary* acl);
    virtual unsigned long long getTargetNodeId(RMResourceOps op);
    virtual void chgResourceApplied(rm_attribute_value* values, unsigned int count,
                                    zn_structured_data* options);
    virtual void chgResourceCommitted(rm_attribute_value* values, unsigned int count,
                                      zn_structured_data* options);
    virtual void chgResourceAborted(rm_attribute_value* values, unsigned int count,
                                    zn_structured_data* options);

    // Non-virtual operations.
    RMRccp* getRccp() const { return rccp_; }
    RMRmcp* getRmcp() const;
    const zn_resource_handle* getResourceHandle() const { return &handle_; }
    // Ends a reservation taken by RMRccp::findAndReserveRcp.
    void unreserve();
    void notifyPersistentResourceAttrsModified(rm_attribute_value* values, unsigned int count);
    void notifyDynamicResourceAttrsModified(rm_attribute_value* values, unsigned int count);

    // The resource's own lock (taken by lockRcp).
    std::recursive_mutex& mutex() { return mu_; }

private:
    friend class RMRccp;
    // Drops one reference; the last one destroys the object.
    void release();

    zn_resource_handle handle_;
    RMRccp* rccp_;
    std::atomic<unsigned int> variety_;
    // One reference for membership in the class, one per reservation.
    std::atomic<int> refs_{1};
    std::atomic<bool> deleted_{false};
    std::recursive_mutex mu_;
};

}  // namespace tarn_rmf2v
