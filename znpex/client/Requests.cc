#include "znpex/client/Requests.h"

#include <algorithm>
#include <new>

#include "znpex/client/ClientErrors.h"
#include "znpex/client/HostErrors.h"
#include "znpex/client/SessionLife.h"
#include "znpex/proto/ClassDefCodec.h"

namespace znpex::client {

using tarn_rmf2v::RMClassDef;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

const std::vector<tarn_rmf2v::RMAttrDef>& attrList(const RMClassDef& def, AttrScope scope) {
    switch (scope) {
        case AttrScope::ClassPersistent:
            return def.classPersistent;
        case AttrScope::ClassDynamic:
            return def.classDynamic;
        case AttrScope::Persistent:
            return def.persistent;
        case AttrScope::Dynamic:
            return def.dynamic;
    }
    return def.persistent;
}

const char* scopeName(AttrScope scope) {
    switch (scope) {
        case AttrScope::ClassPersistent:
            return "persistent class";
        case AttrScope::ClassDynamic:
            return "dynamic class";
        case AttrScope::Persistent:
            return "persistent";
        case AttrScope::Dynamic:
            return "dynamic";
    }
    return "";
}

int checkArgs(const char* fn, px_session_t s, const char* className, const void* rsp) {
    clearHostErrors();  // a new call: nothing gathered yet
    if (s == nullptr) {
        return failInvalid(fn, "no session");
    }
    if (className == nullptr || *className == '\0') {
        return failInvalid(fn, "no class name");
    }
    if (rsp == nullptr) {
        return failInvalid(fn, "nowhere to put the response");
    }
    return PX_OK;
}

int checkHandles(const char* fn, const zn_resource_handle* handles, uint32_t count) {
    if (count > 0 && handles == nullptr) {
        return failInvalid(fn, "a handle count without handles");
    }
    return PX_OK;
}

int attrIds(const RMClassDef& def, AttrScope scope, const char* const* names, uint32_t count,
            std::vector<int>& ids) {
    const auto& list = attrList(def, scope);
    if (names == nullptr || count == 0) {
        for (const auto& a : list) {
            ids.push_back(a.id);
        }
        return PX_OK;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const char* n = names[i] != nullptr ? names[i] : "";
        const auto* a = proto::findAttr(list, n);
        if (a == nullptr) {
            return failNoAttr(def.name, scopeName(scope), n);
        }
        ids.push_back(a->id);
    }
    return PX_OK;
}

int attrValues(const char* fn, const RMClassDef& def, AttrScope scope, const px_attr_t* attrs,
               uint32_t count, std::vector<tarn_rmf2v::RMReplyAttr>& out) {
    if (count > 0 && attrs == nullptr) {
        return failInvalid(fn, "an attribute count without attributes");
    }
    for (uint32_t i = 0; i < count; ++i) {
        const char* n = attrs[i].pa_name != nullptr ? attrs[i].pa_name : "";
        const auto* a = proto::findAttr(attrList(def, scope), n);
        if (a == nullptr) {
            return failNoAttr(def.name, scopeName(scope), n);
        }
        if (a->type != attrs[i].pa_type) {
            return failType(def.name, n, a->type, attrs[i].pa_type);
        }
        out.push_back({a->id, zn::OwnedValue::copyOf(attrs[i].pa_type, attrs[i].pa_value)});
    }
    return PX_OK;
}

int actionId(const RMClassDef& def, bool classAction, const char* name, int& id) {
    const char* n = name != nullptr ? name : "";
    const auto* a = proto::findAction(classAction ? def.classActions : def.actions, n);
    if (a == nullptr) {
        return failNoAction(def.name, classAction ? "class" : "resource", n);
    }
    id = a->id;
    return PX_OK;
}

int selectHandles(px_session& s, const std::string& className, const char* selection,
                  RMReply& reply) {
    RMRequest r;
    r.className = className;
    if (selection != nullptr && *selection != '\0') {
        r.op = RMRequestOp::EnumerateSelectResources;
        r.selection = selection;
    } else {
        r.op = RMRequestOp::EnumerateResources;
    }
    return callRm(s, r, reply);
}

int perResource(px_session& s, const RequestMaker& make,
                const std::vector<zn_resource_handle>* handles,
                const std::vector<tarn_rmf2v::RMAttrDef>* defs, px_resources_rsp_t** rsp) {
    // Requests go pipelined, a slice at a time so that a selection of many
    // thousands never holds all its encoded requests at once.
    constexpr size_t kSlice = 1024;
    size_t n = handles != nullptr ? handles->size() : 1;
    RspPtr<px_resources_rsp_t> out = makeResources(n);
    std::vector<RMRequest> requests;
    std::vector<RMReply> replies;
    for (size_t from = 0; from < n; from += kSlice) {
        size_t to = std::min(n, from + kSlice);
        requests.clear();
        for (size_t i = from; i < to; ++i) {
            requests.push_back(make());
            if (handles != nullptr) {
                requests.back().handle = (*handles)[i];
            }
        }
        if (int rc = callRmMany(s, requests, replies); rc != PX_OK) {
            return rc;
        }
        for (size_t i = from; i < to; ++i) {
            const zn_resource_handle* h = handles != nullptr ? &(*handles)[i] : nullptr;
            fillEntry(out->resources[i], h, replies[i - from], defs);
        }
    }
    attachHostErrors(out->hdr);
    *rsp = out.release();
    return PX_OK;
}

int perSelected(px_session& s, const std::string& className, const char* selection,
                const RequestMaker& make, const std::vector<tarn_rmf2v::RMAttrDef>* defs,
                px_resources_rsp_t** rsp) {
    RMReply chosen;
    if (int rc = selectHandles(s, className, selection, chosen); rc != PX_OK) {
        return rc;
    }
    if (chosen.error) {
        RspPtr<px_resources_rsp_t> out = makeResources(0);
        out->hdr.pr_error = chosen.error.release();
        attachHostErrors(out->hdr);
        *rsp = out.release();
        return PX_OK;
    }
    return perResource(s, make, &chosen.handles, defs, rsp);
}

int perTarget(px_session& s, Target target, const std::string& className,
              const zn_resource_handle* handles, uint32_t handleCount, const char* selection,
              const RequestMaker& make, const std::vector<tarn_rmf2v::RMAttrDef>* defs,
              px_resources_rsp_t** rsp) {
    switch (target) {
        case Target::Class:
            return perResource(s, make, nullptr, defs, rsp);
        case Target::Handles: {
            std::vector<zn_resource_handle> hs(handles, handles + handleCount);
            return perResource(s, make, &hs, defs, rsp);
        }
        case Target::Selection:
            return perSelected(s, className, selection, make, defs, rsp);
    }
    return PX_OK;
}

int guarded(const char* fn, const std::function<int()>& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return failNoMemory(fn);
    }
}

int onSession(const char* fn, px_session_t s, const std::function<int()>& body) {
    SessionUse use(s);
    if (!use) {
        return failEnded(fn);
    }
    return guarded(fn, body);
}

}  // namespace znpex::client
