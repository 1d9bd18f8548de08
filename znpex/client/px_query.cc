// Enumeration and attribute queries (class and resource forms).
#include "znpex/client/ClientErrors.h"
#include "znpex/client/Requests.h"

using namespace znpex::client;
using tarn_rmf2v::RMClassDef;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

RMRequestOp queryOp(AttrScope scope) {
    switch (scope) {
        case AttrScope::ClassPersistent:
            return RMRequestOp::GetClassAttributeValues;
        case AttrScope::ClassDynamic:
            return RMRequestOp::ReportDynClassAttributeValues;
        case AttrScope::Persistent:
            return RMRequestOp::GetAttributeValues;
        case AttrScope::Dynamic:
            return RMRequestOp::ReportDynAttributeValues;
    }
    return RMRequestOp::GetAttributeValues;
}

// Every query form: names to ids, then one request per resource addressed.
int query(const char* fn, px_session_t s, const char* className, AttrScope scope, Target target,
          const zn_resource_handle* handles, uint32_t handleCount, const char* selection,
          const char* const* names, uint32_t nameCount, px_resources_rsp_t** rsp) {
    if (int rc = checkArgs(fn, s, className, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    if (int rc = checkHandles(fn, handles, handleCount); rc != PX_OK) {
        return rc;
    }
    if (nameCount > 0 && names == nullptr) {
        return failInvalid(fn, "a name count without names");
    }
    return onSession(fn, s, [&] {
        RMClassDef def;
        if (int rc = classDef(*s, className, def); rc != PX_OK) {
            return rc;
        }
        std::vector<int> ids;
        if (int rc = attrIds(def, scope, names, nameCount, ids); rc != PX_OK) {
            return rc;
        }
        RequestMaker make = [&] {
            RMRequest r;
            r.op = queryOp(scope);
            r.className = className;
            r.ids = ids;
            return r;
        };
        const auto* defs = &attrList(def, scope);
        return perTarget(*s, target, className, handles, handleCount, selection, make, defs, rsp);
    });
}

}  // namespace

int px_enumerate_select(px_session_t session, const char* class_name, const char* selection,
                        px_enumerate_rsp_t** rsp) {
    if (int rc = checkArgs("px_enumerate_select", session, class_name, rsp); rc != PX_OK) {
        return rc;
    }
    *rsp = nullptr;
    return onSession("px_enumerate_select", session, [&] {
        RMReply reply;
        if (int rc = selectHandles(*session, class_name, selection, reply); rc != PX_OK) {
            return rc;
        }
        *rsp = makeEnumerate(reply).release();
        return PX_OK;
    });
}

int px_query_persistent_attrs(px_session_t session, const char* class_name,
                              const zn_resource_handle* handles, uint32_t handle_count,
                              const char* const* names, uint32_t name_count,
                              px_resources_rsp_t** rsp) {
    return query("px_query_persistent_attrs", session, class_name, AttrScope::Persistent,
                 Target::Handles, handles, handle_count, nullptr, names, name_count, rsp);
}

int px_query_dynamic_attrs(px_session_t session, const char* class_name,
                           const zn_resource_handle* handles, uint32_t handle_count,
                           const char* const* names, uint32_t name_count,
                           px_resources_rsp_t** rsp) {
    return query("px_query_dynamic_attrs", session, class_name, AttrScope::Dynamic, Target::Handles,
                 handles, handle_count, nullptr, names, name_count, rsp);
}

int px_query_persistent_attrs_select(px_session_t session, const char* class_name,
                                     const char* selection, const char* const* names,
                                     uint32_t name_count, px_resources_rsp_t** rsp) {
    return query("px_query_persistent_attrs_select", session, class_name, AttrScope::Persistent,
                 Target::Selection, nullptr, 0, selection, names, name_count, rsp);
}

int px_query_dynamic_attrs_select(px_session_t session, const char* class_name,
                                  const char* selection, const char* const* names,
                                  uint32_t name_count, px_resources_rsp_t** rsp) {
    return query("px_query_dynamic_attrs_select", session, class_name, AttrScope::Dynamic,
                 Target::Selection, nullptr, 0, selection, names, name_count, rsp);
}

int px_query_persistent_class_attrs(px_session_t session, const char* class_name,
                                    const char* const* names, uint32_t name_count,
                                    px_resources_rsp_t** rsp) {
    return query("px_query_persistent_class_attrs", session, class_name, AttrScope::ClassPersistent,
                 Target::Class, nullptr, 0, nullptr, names, name_count, rsp);
}

int px_query_dynamic_class_attrs(px_session_t session, const char* class_name,
                                 const char* const* names, uint32_t name_count,
                                 px_resources_rsp_t** rsp) {
    return query("px_query_dynamic_class_attrs", session, class_name, AttrScope::ClassDynamic,
                 Target::Class, nullptr, 0, nullptr, names, name_count, rsp);
}
