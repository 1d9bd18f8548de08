#include "znpex/client/Responses.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "znpex/client/HostErrors.h"
#include "znpex/client/px_event.h"

namespace znpex::client {
namespace {

template <typename T>
T* allocZeroed(size_t count) {
    if (count == 0) {
        return nullptr;
    }
    void* p = std::calloc(count, sizeof(T));
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<T*>(p);
}

char* copyText(const std::string& s) {
    char* p = strdup(s.c_str());
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

const char* nameOf(const std::vector<tarn_rmf2v::RMAttrDef>* defs, int id) {
    if (defs != nullptr) {
        for (const auto& d : *defs) {
            if (d.id == id) {
                return d.name.c_str();
            }
        }
    }
    return "";
}

void fillAttrDefs(const std::vector<tarn_rmf2v::RMAttrDef>& in, px_attr_def_t*& out,
                  uint32_t& count) {
    out = allocZeroed<px_attr_def_t>(in.size());
    for (const auto& a : in) {
        px_attr_def_t& d = out[count];
        d.name = copyText(a.name);
        ++count;  // counted once it owns something, so a failure frees it
        d.id = a.id;
        d.type = a.type;
        d.properties = a.properties;
    }
}

void fillActionDefs(const std::vector<tarn_rmf2v::RMActionDef>& in, px_action_def_t*& out,
                    uint32_t& count) {
    out = allocZeroed<px_action_def_t>(in.size());
    for (const auto& a : in) {
        px_action_def_t& d = out[count];
        d.name = copyText(a.name);
        ++count;
        d.id = a.id;
        d.input = allocZeroed<zn_data_type_t>(a.input.size());
        for (zn_data_type_t t : a.input) {
            d.input[d.input_count++] = t;
        }
    }
}

void freeAttrDefs(px_attr_def_t* defs, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        std::free(defs[i].name);
    }
    std::free(defs);
}

void freeActionDefs(px_action_def_t* defs, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        std::free(defs[i].name);
        std::free(defs[i].input);
    }
    std::free(defs);
}

void freeEntry(px_resource_rsp_t& e) {
    cu_rel_error_1(e.error);
    for (uint32_t i = 0; i < e.attr_count; ++i) {
        px_attr_value_t& a = e.attrs[i];
        std::free(a.pv_name);
        zn_value_free(a.pv_type, a.pv_value);
        cu_rel_error_1(a.pv_error);
    }
    std::free(e.attrs);
    for (uint32_t i = 0; i < e.data_count; ++i) {
        zn::SdDeleter()(e.data[i]);
    }
    std::free(e.data);
}

template <typename T>
RspPtr<T> makeRsp(px_response_type_t type) {
    RspPtr<T> r(allocZeroed<T>(1));
    r->hdr.pr_type = type;
    return r;
}

}  // namespace

RspPtr<px_enumerate_rsp_t> makeEnumerate(tarn_rmf2v::RMReply& reply) {
    auto r = makeRsp<px_enumerate_rsp_t>(PX_RSP_ENUMERATE);
    r->hdr.pr_error = reply.error.release();
    attachHostErrors(r->hdr);
    r->handles = allocZeroed<zn_resource_handle>(reply.handles.size());
    for (const auto& h : reply.handles) {
        r->handles[r->handle_count++] = h;
    }
    return r;
}

RspPtr<px_define_rsp_t> makeDefine(tarn_rmf2v::RMReply& reply) {
    auto r = makeRsp<px_define_rsp_t>(PX_RSP_DEFINE);
    r->hdr.pr_error = reply.error.release();
    attachHostErrors(r->hdr);
    r->has_handle = reply.hasNewHandle ? 1 : 0;
    r->handle = reply.newHandle;
    return r;
}

RspPtr<px_resources_rsp_t> makeResources(size_t count) {
    auto r = makeRsp<px_resources_rsp_t>(PX_RSP_RESOURCES);
    r->resources = allocZeroed<px_resource_rsp_t>(count);
    r->resource_count = static_cast<uint32_t>(count);
    return r;
}

void fillEntry(px_resource_rsp_t& e, const zn_resource_handle* handle, tarn_rmf2v::RMReply& reply,
               const std::vector<tarn_rmf2v::RMAttrDef>* defs) {
    if (handle != nullptr) {
        e.handle = *handle;
    } else {
        e.is_class = 1;
    }
    e.error = reply.error.release();
    e.attrs = allocZeroed<px_attr_value_t>(reply.values.size() + reply.items.size());
    for (auto& v : reply.values) {
        px_attr_value_t& a = e.attrs[e.attr_count];
        a.pv_name = copyText(nameOf(defs, v.id));
        a.pv_id = v.id;
        a.pv_type = v.value.type();
        a.pv_value = v.value.release();
        ++e.attr_count;
    }
    for (auto& item : reply.items) {
        px_attr_value_t& a = e.attrs[e.attr_count];
        a.pv_name = copyText(nameOf(defs, item.id));
        a.pv_id = item.id;
        a.pv_type = ZN_UNKNOWN;
        a.pv_error = item.error.release();
        ++e.attr_count;
    }
    e.data = allocZeroed<zn_structured_data*>(reply.actionData.size());
    for (auto& sd : reply.actionData) {
        e.data[e.data_count++] = sd.release();
    }
}

RspPtr<px_class_list_t> makeClassList(const std::vector<proto::ClassInfo>& classes) {
    auto r = makeRsp<px_class_list_t>(PX_RSP_CLASSES);
    r->classes = allocZeroed<px_class_def_t>(classes.size());
    for (const auto& c : classes) {
        px_class_def_t& d = r->classes[r->class_count++];
        d.name = copyText(c.def.name);
        d.rm_name = copyText(c.rm);
        d.connected = c.connected ? 1 : 0;
        fillAttrDefs(c.def.classPersistent, d.class_persistent, d.class_persistent_count);
        fillAttrDefs(c.def.classDynamic, d.class_dynamic, d.class_dynamic_count);
        fillAttrDefs(c.def.persistent, d.persistent, d.persistent_count);
        fillAttrDefs(c.def.dynamic, d.dynamic, d.dynamic_count);
        fillActionDefs(c.def.classActions, d.class_actions, d.class_action_count);
        fillActionDefs(c.def.actions, d.actions, d.action_count);
    }
    return r;
}

}  // namespace znpex::client

void px_free_response(void* rsp) {
    if (rsp == nullptr) {
        return;
    }
    auto* hdr = static_cast<px_rsp_hdr_t*>(rsp);
    cu_rel_error_1(hdr->pr_error);
    znpex::client::freeHostErrors(*hdr);
    switch (hdr->pr_type) {
        case PX_RSP_ENUMERATE:
            std::free(static_cast<px_enumerate_rsp_t*>(rsp)->handles);
            break;
        case PX_RSP_DEFINE:
            break;
        case PX_RSP_RESOURCES: {
            auto* r = static_cast<px_resources_rsp_t*>(rsp);
            for (uint32_t i = 0; i < r->resource_count; ++i) {
                znpex::client::freeEntry(r->resources[i]);
            }
            std::free(r->resources);
            break;
        }
        case PX_RSP_CLASSES: {
            auto* r = static_cast<px_class_list_t*>(rsp);
            for (uint32_t i = 0; i < r->class_count; ++i) {
                px_class_def_t& d = r->classes[i];
                std::free(d.name);
                std::free(d.rm_name);
                using namespace znpex::client;
                freeAttrDefs(d.class_persistent, d.class_persistent_count);
                freeAttrDefs(d.class_dynamic, d.class_dynamic_count);
                freeAttrDefs(d.persistent, d.persistent_count);
                freeAttrDefs(d.dynamic, d.dynamic_count);
                freeActionDefs(d.class_actions, d.class_action_count);
                freeActionDefs(d.actions, d.action_count);
            }
            std::free(r->classes);
            break;
        }
        default:
            znpex::client::freeEventParts(hdr);
            break;
    }
    std::free(rsp);
}
