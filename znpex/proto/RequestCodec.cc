#include "znpex/proto/RequestCodec.h"

#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::proto {
namespace {

using tarn_rmf2v::RMRequestOp;

std::string at(const std::string& where, size_t i) {
    return where + "[" + std::to_string(i) + "]";
}

bool usesMatchSet(RMRequestOp op) {
    return op == RMRequestOp::StartMonitoringMatchSet || op == RMRequestOp::StopMonitoringMatchSet;
}

bool usesAction(RMRequestOp op) {
    return op == RMRequestOp::InvokeClassAction || op == RMRequestOp::InvokeAction;
}

Json encodeHandles(const std::vector<zn_resource_handle>& hs) {
    Json out = Json::array();
    for (const auto& h : hs) {
        out.push_back(handleToHex(h));
    }
    return out;
}

std::vector<zn_resource_handle> decodeHandles(const Json& j, const std::string& where) {
    const Json& arr = requireArray(j, where);
    std::vector<zn_resource_handle> out;
    out.reserve(arr.size());
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(handleFromHex(arr[i], at(where, i)));
    }
    return out;
}

zn::OwnedValue decodeAcl(const Json& j, const std::string& where) {
    zn::OwnedValue v = decodeValue(j, where);
    if (v.type() != ZN_BINARY_PTR) {
        throw ProtocolError(where + ": expected a binary value (type 9)");
    }
    return v;
}

}  // namespace

const std::vector<RMRequestOp>& allRequestOps() {
    static const std::vector<RMRequestOp> ops = [] {
        std::vector<RMRequestOp> v;
        for (int i = static_cast<int>(RMRequestOp::EnumerateResources);
             i <= static_cast<int>(RMRequestOp::SetResourceACL); ++i) {
            v.push_back(static_cast<RMRequestOp>(i));
        }
        return v;
    }();
    return ops;
}

std::string rmMethod(RMRequestOp op) {
    return std::string(kRmMethodPrefix) + tarn_rmf2v::requestOpName(op);
}

std::optional<RMRequestOp> opFromRmMethod(std::string_view method) {
    std::string_view prefix(kRmMethodPrefix);
    if (method.substr(0, prefix.size()) != prefix) {
        return std::nullopt;
    }
    std::string_view name = method.substr(prefix.size());
    for (RMRequestOp op : allRequestOps()) {
        if (name == tarn_rmf2v::requestOpName(op)) {
            return op;
        }
    }
    return std::nullopt;
}

Json encodeRequestParams(const tarn_rmf2v::RMRequest& r, const std::string& identity) {
    Json p{{"class", r.className}};
    if (tarn_rmf2v::isResourceOp(r.op)) {
        p["handle"] = handleToHex(r.handle);
    }
    if (!r.handles.empty()) {
        p["handles"] = encodeHandles(r.handles);
    }
    if (!r.ids.empty()) {
        p["ids"] = r.ids;
    }
    if (!r.values.empty()) {
        p["values"] = encodeAttrs(r.values);
    }
    if (!r.monitoring.empty()) {
        Json m = Json::array();
        for (const auto& d : r.monitoring) {
            m.push_back(Json{{"id", d.rm_attribute_id}, {"options", d.rm_options}});
        }
        p["monitoring"] = std::move(m);
    }
    if (usesAction(r.op)) {
        p["actionId"] = r.actionId;
    }
    if (r.input) {
        p["input"] = encodeSd(r.input.get());
    }
    if (!r.selection.empty() || r.op == RMRequestOp::EnumerateSelectResources) {
        p["selection"] = r.selection;
    }
    if (usesMatchSet(r.op)) {
        p["matchSetId"] = decimal(static_cast<uint64_t>(r.matchSetId));
    }
    if (!r.nodeIds.empty()) {
        Json ids = Json::array();
        for (unsigned long long id : r.nodeIds) {
            ids.push_back(decimal(static_cast<uint64_t>(id)));
        }
        p["nodeIds"] = std::move(ids);
    }
    if (r.op == RMRequestOp::Offline) {
        p["offlineOptions"] = r.offlineOptions;
    }
    if (r.acl.type() != ZN_UNKNOWN) {
        p["acl"] = encodeValue(r.acl.type(), r.acl.value());
    }
    if (!identity.empty()) {
        p["identity"] = identity;
    }
    return p;
}

tarn_rmf2v::RMRequest decodeRequestParams(RMRequestOp op, const Json& params,
                                          std::string* identity) {
    const std::string w = "params";
    requireObject(params, w);
    tarn_rmf2v::RMRequest r;
    r.op = op;
    r.className = asString(requireField(params, "class", w), w + ".class");
    if (tarn_rmf2v::isResourceOp(op)) {
        r.handle = handleFromHex(requireField(params, "handle", w), w + ".handle");
    } else if (findField(params, "handle") != nullptr) {
        throw ProtocolError(w + ".handle: " + tarn_rmf2v::requestOpName(op) +
                            " is a class operation");
    }
    if (const Json* f = findField(params, "handles")) {
        r.handles = decodeHandles(*f, w + ".handles");
    }
    if (const Json* f = findField(params, "ids")) {
        const Json& arr = requireArray(*f, w + ".ids");
        for (size_t i = 0; i < arr.size(); ++i) {
            r.ids.push_back(asInt32(arr[i], at(w + ".ids", i)));
        }
    }
    if (const Json* f = findField(params, "values")) {
        r.values = decodeAttrs(*f, w + ".values");
    }
    if (const Json* f = findField(params, "monitoring")) {
        const Json& arr = requireArray(*f, w + ".monitoring");
        for (size_t i = 0; i < arr.size(); ++i) {
            std::string wi = at(w + ".monitoring", i);
            rm_monitoring_data d{};
            d.rm_attribute_id = asInt32(requireField(arr[i], "id", wi), wi + ".id");
            d.rm_options = asUInt32(requireField(arr[i], "options", wi), wi + ".options");
            r.monitoring.push_back(d);
        }
    }
    if (const Json* f = findField(params, "actionId")) {
        r.actionId = asInt32(*f, w + ".actionId");
    }
    if (const Json* f = findField(params, "input")) {
        r.input = decodeSd(*f, w + ".input");
    }
    if (const Json* f = findField(params, "selection")) {
        r.selection = asString(*f, w + ".selection");
    }
    if (const Json* f = findField(params, "matchSetId")) {
        r.matchSetId = asDecimalUInt64(*f, w + ".matchSetId");
    }
    if (const Json* f = findField(params, "nodeIds")) {
        const Json& arr = requireArray(*f, w + ".nodeIds");
        for (size_t i = 0; i < arr.size(); ++i) {
            r.nodeIds.push_back(asDecimalUInt64(arr[i], at(w + ".nodeIds", i)));
        }
    }
    if (const Json* f = findField(params, "offlineOptions")) {
        r.offlineOptions = asUInt32(*f, w + ".offlineOptions");
    }
    if (const Json* f = findField(params, "acl")) {
        r.acl = decodeAcl(*f, w + ".acl");
    }
    if (identity != nullptr) {
        const Json* f = findField(params, "identity");
        *identity = f != nullptr ? asString(*f, w + ".identity") : std::string();
    }
    return r;
}

Json encodeReply(const tarn_rmf2v::RMReply& r) {
    Json out = Json::object();
    if (r.error) {
        out["error"] = encodeError(*r.error);
    }
    out["values"] = encodeAttrs(r.values);
    Json items = Json::array();
    for (const auto& it : r.items) {
        Json i = Json::object();
        if (it.id >= 0) {
            i["id"] = it.id;
        }
        if (it.hasHandle) {
            i["handle"] = handleToHex(it.handle);
        }
        if (it.error) {
            i["error"] = encodeError(*it.error);
        }
        items.push_back(std::move(i));
    }
    out["items"] = std::move(items);
    out["handles"] = encodeHandles(r.handles);
    if (r.hasNewHandle) {
        out["newHandle"] = handleToHex(r.newHandle);
    }
    Json data = Json::array();
    for (const auto& sd : r.actionData) {
        data.push_back(encodeSd(sd.get()));
    }
    out["actionData"] = std::move(data);
    if (r.acl.type() != ZN_UNKNOWN) {
        out["acl"] = encodeValue(r.acl.type(), r.acl.value());
    }
    return out;
}

tarn_rmf2v::RMReply decodeReply(const Json& result) {
    const std::string w = "result";
    requireObject(result, w);
    tarn_rmf2v::RMReply r;
    if (const Json* f = findField(result, "error")) {
        r.error = decodeError(*f, w + ".error");
    }
    if (const Json* f = findField(result, "values")) {
        r.values = decodeAttrs(*f, w + ".values");
    }
    if (const Json* f = findField(result, "items")) {
        const Json& arr = requireArray(*f, w + ".items");
        for (size_t i = 0; i < arr.size(); ++i) {
            std::string wi = at(w + ".items", i);
            requireObject(arr[i], wi);
            tarn_rmf2v::RMReplyItem item;
            if (const Json* g = findField(arr[i], "id")) {
                item.id = asInt32(*g, wi + ".id");
            }
            if (const Json* g = findField(arr[i], "handle")) {
                item.hasHandle = true;
                item.handle = handleFromHex(*g, wi + ".handle");
            }
            if (const Json* g = findField(arr[i], "error")) {
                item.error = decodeError(*g, wi + ".error");
            }
            r.items.push_back(std::move(item));
        }
    }
    if (const Json* f = findField(result, "handles")) {
        r.handles = decodeHandles(*f, w + ".handles");
    }
    if (const Json* f = findField(result, "newHandle")) {
        r.hasNewHandle = true;
        r.newHandle = handleFromHex(*f, w + ".newHandle");
    }
    if (const Json* f = findField(result, "actionData")) {
        const Json& arr = requireArray(*f, w + ".actionData");
        for (size_t i = 0; i < arr.size(); ++i) {
            r.actionData.push_back(decodeSd(arr[i], at(w + ".actionData", i)));
        }
    }
    if (const Json* f = findField(result, "acl")) {
        r.acl = decodeAcl(*f, w + ".acl");
    }
    r.completed = true;
    return r;
}

}  // namespace znpex::proto
