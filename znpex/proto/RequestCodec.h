// The resource-manager requests and replies on the wire. A request is the
// JSON-RPC method "rm.<operation name>" with params {"class", "handle"?,
// "handles"?, "ids"?, "values"?, "monitoring"?, "actionId"?, "input"?,
// "selection"?, "matchSetId"?, "nodeIds"?, "offlineOptions"?, "acl"?,
// "identity"?}; a reply is the result {"error"?, "values", "items",
// "handles", "newHandle"?, "actionData", "acl"?}. Clients, the service and
// resource managers all use these functions, in both directions. Decoders
// throw ProtocolError. Thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tarn_rmf2v/RMReply.h"
#include "tarn_rmf2v/RMRequest.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

inline constexpr char kRmMethodPrefix[] = "rm.";

// "rm.enumerateResources" and back; nothing for a name that is no operation.
std::string rmMethod(tarn_rmf2v::RMRequestOp op);
std::optional<tarn_rmf2v::RMRequestOp> opFromRmMethod(std::string_view method);
// Every operation, in declaration order (for tables and tests).
const std::vector<tarn_rmf2v::RMRequestOp>& allRequestOps();

// identity: added when not empty (the service does so when forwarding).
Json encodeRequestParams(const tarn_rmf2v::RMRequest& r, const std::string& identity = {});
// Resource operations require "handle"; every present field is validated.
// identity, when given, receives params.identity ("" when absent).
tarn_rmf2v::RMRequest decodeRequestParams(tarn_rmf2v::RMRequestOp op, const Json& params,
                                          std::string* identity = nullptr);

Json encodeReply(const tarn_rmf2v::RMReply& r);
// The result marks the reply completed.
tarn_rmf2v::RMReply decodeReply(const Json& result);

}  // namespace znpex::proto
