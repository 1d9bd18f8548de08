// JSON-RPC 2.0 envelopes: building requests, notifications, results and
// errors, and reading any incoming payload into an RpcMessage. One message
// per frame; batches are not part of the protocol. parseMessage throws
// ProtocolError with -32700 (not JSON) or -32600 (not a valid message), and
// carries the id when one could be read so the error reply can name it.
// Pure functions, thread-safe.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/cu_error.h"
#include "znpex/proto/Json.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {

struct RpcMessage {
    enum class Kind { Request, Notification, Result, Error };
    Kind kind = Kind::Request;
    Json id;             // requests and replies (null for an error without id)
    std::string method;  // requests and notifications
    Json params;         // object or array; null when absent
    Json result;         // results
    int errorCode = 0;   // errors
    std::string errorMessage;
    Json errorData;  // null when absent
};

RpcMessage parseMessage(std::string_view payload);

class JsonScan;
// The plain notification `method` read without a Json tree: exactly the
// members "jsonrpc" ("2.0"), "method" and "params", in any order, with
// `params` reading the params. False for any other text (the caller takes
// the general road); never throws ProtocolError.
bool scanNotification(std::string_view payload, std::string_view method,
                      const std::function<bool(JsonScan&)>& params);

Json makeRequest(const Json& id, const std::string& method, Json params);
Json makeNotification(const std::string& method, Json params);
Json makeResult(const Json& id, Json result);
// data null: no "data" member.
Json makeError(const Json& id, int code, const std::string& message, Json data = nullptr);
// An error reply carrying a platform error (as "data"); message is its text.
Json makeErrorFrom(const Json& id, int code, const cu_error_t& err);

// The standard message of a JSON-RPC error code.
const char* rpcCodeText(int code);

}  // namespace znpex::proto
