#include "znpex/proto/ServiceMessages.h"

#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {

Json encodeSessionStart(const SessionStartParams& p) {
    return Json{{"options", p.options}, {"client", p.client}};
}

SessionStartParams decodeSessionStart(const Json& params) {
    const std::string w = "params";
    requireObject(params, w);
    SessionStartParams p;
    if (const Json* f = findField(params, "options")) {
        p.options = asUInt32(*f, w + ".options");
    }
    if (const Json* f = findField(params, "client")) {
        p.client = asString(*f, w + ".client");
    }
    return p;
}

Json encodeSessionStarted(const SessionStartResult& r) {
    return Json{{"session", r.session}, {"identity", r.identity}};
}

SessionStartResult decodeSessionStarted(const Json& result) {
    const std::string w = "result";
    SessionStartResult r;
    r.session = asSafeUInt(requireField(result, "session", w), w + ".session");
    r.identity = asString(requireField(result, "identity", w), w + ".identity");
    return r;
}

Json encodeRegister(const RegisterParams& p) {
    Json classes = Json::array();
    for (const auto& c : p.classes) {
        classes.push_back(encodeClassDef(c));
    }
    return Json{{"rm", p.rm}, {"classes", std::move(classes)}};
}

RegisterParams decodeRegister(const Json& params) {
    const std::string w = "params";
    RegisterParams p;
    p.rm = asString(requireField(params, "rm", w), w + ".rm");
    if (p.rm.empty()) {
        throw ProtocolError(w + ".rm: a resource manager name is required");
    }
    const Json& arr = requireArray(requireField(params, "classes", w), w + ".classes");
    for (size_t i = 0; i < arr.size(); ++i) {
        p.classes.push_back(decodeClassDef(arr[i], w + ".classes[" + std::to_string(i) + "]"));
    }
    return p;
}

Json encodeConnectionChanged(bool connected) {
    return Json{{"connected", connected}};
}

bool decodeConnectionChanged(const Json& params) {
    return asBool(requireField(params, "connected", "params"), "params.connected");
}

Json encodeHello(const HelloResult& r) {
    return Json{{"identity", r.identity}, {"methods", r.methods}};
}

HelloResult decodeHello(const Json& result) {
    const std::string w = "result";
    HelloResult r;
    r.identity = asString(requireField(result, "identity", w), w + ".identity");
    if (const Json* f = findField(result, "methods")) {
        const Json& arr = requireArray(*f, w + ".methods");
        for (size_t i = 0; i < arr.size(); ++i) {
            r.methods.push_back(asString(arr[i], w + ".methods[" + std::to_string(i) + "]"));
        }
    }
    return r;
}

}  // namespace znpex::proto
