// The node's request to be managed and the check of the server's reply.
// The request: protocol (512 by default; 513 and 514 also ask for the
// server's names), the signature over elements 2 to 5 made with the frame's
// secret, the node's host name, its universal id, the frame's MTMS and the
// node's public host token, then the node's further names (tag 1001) when it
// has any. The reply: the signature over elements 1 and 2 (the server's node
// id and public host token) with the same secret, then tagged values; 11
// elements for 513 and 514, with the server's primary names in element 8.
// Built and checked with common/NodeRequest, as every speaker for a node
// does; this adds the node agent's own checks. Stateless and thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orvnode/Secret.h"
#include "platform/zn_owned.h"

namespace orvnode {

inline constexpr uint32_t kDefaultProtocol = 512;
bool signedProtocol(uint32_t protocol);  // 512, 513, 514

struct RequestSpec {
    uint32_t protocol = kDefaultProtocol;
    std::string hostname;
    uint64_t nodeId = 0;
    std::string mtms;
    std::vector<uint8_t> token;             // the node's public host token
    std::vector<std::string> furtherNames;  // tag 1001; none: not sent
};

// The signed request, or null with `why` (a protocol that is not signed,
// an empty field, signing failed, no memory).
zn::SdPtr buildRequest(const RequestSpec& spec, const Secret& secret, std::string* why);

// What a good reply carries.
struct ServerReply {
    uint64_t nodeId = 0;
    std::vector<uint8_t> token;      // the server's public host token
    std::vector<std::string> names;  // its primary names (513, 514), may be empty
};

// Checks the reply to a request made with `protocol`: shape, signature with
// `secret`, and that element 2 is a usable host token. False with `why`.
bool checkReply(const zn_structured_data* reply, uint32_t protocol, const Secret& secret,
                ServerReply* out, std::string* why);

}  // namespace orvnode
