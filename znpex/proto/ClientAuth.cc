#include "znpex/proto/ClientAuth.h"

#include <cctype>
#include <optional>

#include "znhas/sec_proof.h"
#include "znpex/proto/Base64.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {

namespace {

constexpr size_t kMaxHostName = 255;
// Longest base64 field taken (a 4096-bit signature is 684 characters).
constexpr size_t kMaxBase64 = 1024;

std::string hostField(const Json& j, const std::string& where) {
    std::string s = asString(j, where);
    if (!validHostName(s)) {
        throw ProtocolError(where + ": expected a host name of 1 to " +
                            std::to_string(kMaxHostName) +
                            " letters, digits, '.', '-', '_' or ':'");
    }
    return s;
}

std::vector<uint8_t> bytesField(const Json& j, const std::string& where, size_t min, size_t max) {
    std::string text = asString(j, where);
    std::optional<std::vector<unsigned char>> b;
    if (text.size() <= kMaxBase64) {
        b = base64Decode(text);
    }
    if (!b || b->size() < min || b->size() > max) {
        throw ProtocolError(where + ": expected base64 of " + std::to_string(min) + " to " +
                            std::to_string(max) + " bytes");
    }
    return std::vector<uint8_t>(b->begin(), b->end());
}

}  // namespace

bool validHostName(const std::string& name) {
    if (name.empty() || name.size() > kMaxHostName || name[0] == '.' || name[0] == '-') {
        return false;
    }
    for (unsigned char ch : name) {
        if (!std::isalnum(ch) && ch != '.' && ch != '-' && ch != '_' && ch != ':') {
            return false;
        }
    }
    return true;
}

Json encodeAuthHello(const AuthHello& h) {
    Json j = Json::object();
    if (!h.host.empty()) {
        j["host"] = h.host;
        j["to"] = h.to;
    }
    return j;
}

AuthHello decodeAuthHello(const Json& params) {
    AuthHello h;
    if (params.is_null()) {
        return h;
    }
    const std::string w = "params";
    requireObject(params, w);
    if (findField(params, "host") == nullptr) {
        return h;
    }
    h.host = hostField(requireField(params, "host", w), w + ".host");
    h.to = hostField(requireField(params, "to", w), w + ".to");
    return h;
}

Json encodeAuthChallenge(const AuthChallenge& c) {
    Json j{{"identity", c.identity}, {"methods", c.methods}};
    if (!c.host.empty()) {
        j["host"] = c.host;
    }
    if (!c.challenge.empty()) {
        j["challenge"] = base64Encode(c.challenge.data(), c.challenge.size());
    }
    return j;
}

AuthChallenge decodeAuthChallenge(const Json& result) {
    const std::string w = "result";
    requireObject(result, w);
    AuthChallenge c;
    c.identity = asString(requireField(result, "identity", w), w + ".identity");
    if (const Json* f = findField(result, "methods")) {
        const Json& arr = requireArray(*f, w + ".methods");
        for (size_t i = 0; i < arr.size(); ++i) {
            c.methods.push_back(asString(arr[i], w + ".methods[" + std::to_string(i) + "]"));
        }
    }
    if (const Json* f = findField(result, "host")) {
        c.host = hostField(*f, w + ".host");
    }
    if (const Json* f = findField(result, "challenge")) {
        c.challenge =
            bytesField(*f, w + ".challenge", znhas::kProofNonceBytes, znhas::kProofNonceBytes);
    }
    return c;
}

Json encodeAuthProve(const std::vector<uint8_t>& signature) {
    return Json{{"signature", base64Encode(signature.data(), signature.size())}};
}

std::vector<uint8_t> decodeAuthProve(const Json& params) {
    const std::string w = "params";
    requireObject(params, w);
    return bytesField(requireField(params, "signature", w), w + ".signature", 1,
                      znhas::kMaxProofSignature);
}

}  // namespace znpex::proto
