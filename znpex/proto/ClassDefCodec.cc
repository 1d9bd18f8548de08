#include "znpex/proto/ClassDefCodec.h"

#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::proto {
namespace {

using tarn_rmf2v::RMActionDef;
using tarn_rmf2v::RMAttrDef;

std::string at(const std::string& where, size_t i) {
    return where + "[" + std::to_string(i) + "]";
}

std::string nameOf(const Json& j, const std::string& where) {
    std::string s = asString(j, where);
    if (s.empty() || s.size() > kMaxNameLength) {
        throw ProtocolError(where + ": a name of 1 to " + std::to_string(kMaxNameLength) +
                            " characters");
    }
    return s;
}

zn_data_type_t typeOf(const Json& j, const std::string& where) {
    int code = asInt32(j, where);
    if (!isWireType(code)) {
        throw ProtocolError(where + ": unknown data type " + std::to_string(code));
    }
    return static_cast<zn_data_type_t>(code);
}

Json encodeAttrDefs(const std::vector<RMAttrDef>& list) {
    Json out = Json::array();
    for (const auto& a : list) {
        out.push_back(Json{{"name", a.name},
                           {"id", a.id},
                           {"t", static_cast<int>(a.type)},
                           {"props", a.properties}});
    }
    return out;
}

Json encodeActionDefs(const std::vector<RMActionDef>& list) {
    Json out = Json::array();
    for (const auto& a : list) {
        Json input = Json::array();
        for (zn_data_type_t t : a.input) {
            input.push_back(static_cast<int>(t));
        }
        out.push_back(Json{{"name", a.name}, {"id", a.id}, {"input", std::move(input)}});
    }
    return out;
}

const Json& listField(const Json& j, const char* key, const std::string& where, Json& empty) {
    const Json* f = findField(j, key);
    if (f == nullptr) {
        return empty;
    }
    const Json& arr = requireArray(*f, where + "." + key);
    if (arr.size() > kMaxAttrsPerList) {
        throw ProtocolError(where + "." + key + ": more than " + std::to_string(kMaxAttrsPerList) +
                            " entries");
    }
    return arr;
}

std::vector<RMAttrDef> decodeAttrDefs(const Json& j, const char* key, const std::string& where) {
    Json empty = Json::array();
    const Json& arr = listField(j, key, where, empty);
    std::vector<RMAttrDef> out;
    for (size_t i = 0; i < arr.size(); ++i) {
        std::string wi = at(where + "." + key, i);
        RMAttrDef a;
        a.name = nameOf(requireField(arr[i], "name", wi), wi + ".name");
        a.id = asInt32(requireField(arr[i], "id", wi), wi + ".id");
        a.type = typeOf(requireField(arr[i], "t", wi), wi + ".t");
        if (const Json* p = findField(arr[i], "props")) {
            a.properties = asUInt32(*p, wi + ".props");
        }
        out.push_back(std::move(a));
    }
    return out;
}

std::vector<RMActionDef> decodeActionDefs(const Json& j, const char* key,
                                          const std::string& where) {
    Json empty = Json::array();
    const Json& arr = listField(j, key, where, empty);
    std::vector<RMActionDef> out;
    for (size_t i = 0; i < arr.size(); ++i) {
        std::string wi = at(where + "." + key, i);
        RMActionDef a;
        a.name = nameOf(requireField(arr[i], "name", wi), wi + ".name");
        a.id = asInt32(requireField(arr[i], "id", wi), wi + ".id");
        if (const Json* in = findField(arr[i], "input")) {
            const Json& types = requireArray(*in, wi + ".input");
            if (types.size() > kMaxAttrsPerList) {
                throw ProtocolError(wi + ".input: too many entries");
            }
            for (size_t k = 0; k < types.size(); ++k) {
                a.input.push_back(typeOf(types[k], at(wi + ".input", k)));
            }
        }
        out.push_back(std::move(a));
    }
    return out;
}

template <typename T>
const T* findByName(const std::vector<T>& list, const std::string& name) {
    for (const auto& x : list) {
        if (x.name == name) {
            return &x;
        }
    }
    return nullptr;
}

}  // namespace

Json encodeClassDef(const tarn_rmf2v::RMClassDef& def) {
    return Json{{"class", def.name},
                {"classPersistent", encodeAttrDefs(def.classPersistent)},
                {"classDynamic", encodeAttrDefs(def.classDynamic)},
                {"persistent", encodeAttrDefs(def.persistent)},
                {"dynamic", encodeAttrDefs(def.dynamic)},
                {"classActions", encodeActionDefs(def.classActions)},
                {"actions", encodeActionDefs(def.actions)}};
}

tarn_rmf2v::RMClassDef decodeClassDef(const Json& j, const std::string& where) {
    requireObject(j, where);
    tarn_rmf2v::RMClassDef def;
    def.name = nameOf(requireField(j, "class", where), where + ".class");
    def.classPersistent = decodeAttrDefs(j, "classPersistent", where);
    def.classDynamic = decodeAttrDefs(j, "classDynamic", where);
    def.persistent = decodeAttrDefs(j, "persistent", where);
    def.dynamic = decodeAttrDefs(j, "dynamic", where);
    def.classActions = decodeActionDefs(j, "classActions", where);
    def.actions = decodeActionDefs(j, "actions", where);
    return def;
}

Json encodeClassInfo(const ClassInfo& c) {
    Json j = encodeClassDef(c.def);
    j["rm"] = c.rm;
    j["connected"] = c.connected;
    return j;
}

ClassInfo decodeClassInfo(const Json& j, const std::string& where) {
    ClassInfo c;
    c.def = decodeClassDef(j, where);
    if (const Json* f = findField(j, "rm")) {
        c.rm = asString(*f, where + ".rm");
    }
    if (const Json* f = findField(j, "connected")) {
        c.connected = asBool(*f, where + ".connected");
    }
    return c;
}

std::vector<ClassInfo> decodeClassList(const Json& result) {
    const Json& arr = requireArray(result, "result");
    std::vector<ClassInfo> out;
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(decodeClassInfo(arr[i], at("result", i)));
    }
    return out;
}

const RMAttrDef* findAttr(const std::vector<RMAttrDef>& list, const std::string& name) {
    return findByName(list, name);
}

const RMActionDef* findAction(const std::vector<RMActionDef>& list, const std::string& name) {
    return findByName(list, name);
}

}  // namespace znpex::proto
