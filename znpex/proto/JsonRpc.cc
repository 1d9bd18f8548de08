#include "znpex/proto/JsonRpc.h"

#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/JsonScan.h"

namespace znpex::proto {
namespace {

bool validId(const Json& id) {
    return id.is_null() || id.is_string() || id.is_number_integer();
}

[[noreturn]] void invalid(const std::string& why, const Json& id) {
    throw ProtocolError("invalid message: " + why, kInvalidRequest, validId(id) ? id : Json());
}

}  // namespace

RpcMessage parseMessage(std::string_view payload) {
    Json j = parseJson(payload);
    if (!j.is_object()) {
        invalid("not a JSON object", nullptr);
    }
    Json id;
    const Json* idField = findField(j, "id");
    if (idField != nullptr) {
        id = *idField;
        if (!validId(id)) {
            invalid("\"id\" must be a string, an integer or null", nullptr);
        }
    }
    const Json* version = findField(j, "jsonrpc");
    if (version == nullptr || *version != "2.0") {
        invalid("\"jsonrpc\" must be \"2.0\"", id);
    }
    RpcMessage m;
    m.id = id;
    if (const Json* method = findField(j, "method")) {
        if (!method->is_string()) {
            invalid("\"method\" must be a string", id);
        }
        m.method = method->get<std::string>();
        m.kind = idField != nullptr ? RpcMessage::Kind::Request : RpcMessage::Kind::Notification;
        if (const Json* params = findField(j, "params")) {
            if (!params->is_object() && !params->is_array()) {
                invalid("\"params\" must be an object or an array", id);
            }
            m.params = std::move(j["params"]);  // j is ours: moved, not copied
        }
        return m;
    }
    if (idField == nullptr) {
        invalid("neither a request nor a reply", nullptr);
    }
    const Json* result = findField(j, "result");
    const Json* error = findField(j, "error");
    if ((result != nullptr) == (error != nullptr)) {
        invalid("a reply has exactly one of \"result\" and \"error\"", id);
    }
    if (result != nullptr) {
        m.kind = RpcMessage::Kind::Result;
        m.result = std::move(j["result"]);
        return m;
    }
    m.kind = RpcMessage::Kind::Error;
    const Json* code = findField(*error, "code");
    const Json* message = findField(*error, "message");
    if (!error->is_object() || code == nullptr || !code->is_number_integer() ||
        message == nullptr || !message->is_string()) {
        invalid("\"error\" needs an integer \"code\" and a string \"message\"", id);
    }
    m.errorCode = asInt32(*code, "error.code");
    m.errorMessage = message->get<std::string>();
    if (findField(*error, "data") != nullptr) {
        m.errorData = std::move(j["error"]["data"]);
    }
    return m;
}

Json makeRequest(const Json& id, const std::string& method, Json params) {
    Json j{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) {
        j["params"] = std::move(params);
    }
    return j;
}

Json makeNotification(const std::string& method, Json params) {
    Json j{{"jsonrpc", "2.0"}, {"method", method}};
    if (!params.is_null()) {
        j["params"] = std::move(params);
    }
    return j;
}

Json makeResult(const Json& id, Json result) {
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}};
}

Json makeError(const Json& id, int code, const std::string& message, Json data) {
    Json e{{"code", code}, {"message", message}};
    if (!data.is_null()) {
        e["data"] = std::move(data);
    }
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(e)}};
}

Json makeErrorFrom(const Json& id, int code, const cu_error_t& err) {
    std::string text = cu_error_text(&err);
    return makeError(id, code, text.empty() ? rpcCodeText(code) : text, encodeError(err));
}

const char* rpcCodeText(int code) {
    switch (code) {
        case kParseError:
            return "parse error";
        case kInvalidRequest:
            return "invalid request";
        case kMethodNotFound:
            return "method not found";
        case kInvalidParams:
            return "invalid params";
        case kInternalError:
            return "internal error";
        case kOperationFailed:
            return "operation failed";
        case kPermissionDenied:
            return "permission denied";
        case kNotConnected:
            return "resource manager not connected";
        default:
            return "error";
    }
}

bool scanNotification(std::string_view payload, std::string_view method,
                      const std::function<bool(JsonScan&)>& params) {
    JsonScan s(payload);
    std::string_view k;
    std::string_view text;
    unsigned seen = 0;
    if (!s.beginObject()) {
        return false;
    }
    while (s.nextKey(k)) {
        unsigned bit = k == "jsonrpc" ? 1 : k == "method" ? 2 : k == "params" ? 4 : 0;
        if (bit == 0 || (seen & bit) != 0) {
            return false;  // an id, or anything else: the general road
        }
        seen |= bit;
        bool ok = bit == 1   ? s.string(text) && text == "2.0"
                  : bit == 2 ? s.string(text) && text == method
                             : params(s);
        if (!ok) {
            return false;
        }
    }
    return s.end() && seen == 7;
}

}  // namespace znpex::proto
