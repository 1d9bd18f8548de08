#include "znpex/server/PeerMessages.h"

#include <optional>

#include "znhas/sec_proof.h"
#include "znpex/proto/Base64.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::server {

using proto::Json;

namespace {

// Longest base64 field taken from a peer (a 2048-bit signature is 344 characters).
constexpr size_t kMaxBase64 = 1024;

std::string hostName(const Json& j, const std::string& where) {
    std::string s = proto::asString(j, where);
    if (!validPeerName(s)) {
        throw proto::ProtocolError(where + ": expected a host name of 1 to " +
                                   std::to_string(kMaxHostName) +
                                   " letters, digits, '.', '-', '_' or ':'");
    }
    return s;
}

std::vector<uint8_t> bytes(const Json& j, const std::string& where, size_t min, size_t max) {
    std::string text = proto::asString(j, where);
    std::optional<std::vector<unsigned char>> b;
    if (text.size() <= kMaxBase64) {
        b = proto::base64Decode(text);
    }
    if (!b || b->size() < min || b->size() > max) {
        throw proto::ProtocolError(where + ": expected base64 of " + std::to_string(min) + " to " +
                                   std::to_string(max) + " bytes");
    }
    return std::vector<uint8_t>(b->begin(), b->end());
}

std::string base64(const std::vector<uint8_t>& b) {
    return proto::base64Encode(b.data(), b.size());
}

}  // namespace

bool validPeerName(const std::string& name) {
    return proto::validHostName(name);
}

Json encodePeerHello(const PeerHello& h) {
    return Json{{"host", h.host},
                {"nodeId", proto::decimal(h.nodeId)},
                {"to", h.to},
                {"nonce", base64(h.nonce)}};
}

PeerHello decodePeerHello(const Json& params) {
    const std::string w = "params";
    proto::requireObject(params, w);
    PeerHello h;
    h.host = hostName(proto::requireField(params, "host", w), w + ".host");
    h.nodeId = proto::asDecimalUInt64(proto::requireField(params, "nodeId", w), w + ".nodeId");
    h.to = hostName(proto::requireField(params, "to", w), w + ".to");
    h.nonce = bytes(proto::requireField(params, "nonce", w), w + ".nonce", znhas::kProofNonceBytes,
                    znhas::kProofNonceBytes);
    return h;
}

Json encodePeerChallenge(const PeerChallenge& c) {
    return Json{
        {"challenge", base64(c.challenge)}, {"host", c.host}, {"nodeId", proto::decimal(c.nodeId)}};
}

PeerChallenge decodePeerChallenge(const Json& result) {
    const std::string w = "result";
    proto::requireObject(result, w);
    PeerChallenge c;
    c.challenge = bytes(proto::requireField(result, "challenge", w), w + ".challenge",
                        znhas::kProofNonceBytes, znhas::kProofNonceBytes);
    c.host = hostName(proto::requireField(result, "host", w), w + ".host");
    c.nodeId = proto::asDecimalUInt64(proto::requireField(result, "nodeId", w), w + ".nodeId");
    return c;
}

Json encodePeerProve(const PeerProve& p) {
    return Json{{"signature", base64(p.signature)}};
}

PeerProve decodePeerProve(const Json& params) {
    const std::string w = "params";
    proto::requireObject(params, w);
    PeerProve p;
    p.signature = bytes(proto::requireField(params, "signature", w), w + ".signature", 1,
                        znhas::kMaxProofSignature);
    return p;
}

Json encodePeerHelloResult(const PeerHelloResult& r) {
    return Json{{"identity", r.identity},
                {"host", r.host},
                {"nodeId", proto::decimal(r.nodeId)},
                {"signature", base64(r.signature)}};
}

PeerHelloResult decodePeerHelloResult(const Json& result) {
    const std::string w = "result";
    proto::requireObject(result, w);
    PeerHelloResult r;
    r.identity = proto::asString(proto::requireField(result, "identity", w), w + ".identity");
    r.host = hostName(proto::requireField(result, "host", w), w + ".host");
    r.nodeId = proto::asDecimalUInt64(proto::requireField(result, "nodeId", w), w + ".nodeId");
    r.signature = bytes(proto::requireField(result, "signature", w), w + ".signature", 1,
                        znhas::kMaxProofSignature);
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
