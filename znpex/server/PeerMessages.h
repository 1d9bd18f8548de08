// Params and results of the methods one host's service sends to another's
// over a peer link: "peer.hello" and "peer.prove" (the link's greeting, in
// which each host proves its host key to the other), "peer.deliver" (a
// manager's peer message for the manager of the same name there) and
// "di.replicate" (node and node-group tables).
// Decoders throw ProtocolError. Thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "znpex/proto/Json.h"
#include "znpex/proto/NotifyMessages.h"

namespace znpex::server {

inline constexpr char kPeerHello[] = "peer.hello";
inline constexpr char kPeerProve[] = "peer.prove";
inline constexpr char kPeerDeliver[] = "peer.deliver";
inline constexpr char kDiReplicate[] = "di.replicate";

// Host names travel bounded.
inline constexpr size_t kMaxHostName = 255;

// The purposes a host proof is made for, one per direction, so that a
// signature made for one can never stand for the other.
inline constexpr char kProofOfCaller[] = "znpex peer.hello";
inline constexpr char kProofOfAnswerer[] = "znpex peer.prove";

// A host name as peers may give it: 1 to 255 letters, digits, '.', '-',
// '_' or ':' (IPv6 addresses), not starting with '.' or '-'.
bool validPeerName(const std::string& name);

// "peer.hello" {"host", "nodeId": decimal, "to", "nonce": base64}: who greets
// (`host`), the name it reaches this host by (`to`), and its own challenge
// for the answering host.
struct PeerHello {
    std::string host;
    uint64_t nodeId = 0;
    std::string to;
    std::vector<uint8_t> nonce;
};
proto::Json encodePeerHello(const PeerHello& h);
PeerHello decodePeerHello(const proto::Json& params);

// Its result: the answering host's challenge, and who answered.
struct PeerChallenge {
    std::vector<uint8_t> challenge;
    std::string host;
    uint64_t nodeId = 0;
};
proto::Json encodePeerChallenge(const PeerChallenge& c);
PeerChallenge decodePeerChallenge(const proto::Json& result);

// "peer.prove" {"signature": base64}: the greeting host's proof over the challenge.
struct PeerProve {
    std::vector<uint8_t> signature;
};
proto::Json encodePeerProve(const PeerProve& p);
PeerProve decodePeerProve(const proto::Json& params);

// Its result: the identity the link has now, who answered, and the
// answering host's proof over the greeting's nonce.
struct PeerHelloResult {
    std::string identity;
    std::string host;
    uint64_t nodeId = 0;
    std::vector<uint8_t> signature;
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
