// The one exception of the protocol codecs: input from the wire that is not
// what the protocol allows (bad frame, bad JSON, wrong type, out of range),
// or a value of ours that cannot be encoded. Carries the JSON-RPC error code
// to answer with and, when known, the id of the request it concerns.
#pragma once

#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace znpex::proto {

// JSON-RPC error codes used on the wire.
inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternalError = -32603;
inline constexpr int kOperationFailed = -32001;
inline constexpr int kPermissionDenied = -32003;
inline constexpr int kNotConnected = -32004;

class ProtocolError : public std::runtime_error {
public:
    explicit ProtocolError(const std::string& what, int code = kInvalidParams,
                           nlohmann::json id = nullptr)
        : std::runtime_error(what), code_(code), id_(std::move(id)) {}
    int code() const { return code_; }
    // The request id, or null when unknown (or a notification).
    const nlohmann::json& id() const { return id_; }

private:
    int code_;
    nlohmann::json id_;
};

}  // namespace znpex::proto
