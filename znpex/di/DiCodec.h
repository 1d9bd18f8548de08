// The JSON forms of the distributed-information tables on the wire: a
// transaction ("di.refresh", "di.replicate" params), the node and node-group
// tables ("di.nodes", "di.groups" results) and the heartbeat tuning. Node ids
// travel as decimal strings (64 bits). Decoders throw proto::ProtocolError
// naming the field; they enforce the same limits as the store. Thread-safe.
#pragma once

#include <vector>

#include "znpex/di/DiTypes.h"
#include "znpex/proto/Json.h"

namespace znpex::di {

// Method names.
inline constexpr char kDiRefresh[] = "di.refresh";
inline constexpr char kDiTuneHeartbeat[] = "di.tuneHeartbeat";
inline constexpr char kDiNodes[] = "di.nodes";
inline constexpr char kDiGroups[] = "di.groups";
inline constexpr char kDiWatch[] = "di.watch";
// Notification to watchers after a change: {"version", "nodes", "groups"}
// (the two booleans say which table changed).
inline constexpr char kDiChanged[] = "di.changed";

proto::Json encodeTransaction(const Transaction& t);
Transaction decodeTransaction(const proto::Json& params);

proto::Json encodeNodes(const std::vector<NodeEntry>& nodes);
std::vector<NodeEntry> decodeNodes(const proto::Json& result);
proto::Json encodeGroups(const std::vector<GroupEntry>& groups);
std::vector<GroupEntry> decodeGroups(const proto::Json& result);

// {"frequency", "sensitivity"} plus, when set, "rm", "server",
// "serverNodeId" (decimal) and "serverAddresses". The decoder checks names
// and lists against the table limits; `where` names the object in errors.
proto::Json encodeHeartbeat(const Heartbeat& h);
Heartbeat decodeHeartbeat(const proto::Json& params, const std::string& where = "params");

}  // namespace znpex::di
