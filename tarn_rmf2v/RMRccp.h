// The class control point: one resource class, owning its registry tables and
// its resource control points. The program derives one class from it per
// resource class and overrides what it serves; the base answers with the
// framework's defaults (unknown attribute ids: 0x10006, unknown handles:
// 0x10008, operations the class does not serve: 0x1000e).
// Thread safety: the resource control point registry is guarded internally;
// request handlers serialise on the class lock (lockRccp).
#pragma once

#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "tarn_rmf2v/RMClassDef.h"
#include "tarn_rmf2v/RMMonitor.h"
#include "tarn_rmf2v/RMRcp.h"

namespace tarn_rmf {
class RMBaseTable;
}

namespace tarn_rmf2v {

struct HandleHash {
    size_t operator()(const zn_resource_handle& h) const noexcept;
};

class RMRccp {
public:
    RMRccp(const char* className, rm_object_type type, RMRmcp* rmcp);
    // Destroys every resource control point still registered.
    virtual ~RMRccp();
    RMRccp(const RMRccp&) = delete;
    RMRccp& operator=(const RMRccp&) = delete;

    // Virtual operations, in slot order (the destructor holds slots 1-2).
    virtual tarn_rmf::RMBaseTable* getClassTable();
    virtual tarn_rmf::RMBaseTable* getResourceTable();
    virtual RMMonitor* getMonitor();
    virtual RMRcp* createRCP(zn_resource_handle* handle, cu_error_t** err);
    virtual RMRcp* createRCP(zn_resource_handle* handle, rm_attribute_value* values,
                             unsigned int count);
    virtual void addRcp(RMRcp* rcp);
    virtual void removeRcp(RMRcp* rcp);
    virtual RMRcp* findRcpByHandle(const zn_resource_handle* handle);
    virtual RMRcp* findAndReserveRcp(const zn_resource_handle* handle);
    // Calls fn(arg, rcp, index) for each resource control point in the order
    // they were added, each reserved for the call; a non-zero return stops.
    virtual void enumerateRcps(int (*fn)(void*, RMRcp*, int), void* arg);
    virtual void bindRCP(RMBindRCPResponse* rsp, rm_bind_RCP_data* data, unsigned int count);
    virtual void unbindRCP(RMUnbindRCPResponse* rsp, RMRcp** rcps, unsigned int count);
    virtual void enumerateResources(RMEnumResourcesResponse* rsp);
    virtual void enumerateSelectResources(RMEnumResourcesResponse* rsp, char* selectString);
    virtual void validateResourceHandles(RMValidateResourceHandlesResponse* rsp,
                                         zn_resource_handle* handles, unsigned int count);
    virtual void defineResource(RMDefineResourceResponse* rsp, zn_structured_data* options,
                                rm_attribute_value* values, unsigned int count);
    virtual int validateDefineParms(rm_attribute_value* values, unsigned int count,
                                    zn_structured_data* options, cu_error_t** err,
                                    unsigned int* badIndex, unsigned int* badCount);
    virtual void undefineResources(RMUndefineResourcesResponse* rsp, zn_structured_data* options,
                                   zn_resource_handle* handles, unsigned int count);
    virtual void refreshConfig(RMSimpleResponse* rsp);
    virtual void getClassAttributeValues(RMAttributeValueResponse* rsp, int* ids,
                                         unsigned int count);
    virtual int validateSetClassParms(rm_attribute_value* values, cu_error_t** err,
                                      unsigned int count);
    virtual void setClassAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                         unsigned int count);
    virtual void invokeClassAction(RMActionResponse* rsp, int actionId, zn_structured_data* input);
    virtual void enablePersClassAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                                  unsigned int count);
    virtual void disablePersClassAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                                   unsigned int count);
    virtual void reportPersAttributeValues(int* ids, unsigned int count,
                                           RMAttributeValueResponse* rsp);
    virtual void startMonitoringClassAttrs(RMAttributeValueResponse* rsp,
                                           rm_monitoring_data* attrs, unsigned int count);
    virtual void startMonitoring(int attributeId, unsigned int options);
    virtual void stopMonitoringClassAttrs(RMAttributeIdResponse* rsp, int* ids,
                                          unsigned int count);
    virtual void stopMonitoring(int attributeId);
    virtual void reportDynAttributeValues(int* ids, unsigned int count,
                                          RMAttributeValueResponse* rsp);
    virtual void startMonitoringMatchSet(RMEnumResourcesResponse* rsp, char* selectString,
                                         unsigned long long matchSetId,
                                         rm_match_set_monitor_opts opts);
    virtual void stopMonitoringMatchSet(RMSimpleResponse* rsp, unsigned long long matchSetId);
    virtual void connectionChanged(rm_conn_changed state);
    virtual void getClassACL(RMGetAclResponse* rsp);
    virtual void setClassACL(RMSimpleResponse* rsp, zn_binary* acl);
    virtual void getNewResourceACL(RMGetAclResponse* rsp);
    virtual void setNewResourceACL(RMSimpleResponse* rsp, zn_binary* acl);
    virtual unsigned long long getTargetNodeId(RMClassOps op);
    virtual void newResourceApplied(zn_resource_handle* h, rm_attribute_value* v, unsigned int n,
                                    zn_structured_data* o);
    virtual void newResourceCommitted(zn_resource_handle* h, rm_attribute_value* v,
                                      unsigned int n, zn_structured_data* o);
    virtual void newResourceAborted(zn_resource_handle* h, rm_attribute_value* v, unsigned int n,
                                    zn_structured_data* o);
    virtual void delResourceApplied(zn_resource_handle* h, zn_structured_data* o);
    virtual void delResourceCommitted(zn_resource_handle* h, zn_structured_data* o);
    virtual void delResourceAborted(zn_resource_handle* h, zn_structured_data* o);
    virtual void chgClassApplied(rm_attribute_value* v, unsigned int n, zn_structured_data* o);
    virtual void chgClassCommitted(rm_attribute_value* v, unsigned int n, zn_structured_data* o);
    virtual void chgClassAborted(rm_attribute_value* v, unsigned int n, zn_structured_data* o);

    // Non-virtual operations.
    RMRmcp* getRmcp() const { return rmcp_; }
    const std::string& getClassName() const { return className_; }
    void setResourceTable(tarn_rmf::RMBaseTable* table) { resourceTable_ = table; }
    // Fresh handles, unique across restarts and hosts. `classCode` is stored in
    // the handle; `reserved` is unused on this platform.
    void makeResourceHandles(unsigned int count, unsigned int classCode, unsigned int reserved,
                             zn_resource_handle* out);
    void notifyResourcesUndefined(zn_resource_handle** handles, unsigned int count);
    void notifyPersistentClassAttrsModified(rm_attribute_value* values, unsigned int count);
    void notifyDynamicClassAttrsModified(rm_attribute_value* values, unsigned int count);
    size_t rcpCount();
    // The class's attributes and actions as clients see them (name set by
    // the constructor; the class fills in the rest).
    void setClassDef(RMClassDef def);
    RMClassDef classDef();

    // The class's own lock (taken by lockRccp).
    std::recursive_mutex& mutex() { return mu_; }

private:
    friend class RMRcp;
    std::string className_;
    rm_object_type type_;
    RMRmcp* rmcp_;
    tarn_rmf::RMBaseTable* resourceTable_ = nullptr;
    RMMonitor monitor_;
    std::recursive_mutex mu_;
    std::mutex defMu_;  // guards def_
    RMClassDef def_;

    std::mutex rcpMu_;  // guards the two members below
    std::list<RMRcp*> rcpOrder_;
    std::unordered_map<zn_resource_handle, std::list<RMRcp*>::iterator, HandleHash> rcps_;
};

}  // namespace tarn_rmf2v
