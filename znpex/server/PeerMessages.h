// Params and results of the methods one host's service sends to another's
// over a peer link: "peer.hello" (the link's first request, naming the
// sending host), "peer.deliver" (a manager's peer message for the manager of
// the same name there) and "di.replicate" (node and node-group tables).
// Decoders throw ProtocolError. Thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "znpex/proto/Json.h"
#include "znpex/proto/NotifyMessages.h"

namespace znpex::server {

inline constexpr char kPeerHello[] = "peer.hello";
inline constexpr char kPeerDeliver[] = "peer.deliver";
inline constexpr char kDiReplicate[] = "di.replicate";

// Host names travel bounded.
inline constexpr size_t kMaxHostName = 255;

// "peer.hello" {"host", "nodeId": decimal text}. A signature over a
// challenge can join these fields later; receivers ignore fields they do
// not know.
struct PeerHello {
    std::string host;
    uint64_t nodeId = 0;
};
proto::Json encodePeerHello(const PeerHello& h);
PeerHello decodePeerHello(const proto::Json& params);

// Its result: the identity the receiving service gave the link, and who
// answered.
struct PeerHelloResult {
    std::string identity;
    std::string host;
    uint64_t nodeId = 0;
};
proto::Json encodePeerHelloResult(const PeerHelloResult& r);
PeerHelloResult decodePeerHelloResult(const proto::Json& result);

// "peer.deliver" {"rm", "type", "subtype", "data"}: the "peer.send" fields
// plus the manager's name.
struct PeerDeliver {
    std::string rm;
    proto::PeerMessage message;
};
proto::Json encodePeerDeliver(const PeerDeliver& d);
PeerDeliver decodePeerDeliver(const proto::Json& params);

}  // namespace znpex::server
