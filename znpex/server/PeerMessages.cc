#include "znpex/server/PeerMessages.h"

#include "znpex/proto/ProtocolError.h"

namespace znpex::server {

using proto::Json;

namespace {

std::string hostName(const Json& j, const std::string& where) {
    std::string s = proto::asString(j, where);
    if (s.empty() || s.size() > kMaxHostName) {
        throw proto::ProtocolError(where + ": expected a host name of 1 to " +
                                   std::to_string(kMaxHostName) + " bytes");
    }
    return s;
}

}  // namespace

Json encodePeerHello(const PeerHello& h) {
    return Json{{"host", h.host}, {"nodeId", proto::decimal(h.nodeId)}};
}

PeerHello decodePeerHello(const Json& params) {
    const std::string w = "params";
    proto::requireObject(params, w);
    PeerHello h;
    h.host = hostName(proto::requireField(params, "host", w), w + ".host");
    h.nodeId = proto::asDecimalUInt64(proto::requireField(params, "nodeId", w), w + ".nodeId");
    return h;
}

Json encodePeerHelloResult(const PeerHelloResult& r) {
    return Json{{"identity", r.identity}, {"host", r.host}, {"nodeId", proto::decimal(r.nodeId)}};
}

PeerHelloResult decodePeerHelloResult(const Json& result) {
    const std::string w = "result";
    proto::requireObject(result, w);
    PeerHelloResult r;
    r.identity = proto::asString(proto::requireField(result, "identity", w), w + ".identity");
    r.host = hostName(proto::requireField(result, "host", w), w + ".host");
    r.nodeId = proto::asDecimalUInt64(proto::requireField(result, "nodeId", w), w + ".nodeId");
    return r;
}

Json encodePeerDeliver(const PeerDeliver& d) {
    Json j = proto::encodePeerMessage(d.message);
    j["rm"] = d.rm;
    return j;
}

PeerDeliver decodePeerDeliver(const Json& params) {
    const std::string w = "params";
    proto::requireObject(params, w);
    PeerDeliver d;
    d.rm = proto::asString(proto::requireField(params, "rm", w), w + ".rm");
    if (d.rm.empty() || d.rm.size() > kMaxHostName) {
        throw proto::ProtocolError(w + ".rm: expected a manager name of 1 to " +
                                   std::to_string(kMaxHostName) + " bytes");
    }
    d.message = proto::decodePeerMessage(params);
    return d;
}

}  // namespace znpex::server
