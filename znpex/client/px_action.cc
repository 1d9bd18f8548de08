// Actions (class and resource, by handles or selection), online and offline.
#include "znpex/client/ClientErrors.h"
#include "znpex/client/Requests.h"

using namespace znpex::client;
using tarn_rmf2v::RMClassDef;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

int invoke(const char* fn, px_session_t s, const char* className, Target target,
           const zn_resource_handle* handles, uint32_t handleCount, const char* selection,
           const char* action, const zn_structured_data* input, px_resources_rsp_t** rsp) {
    if (int rc = checkArgs(fn, s, className, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    if (int rc = checkHandles(fn, handles, handleCount); rc != PX_OK) {
        return rc;
    }
    return onSession(fn, s, [&] {
        RMClassDef def;
        if (int rc = classDef(*s, className, def); rc != PX_OK) {
            return rc;
        }
        int id = 0;
        if (int rc = actionId(def, target == Target::Class, action, id); rc != PX_OK) {
            return rc;
        }
        RequestMaker make = [&] {
            RMRequest r;
            r.op = target == Target::Class ? RMRequestOp::InvokeClassAction
                                           : RMRequestOp::InvokeAction;
            r.className = className;
            r.actionId = id;
            r.input = zn::copySd(input);
            return r;
        };
        return perTarget(*s, target, className, handles, handleCount, selection, make, nullptr,
                         rsp);
    });
}

}  // namespace

int px_invoke_class_action(px_session_t session, const char* class_name, const char* action,
                           const zn_structured_data* input, px_resources_rsp_t** rsp) {
    return invoke("px_invoke_class_action", session, class_name, Target::Class, nullptr, 0, nullptr,
                  action, input, rsp);
}

int px_invoke_action(px_session_t session, const char* class_name,
                     const zn_resource_handle* handles, uint32_t handle_count, const char* action,
                     const zn_structured_data* input, px_resources_rsp_t** rsp) {
    return invoke("px_invoke_action", session, class_name, Target::Handles, handles, handle_count,
                  nullptr, action, input, rsp);
}

int px_invoke_action_select(px_session_t session, const char* class_name, const char* selection,
                            const char* action, const zn_structured_data* input,
                            px_resources_rsp_t** rsp) {
    return invoke("px_invoke_action_select", session, class_name, Target::Selection, nullptr, 0,
                  selection, action, input, rsp);
}

int px_online(px_session_t session, const char* class_name, const zn_resource_handle* handles,
              uint32_t handle_count, const uint64_t* node_ids, uint32_t node_count,
              const zn_structured_data* options, px_resources_rsp_t** rsp) {
    const char* fn = "px_online";
    if (int rc = checkArgs(fn, session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    if (int rc = checkHandles(fn, handles, handle_count); rc != PX_OK) {
        return rc;
    }
    if (node_count > 0 && node_ids == nullptr) {
        return failInvalid(fn, "a node count without node ids");
    }
    return onSession(fn, session, [&] {
        RequestMaker make = [&] {
            RMRequest r;
            r.op = RMRequestOp::Online;
            r.className = class_name;
            r.nodeIds.assign(node_ids, node_ids + node_count);
            r.input = zn::copySd(options);
            return r;
        };
        std::vector<zn_resource_handle> hs(handles, handles + handle_count);
        return perResource(*session, make, &hs, nullptr, rsp);
    });
}

int px_offline(px_session_t session, const char* class_name, const zn_resource_handle* handles,
               uint32_t handle_count, uint32_t offline_options, const zn_structured_data* options,
               px_resources_rsp_t** rsp) {
    const char* fn = "px_offline";
    if (int rc = checkArgs(fn, session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    if (int rc = checkHandles(fn, handles, handle_count); rc != PX_OK) {
        return rc;
    }
    return onSession(fn, session, [&] {
        RequestMaker make = [&] {
            RMRequest r;
            r.op = RMRequestOp::Offline;
            r.className = class_name;
            r.offlineOptions = offline_options;
            r.input = zn::copySd(options);
            return r;
        };
        std::vector<zn_resource_handle> hs(handles, handles + handle_count);
        return perResource(*session, make, &hs, nullptr, rsp);
    });
}
