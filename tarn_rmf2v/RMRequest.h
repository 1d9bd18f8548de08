// One request as the framework receives it from the monitoring service (or a
// test): which operation, on which class or resource, with its arguments.
// Owns everything it holds.
#pragma once

#include <string>
#include <vector>

#include "tarn_rmf2v/RMReply.h"

namespace tarn_rmf2v {

enum class RMRequestOp {
    // Class operations.
    EnumerateResources,
    EnumerateSelectResources,
    ValidateResourceHandles,
    DefineResource,
    UndefineResources,
    RefreshConfig,
    GetClassAttributeValues,
    SetClassAttributeValues,
    InvokeClassAction,
    EnablePersClassAttrsNotification,
    DisablePersClassAttrsNotification,
    ReportPersClassAttributeValues,
    StartMonitoringClassAttrs,
    StopMonitoringClassAttrs,
    ReportDynClassAttributeValues,
    StartMonitoringMatchSet,
    StopMonitoringMatchSet,
    GetClassACL,
    SetClassACL,
    GetNewResourceACL,
    SetNewResourceACL,
    // Resource operations (on `handle`).
    GetAttributeValues,
    SetAttributeValues,
    InvokeAction,
    EnablePersResourceAttrsNotification,
    DisablePersResourceAttrsNotification,
    ReportPersAttributeValues,
    StartMonitoringResourceAttrs,
    StopMonitoringResourceAttrs,
    ReportDynAttributeValues,
    Online,
    Offline,
    Reset,
    GetResourceACL,
    SetResourceACL,
};

// The operation's name as the protocol and defect reports spell it.
const char* requestOpName(RMRequestOp op);
bool isResourceOp(RMRequestOp op);

struct RMRequest {
    RMRequestOp op = RMRequestOp::EnumerateResources;
    std::string className;
    zn_resource_handle handle{};                // resource operations
    std::vector<zn_resource_handle> handles;    // validate, undefine
    std::vector<int> ids;                       // attribute ids
    std::vector<RMReplyAttr> values;            // define, set
    std::vector<rm_monitoring_data> monitoring; // start monitoring
    int actionId = 0;
    zn::SdPtr input;                            // action input or define/undefine options
    std::string selection;                      // enumerate select, match sets
    unsigned long long matchSetId = 0;
    std::vector<unsigned long long> nodeIds;    // online
    uint32_t offlineOptions = 0;
    zn::OwnedValue acl;                         // ZN_BINARY_PTR for the set-ACL operations
};

}  // namespace tarn_rmf2v
