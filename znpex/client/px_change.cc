// Changes: define, undefine (by handles or selection) and attribute changes
// (resource and class).
#include <string_view>
#include <unordered_map>

#include "znpex/client/ClientErrors.h"
#include "znpex/client/HostErrors.h"
#include "znpex/client/Requests.h"

using namespace znpex::client;
using tarn_rmf2v::RMClassDef;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMReplyAttr;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

std::vector<RMReplyAttr> copyAttrs(const std::vector<RMReplyAttr>& in) {
    std::vector<RMReplyAttr> out;
    out.reserve(in.size());
    for (const auto& a : in) {
        out.push_back({a.id, zn::OwnedValue::copyOf(a.value.type(), a.value.value())});
    }
    return out;
}

std::string_view handleKey(const zn_resource_handle& h) {
    return {reinterpret_cast<const char*>(h.bytes), sizeof h.bytes};
}

// One undefine request for all handles; one entry per handle with its result.
int undefine(px_session& s, const char* className, std::vector<zn_resource_handle> handles,
             const zn_structured_data* options, px_resources_rsp_t** rsp) {
    RspPtr<px_resources_rsp_t> out = makeResources(handles.size());
    if (!handles.empty()) {
        RMRequest r;
        r.op = RMRequestOp::UndefineResources;
        r.className = className;
        r.handles = handles;
        r.input = zn::copySd(options);
        RMReply reply;
        if (int rc = callRm(s, r, reply); rc != PX_OK) {
            return rc;
        }
        out->hdr.pr_error = reply.error.release();
        // The manager answers each handle; matched through a map, since a
        // scan of the answers per handle is quadratic in a bulk undefine.
        std::unordered_map<std::string_view, zn::ErrorPtr*> errors;
        errors.reserve(reply.items.size());
        for (auto& item : reply.items) {
            if (item.hasHandle && item.error) {
                errors.emplace(handleKey(item.handle), &item.error);  // the first one counts
            }
        }
        for (size_t i = 0; i < handles.size(); ++i) {
            px_resource_rsp_t& e = out->resources[i];
            e.handle = handles[i];
            auto it = errors.find(handleKey(handles[i]));
            if (it != errors.end() && *it->second) {
                e.error = it->second->release();
            }
        }
    }
    attachHostErrors(out->hdr);
    *rsp = out.release();
    return PX_OK;
}

int setAttrs(const char* fn, px_session_t s, const char* className, Target target,
             const zn_resource_handle* handles, uint32_t handleCount, const char* selection,
             const px_attr_t* attrs, uint32_t attrCount, px_resources_rsp_t** rsp) {
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
        AttrScope scope =
            target == Target::Class ? AttrScope::ClassPersistent : AttrScope::Persistent;
        std::vector<RMReplyAttr> values;
        if (int rc = attrValues(fn, def, scope, attrs, attrCount, values); rc != PX_OK) {
            return rc;
        }
        RequestMaker make = [&] {
            RMRequest r;
            r.op = target == Target::Class ? RMRequestOp::SetClassAttributeValues
                                           : RMRequestOp::SetAttributeValues;
            r.className = className;
            r.values = copyAttrs(values);
            return r;
        };
        const auto* defs = &attrList(def, scope);
        return perTarget(*s, target, className, handles, handleCount, selection, make, defs, rsp);
    });
}

}  // namespace

int px_define_resource(px_session_t session, const char* class_name, const px_attr_t* attrs,
                       uint32_t attr_count, const zn_structured_data* options,
                       px_define_rsp_t** rsp) {
    const char* fn = "px_define_resource";
    if (int rc = checkArgs(fn, session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    return onSession(fn, session, [&] {
        RMClassDef def;
        if (int rc = classDef(*session, class_name, def); rc != PX_OK) {
            return rc;
        }
        RMRequest r;
        r.op = RMRequestOp::DefineResource;
        r.className = class_name;
        if (int rc = attrValues(fn, def, AttrScope::Persistent, attrs, attr_count, r.values);
            rc != PX_OK) {
            return rc;
        }
        r.input = zn::copySd(options);
        RMReply reply;
        if (int rc = callRm(*session, r, reply); rc != PX_OK) {
            return rc;
        }
        *rsp = makeDefine(reply).release();
        return PX_OK;
    });
}

int px_undefine_resource(px_session_t session, const char* class_name,
                         const zn_resource_handle* handles, uint32_t handle_count,
                         const zn_structured_data* options, px_resources_rsp_t** rsp) {
    const char* fn = "px_undefine_resource";
    if (int rc = checkArgs(fn, session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    if (int rc = checkHandles(fn, handles, handle_count); rc != PX_OK) {
        return rc;
    }
    return onSession(fn, session, [&] {
        return undefine(*session, class_name, {handles, handles + handle_count}, options, rsp);
    });
}

int px_undefine_select(px_session_t session, const char* class_name, const char* selection,
                       const zn_structured_data* options, px_resources_rsp_t** rsp) {
    const char* fn = "px_undefine_select";
    if (int rc = checkArgs(fn, session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    return onSession(fn, session, [&] {
        RMReply chosen;
        if (int rc = selectHandles(*session, class_name, selection, chosen); rc != PX_OK) {
            return rc;
        }
        if (chosen.error) {
            RspPtr<px_resources_rsp_t> out = makeResources(0);
            out->hdr.pr_error = chosen.error.release();
            attachHostErrors(out->hdr);
            *rsp = out.release();
            return PX_OK;
        }
        return undefine(*session, class_name, chosen.handles, options, rsp);
    });
}

int px_set_attrs(px_session_t session, const char* class_name, const zn_resource_handle* handles,
                 uint32_t handle_count, const px_attr_t* attrs, uint32_t attr_count,
                 px_resources_rsp_t** rsp) {
    return setAttrs("px_set_attrs", session, class_name, Target::Handles, handles, handle_count,
                    nullptr, attrs, attr_count, rsp);
}

int px_set_attrs_select(px_session_t session, const char* class_name, const char* selection,
                        const px_attr_t* attrs, uint32_t attr_count, px_resources_rsp_t** rsp) {
    return setAttrs("px_set_attrs_select", session, class_name, Target::Selection, nullptr, 0,
                    selection, attrs, attr_count, rsp);
}

int px_set_class_attrs(px_session_t session, const char* class_name, const px_attr_t* attrs,
                       uint32_t attr_count, px_resources_rsp_t** rsp) {
    return setAttrs("px_set_class_attrs", session, class_name, Target::Class, nullptr, 0, nullptr,
                    attrs, attr_count, rsp);
}
