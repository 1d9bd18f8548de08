// The one boundary between a request and the control points: finds the class
// (and the resource, reserved for the call), builds the response, calls the
// virtual operation, maps any exception to an error, and makes sure the
// response was finished exactly once.
#include <exception>

#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMRmcp.h"

namespace tarn_rmf2v {
namespace {

struct OpInfo {
    RMRequestOp op;
    const char* name;
    bool resource;
};

const OpInfo kOps[] = {
    {RMRequestOp::EnumerateResources, "enumerateResources", false},
    {RMRequestOp::EnumerateSelectResources, "enumerateSelectResources", false},
    {RMRequestOp::ValidateResourceHandles, "validateResourceHandles", false},
    {RMRequestOp::DefineResource, "defineResource", false},
    {RMRequestOp::UndefineResources, "undefineResources", false},
    {RMRequestOp::RefreshConfig, "refreshConfig", false},
    {RMRequestOp::GetClassAttributeValues, "getClassAttributeValues", false},
    {RMRequestOp::SetClassAttributeValues, "setClassAttributeValues", false},
    {RMRequestOp::InvokeClassAction, "invokeClassAction", false},
    {RMRequestOp::EnablePersClassAttrsNotification, "enablePersClassAttrsNotification", false},
    {RMRequestOp::DisablePersClassAttrsNotification, "disablePersClassAttrsNotification", false},
    {RMRequestOp::ReportPersClassAttributeValues, "reportPersClassAttributeValues", false},
    {RMRequestOp::StartMonitoringClassAttrs, "startMonitoringClassAttrs", false},
    {RMRequestOp::StopMonitoringClassAttrs, "stopMonitoringClassAttrs", false},
    {RMRequestOp::ReportDynClassAttributeValues, "reportDynClassAttributeValues", false},
    {RMRequestOp::StartMonitoringMatchSet, "startMonitoringMatchSet", false},
    {RMRequestOp::StopMonitoringMatchSet, "stopMonitoringMatchSet", false},
    {RMRequestOp::GetClassACL, "getClassACL", false},
    {RMRequestOp::SetClassACL, "setClassACL", false},
    {RMRequestOp::GetNewResourceACL, "getNewResourceACL", false},
    {RMRequestOp::SetNewResourceACL, "setNewResourceACL", false},
    {RMRequestOp::GetAttributeValues, "getAttributeValues", true},
    {RMRequestOp::SetAttributeValues, "setAttributeValues", true},
    {RMRequestOp::InvokeAction, "invokeAction", true},
    {RMRequestOp::EnablePersResourceAttrsNotification, "enablePersResourceAttrsNotification", true},
    {RMRequestOp::DisablePersResourceAttrsNotification, "disablePersResourceAttrsNotification",
     true},
    {RMRequestOp::ReportPersAttributeValues, "reportPersAttributeValues", true},
    {RMRequestOp::StartMonitoringResourceAttrs, "startMonitoringResourceAttrs", true},
    {RMRequestOp::StopMonitoringResourceAttrs, "stopMonitoringResourceAttrs", true},
    {RMRequestOp::ReportDynAttributeValues, "reportDynAttributeValues", true},
    {RMRequestOp::Online, "online", true},
    {RMRequestOp::Offline, "offline", true},
    {RMRequestOp::Reset, "reset", true},
    {RMRequestOp::GetResourceACL, "getResourceACL", true},
    {RMRequestOp::SetResourceACL, "setResourceACL", true},
};

const OpInfo& info(RMRequestOp op) {
    for (const auto& i : kOps) {
        if (i.op == op) {
            return i;
        }
    }
    return kOps[0];
}

// Non-owning views of a request's arguments in the shapes the operations take.
struct Views {
    explicit Views(RMRequest& r) {
        for (auto& v : r.values) {
            attrs.push_back(rm_attribute_value{v.id, v.value.type(), v.value.value()});
        }
    }
    std::vector<rm_attribute_value> attrs;
};

template <typename T>
T* dataOrNull(std::vector<T>& v) {
    return v.empty() ? nullptr : v.data();
}

unsigned int count(size_t n) { return static_cast<unsigned int>(n); }

void callClassOp(RMRccp* c, RMRequest& r, Views& v, RMResponse::Completion done,
                 std::unique_ptr<RMResponse>& rsp) {
    const char* name = requestOpName(r.op);
    int* ids = dataOrNull(r.ids);
    unsigned int nIds = count(r.ids.size());
    switch (r.op) {
        case RMRequestOp::EnumerateResources: {
            auto* p = new RMEnumResourcesResponse(name, done);
            rsp.reset(p);
            c->enumerateResources(p);
            return;
        }
        case RMRequestOp::EnumerateSelectResources: {
            auto* p = new RMEnumResourcesResponse(name, done);
            rsp.reset(p);
            c->enumerateSelectResources(p, r.selection.data());
            return;
        }
        case RMRequestOp::ValidateResourceHandles: {
            auto* p = new RMValidateResourceHandlesResponse(name, done);
            rsp.reset(p);
            c->validateResourceHandles(p, dataOrNull(r.handles), count(r.handles.size()));
            return;
        }
        case RMRequestOp::DefineResource: {
            auto* p = new RMDefineResourceResponse(name, done);
            rsp.reset(p);
            c->defineResource(p, r.input.get(), dataOrNull(v.attrs), count(v.attrs.size()));
            return;
        }
        case RMRequestOp::UndefineResources: {
            auto* p = new RMUndefineResourcesResponse(name, done);
            rsp.reset(p);
            c->undefineResources(p, r.input.get(), dataOrNull(r.handles), count(r.handles.size()));
            return;
        }
        case RMRequestOp::RefreshConfig: {
            auto* p = new RMSimpleResponse(name, done);
            rsp.reset(p);
            c->refreshConfig(p);
            return;
        }
        case RMRequestOp::GetClassAttributeValues: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            c->getClassAttributeValues(p, ids, nIds);
            return;
        }
        case RMRequestOp::SetClassAttributeValues: {
            auto* p = new RMAttributeIdResponse(name, done);
            rsp.reset(p);
            c->setClassAttributeValues(p, dataOrNull(v.attrs), count(v.attrs.size()));
            return;
        }
        case RMRequestOp::InvokeClassAction: {
            auto* p = new RMActionResponse(name, done);
            rsp.reset(p);
            c->invokeClassAction(p, r.actionId, r.input.get());
            return;
        }
        case RMRequestOp::EnablePersClassAttrsNotification: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            c->enablePersClassAttrsNotification(p, ids, nIds);
            return;
        }
        case RMRequestOp::DisablePersClassAttrsNotification: {
            auto* p = new RMAttributeIdResponse(name, done);
            rsp.reset(p);
            c->disablePersClassAttrsNotification(p, ids, nIds);
            return;
        }
        case RMRequestOp::ReportPersClassAttributeValues: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            c->reportPersAttributeValues(ids, nIds, p);
            return;
        }
        case RMRequestOp::StartMonitoringClassAttrs: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            c->startMonitoringClassAttrs(p, dataOrNull(r.monitoring), count(r.monitoring.size()));
            return;
        }
        case RMRequestOp::StopMonitoringClassAttrs: {
            auto* p = new RMAttributeIdResponse(name, done);
            rsp.reset(p);
            c->stopMonitoringClassAttrs(p, ids, nIds);
            return;
        }
        case RMRequestOp::ReportDynClassAttributeValues: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            c->reportDynAttributeValues(ids, nIds, p);
            return;
        }
        case RMRequestOp::StartMonitoringMatchSet: {
            auto* p = new RMEnumResourcesResponse(name, done);
            rsp.reset(p);
            c->startMonitoringMatchSet(p, r.selection.data(), r.matchSetId, RM_MATCH_SET_DEFAULT);
            return;
        }
        case RMRequestOp::StopMonitoringMatchSet: {
            auto* p = new RMSimpleResponse(name, done);
            rsp.reset(p);
            c->stopMonitoringMatchSet(p, r.matchSetId);
            return;
        }
        case RMRequestOp::GetClassACL:
        case RMRequestOp::GetNewResourceACL: {
            auto* p = new RMGetAclResponse(name, done);
            rsp.reset(p);
            if (r.op == RMRequestOp::GetClassACL) {
                c->getClassACL(p);
            } else {
                c->getNewResourceACL(p);
            }
            return;
        }
        case RMRequestOp::SetClassACL:
        case RMRequestOp::SetNewResourceACL: {
            auto* p = new RMSimpleResponse(name, done);
            rsp.reset(p);
            zn_binary* acl = r.acl.type() == ZN_BINARY_PTR ? r.acl.value().ptr_binary : nullptr;
            if (r.op == RMRequestOp::SetClassACL) {
                c->setClassACL(p, acl);
            } else {
                c->setNewResourceACL(p, acl);
            }
            return;
        }
        default:
            break;
    }
}

void callResourceOp(RMRcp* rcp, RMRequest& r, Views& v, RMResponse::Completion done,
                    std::unique_ptr<RMResponse>& rsp) {
    const char* name = requestOpName(r.op);
    int* ids = dataOrNull(r.ids);
    unsigned int nIds = count(r.ids.size());
    switch (r.op) {
        case RMRequestOp::GetAttributeValues:
        case RMRequestOp::EnablePersResourceAttrsNotification:
        case RMRequestOp::ReportPersAttributeValues:
        case RMRequestOp::ReportDynAttributeValues: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            if (r.op == RMRequestOp::GetAttributeValues) {
                rcp->getAttributeValues(p, ids, nIds);
            } else if (r.op == RMRequestOp::EnablePersResourceAttrsNotification) {
                rcp->enablePersResourceAttrsNotification(p, ids, nIds);
            } else if (r.op == RMRequestOp::ReportPersAttributeValues) {
                rcp->reportPersAttributeValues(ids, nIds, p);
            } else {
                rcp->reportDynAttributeValues(ids, nIds, p);
            }
            return;
        }
        case RMRequestOp::SetAttributeValues: {
            auto* p = new RMAttributeIdResponse(name, done);
            rsp.reset(p);
            rcp->setAttributeValues(p, dataOrNull(v.attrs), count(v.attrs.size()));
            return;
        }
        case RMRequestOp::DisablePersResourceAttrsNotification:
        case RMRequestOp::StopMonitoringResourceAttrs: {
            auto* p = new RMAttributeIdResponse(name, done);
            rsp.reset(p);
            if (r.op == RMRequestOp::DisablePersResourceAttrsNotification) {
                rcp->disablePersResourceAttrsNotification(p, ids, nIds);
            } else {
                rcp->stopMonitoringResourceAttrs(p, ids, nIds);
            }
            return;
        }
        case RMRequestOp::InvokeAction: {
            auto* p = new RMActionResponse(name, done);
            rsp.reset(p);
            rcp->invokeAction(p, r.actionId, r.input.get());
            return;
        }
        case RMRequestOp::StartMonitoringResourceAttrs: {
            auto* p = new RMAttributeValueResponse(name, done);
            rsp.reset(p);
            rcp->startMonitoringResourceAttrs(p, dataOrNull(r.monitoring),
                                              count(r.monitoring.size()));
            return;
        }
        case RMRequestOp::Online:
        case RMRequestOp::Offline:
        case RMRequestOp::Reset:
        case RMRequestOp::SetResourceACL: {
            auto* p = new RMSimpleResponse(name, done);
            rsp.reset(p);
            if (r.op == RMRequestOp::Online) {
                rcp->online(p, dataOrNull(r.nodeIds), count(r.nodeIds.size()), r.input.get());
            } else if (r.op == RMRequestOp::Offline) {
                rcp->offline(p, static_cast<rm_offline_opts>(r.offlineOptions), r.input.get());
            } else if (r.op == RMRequestOp::Reset) {
                rcp->reset(p, r.input.get());
            } else {
                rcp->setResourceACL(
                    p, r.acl.type() == ZN_BINARY_PTR ? r.acl.value().ptr_binary : nullptr);
            }
            return;
        }
        case RMRequestOp::GetResourceACL: {
            auto* p = new RMGetAclResponse(name, done);
            rsp.reset(p);
            rcp->getResourceACL(p);
            return;
        }
        default:
            break;
    }
}

}  // namespace

const char* requestOpName(RMRequestOp op) { return info(op).name; }

bool isResourceOp(RMRequestOp op) { return info(op).resource; }

RMReply RMRmcp::dispatchSync(RMRequest& r) {
    RMReply out;
    bool got = false;
    RMResponse::Completion done = [&out, &got](RMReply&& reply) {
        out = std::move(reply);
        got = true;
    };
    auto fail = [&](zn::ErrorPtr err) {
        out = RMReply{};
        out.error = std::move(err);
        out.completed = true;
        return std::move(out);
    };

    RMRccp* rccp = findRccpByName(r.className.c_str());
    if (rccp == nullptr) {
        return fail(defaults::common(tarn_rmf::RM_EINVALIDCLASS, r.className.c_str()));
    }
    RMRcp* rcp = nullptr;
    if (isResourceOp(r.op)) {
        rcp = rccp->findAndReserveRcp(&r.handle);
        if (rcp == nullptr) {
            return fail(defaults::common(tarn_rmf::RM_EINVALIDHANDLE, requestOpName(r.op)));
        }
    }
    Views views(r);
    std::unique_ptr<RMResponse> rsp;
    zn::ErrorPtr thrown;
    try {
        if (rcp != nullptr) {
            callResourceOp(rcp, r, views, done, rsp);
        } else {
            callClassOp(rccp, r, views, done, rsp);
        }
    } catch (std::exception& e) {
        thrown.reset(tarn_rmf::RMMapExceptionToError(e));
    } catch (...) {
        thrown = defaults::common(tarn_rmf::RM_EINTERNAL, "unknown exception");
    }
    if (rcp != nullptr) {
        rcp->unreserve();
    }
    if (thrown) {
        // Handlers map their own exceptions; one that escaped is still answered.
        if (rsp && rsp->isComplete()) {
            reportResponseDefect(std::string(requestOpName(r.op)) +
                                 ": exception after the response was finished: " +
                                 cu_error_text(thrown.get()));
        } else {
            if (rsp) {
                rsp.reset();  // an unfinished response is superseded by the error
            }
            return fail(std::move(thrown));
        }
    }
    if (rsp) {
        rsp->finishIfOpen();
    }
    if (!got) {
        return fail(defaults::common(tarn_rmf::RM_EINTERNAL, requestOpName(r.op)));
    }
    return out;
}

}  // namespace tarn_rmf2v
