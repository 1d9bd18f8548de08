// Params of the notifications a resource manager sends through the service
// ("notify.resourcesUndefined", "notify.attributesModified", "peer.send") and
// of the peer message the service passes on ("peer.received", same shape as
// "peer.send"). Decoders throw ProtocolError. Thread-safe.
#pragma once

#include <string>
#include <vector>

#include "tarn_rmf2v/RMReply.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

// Peer messages are bounded well below the frame cap.
inline constexpr size_t kMaxPeerMessage = 1024u * 1024u;

struct ResourcesUndefined {
    std::string className;
    std::vector<zn_resource_handle> handles;
};
Json encodeResourcesUndefined(const ResourcesUndefined& n);
ResourcesUndefined decodeResourcesUndefined(const Json& params);

struct AttributesModified {
    std::string className;
    bool hasHandle = false;  // false: class attributes
    zn_resource_handle handle{};
    bool persistent = true;  // false: dynamic attributes
    std::vector<tarn_rmf2v::RMReplyAttr> values;
};
Json encodeAttributesModified(const AttributesModified& n);
AttributesModified decodeAttributesModified(const Json& params);

struct PeerMessage {
    int32_t type = 0;
    int32_t subtype = 0;
    std::vector<unsigned char> data;
};
Json encodePeerMessage(const PeerMessage& m);
PeerMessage decodePeerMessage(const Json& params);

}  // namespace znpex::proto
