// The messages with which a TCP client proves the host it runs on: the
// client names its host in "auth.hello" and gets a fresh challenge, then
// answers it in "auth.prove" with a signature by that host's private key
// (znhas/sec_proof.h, purpose kProofOfClient). A proven connection acts as
// "root@<host>": only root can read a host's private key. Decoders throw
// ProtocolError. Thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "znpex/proto/Json.h"

namespace znpex::proto {

inline constexpr char kAuthProve[] = "auth.prove";
// What a client's signature is for; never the purpose of a peer's.
inline constexpr char kProofOfClient[] = "znpex auth.prove";
// The user a host-key proof stands for.
inline constexpr char kHostKeyUser[] = "root";
// What "auth.hello" lists among its methods when the service takes host-key proofs.
inline constexpr char kHostKeyMethod[] = "hostkey";

// A host name as a client or a peer may give it: 1 to 255 letters, digits,
// '.', '-', '_' or ':' (IPv6 addresses), not starting with '.' or '-'.
bool validHostName(const std::string& name);

// "auth.hello" {"host", "to"}: the host the client claims to run on and the
// name it reached the service by. Both absent: the client only asks what the
// service offers and stays unauthenticated.
struct AuthHello {
    std::string host;
    std::string to;
};
Json encodeAuthHello(const AuthHello& h);
AuthHello decodeAuthHello(const Json& params);

// Its result: "identity" and "methods", the name this service proves itself
// under to the other hosts' services ("host": their trusted host lists must
// hold its key under that name), and, when a host was claimed, the challenge
// to sign.
struct AuthChallenge {
    std::string identity;
    std::vector<std::string> methods;
    std::string host;                // empty: not given
    std::vector<uint8_t> challenge;  // empty: nothing to prove (no host claimed)
};
Json encodeAuthChallenge(const AuthChallenge& c);
AuthChallenge decodeAuthChallenge(const Json& result);

// "auth.prove" {"signature": base64}; its result {"identity"}.
Json encodeAuthProve(const std::vector<uint8_t>& signature);
std::vector<uint8_t> decodeAuthProve(const Json& params);

}  // namespace znpex::proto
