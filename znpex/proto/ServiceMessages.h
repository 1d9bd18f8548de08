// Method names of the service and the params/results of its own methods:
// session start, the resource manager's registration, the connection-state
// notice to a manager and the TCP handshake slot. Decoders throw
// ProtocolError. Thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMClassDef.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

// Client methods.
inline constexpr char kSessionStart[] = "session.start";
inline constexpr char kSessionEnd[] = "session.end";
inline constexpr char kClassList[] = "class.list";
inline constexpr char kServiceRefreshAcl[] = "service.refreshAcl";
inline constexpr char kServiceStatus[] = "service.status";
inline constexpr char kAuthHello[] = "auth.hello";
// Resource manager methods (local socket only).
inline constexpr char kRmRegister[] = "rm.register";
// Notifications from a resource manager.
inline constexpr char kNotifyResourcesUndefined[] = "notify.resourcesUndefined";
inline constexpr char kNotifyAttributesModified[] = "notify.attributesModified";
inline constexpr char kPeerSend[] = "peer.send";
// Notifications to a resource manager.
inline constexpr char kPeerReceived[] = "peer.received";
inline constexpr char kRmConnectionChanged[] = "rm.connectionChanged";

// Identities the service gives.
inline constexpr char kUnauthenticated[] = "UNAUTHENT";
inline constexpr char kLocalHost[] = "LOCALHOST";

struct SessionStartParams {
    uint32_t options = 0;
    std::string client;
};
Json encodeSessionStart(const SessionStartParams& p);
SessionStartParams decodeSessionStart(const Json& params);

struct SessionStartResult {
    uint64_t session = 0;
    std::string identity;
};
Json encodeSessionStarted(const SessionStartResult& r);
SessionStartResult decodeSessionStarted(const Json& result);

struct RegisterParams {
    std::string rm;
    std::vector<tarn_rmf2v::RMClassDef> classes;
};
Json encodeRegister(const RegisterParams& p);
RegisterParams decodeRegister(const Json& params);

// "rm.connectionChanged" {"connected": bool}.
Json encodeConnectionChanged(bool connected);
bool decodeConnectionChanged(const Json& params);

// "auth.hello" result.
struct HelloResult {
    std::string identity;
    std::vector<std::string> methods;
};
Json encodeHello(const HelloResult& r);
HelloResult decodeHello(const Json& result);

}  // namespace znpex::proto
