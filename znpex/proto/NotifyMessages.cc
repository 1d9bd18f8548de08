#include "znpex/proto/NotifyMessages.h"

#include "znpex/proto/Base64.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::proto {

Json encodeResourcesUndefined(const ResourcesUndefined& n) {
    Json hs = Json::array();
    for (const auto& h : n.handles) {
        hs.push_back(handleToHex(h));
    }
    return Json{{"class", n.className}, {"handles", std::move(hs)}};
}

ResourcesUndefined decodeResourcesUndefined(const Json& params) {
    const std::string w = "params";
    ResourcesUndefined n;
    n.className = asString(requireField(params, "class", w), w + ".class");
    const Json& arr = requireArray(requireField(params, "handles", w), w + ".handles");
    for (size_t i = 0; i < arr.size(); ++i) {
        n.handles.push_back(handleFromHex(arr[i], w + ".handles[" + std::to_string(i) + "]"));
    }
    return n;
}

Json encodeAttributesModified(const AttributesModified& n) {
    Json j{{"class", n.className}, {"persistent", n.persistent}, {"values", encodeAttrs(n.values)}};
    if (n.hasHandle) {
        j["handle"] = handleToHex(n.handle);
    }
    return j;
}

AttributesModified decodeAttributesModified(const Json& params) {
    const std::string w = "params";
    AttributesModified n;
    n.className = asString(requireField(params, "class", w), w + ".class");
    if (const Json* f = findField(params, "handle")) {
        n.hasHandle = true;
        n.handle = handleFromHex(*f, w + ".handle");
    }
    n.persistent = asBool(requireField(params, "persistent", w), w + ".persistent");
    n.values = decodeAttrs(requireField(params, "values", w), w + ".values");
    return n;
}

Json encodePeerMessage(const PeerMessage& m) {
    return Json{{"type", m.type},
                {"subtype", m.subtype},
                {"data", base64Encode(m.data.data(), m.data.size())}};
}

PeerMessage decodePeerMessage(const Json& params) {
    const std::string w = "params";
    PeerMessage m;
    m.type = asInt32(requireField(params, "type", w), w + ".type");
    m.subtype = asInt32(requireField(params, "subtype", w), w + ".subtype");
    std::string text = asString(requireField(params, "data", w), w + ".data");
    if (text.size() / 4 * 3 > kMaxPeerMessage) {
        throw ProtocolError(w + ".data: peer message over " + std::to_string(kMaxPeerMessage) +
                            " bytes");
    }
    auto bytes = base64Decode(text);
    if (!bytes) {
        throw ProtocolError(w + ".data: expected base64 text");
    }
    m.data = std::move(*bytes);
    return m;
}

}  // namespace znpex::proto
