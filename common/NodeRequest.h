// A node's request to be managed ("RequestNodeManagement" of
// "Kor.NodeAuthenticate"), built as the server expects it: protocol,
// signature over elements 2 to 5 made with the frame's secret key (signed
// protocols; the unsigned ones carry an empty binary), host name, universal
// id, MTMS, the node's host token, then the optional tagged name lists.
// Used by whatever speaks for a node: its agent, tests, benchmarks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/security/sec_message.h"
#include "platform/zn_owned.h"

namespace WEX_COMMON {

struct NodeRequestSpec {
    uint32_t protocol = 512;
    std::string hostname;
    uint64_t universalId = 0;
    std::string mtms;
    std::vector<uint8_t> token;          // the node's public host token
    std::vector<uint8_t> frameKey;       // signs the signed protocols
    std::vector<std::string> ownNames;   // tag 1001
    std::vector<std::string> seenNames;  // tag 1000
};

// The request, or null when memory ran out or signing failed.
zn::SdPtr makeNodeRequest(const NodeRequestSpec& spec);

// Checks a reply's signature (element 0 over elements 1 and 2) with the
// frame key: true when it holds.
bool verifyNodeReply(const zn_structured_data* reply, const std::vector<uint8_t>& frameKey);

}  // namespace WEX_COMMON
