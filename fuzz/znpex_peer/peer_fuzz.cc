// Fuzz target for what one host's service reads from another's: the peer
// greeting ("peer.hello", its challenge, "peer.prove", its result), delivered
// peer messages, and the replicated node and node-group tables. The first
// byte picks the decoder, the rest is JSON text. Only ProtocolError may escape
// a decoder; whatever decodes must encode again and decode to the same JSON.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "fuzz/FuzzCheck.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/Json.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/PeerMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using znpex::proto::Json;

using fuzzsupport::check;

// Decodes, re-encodes, and checks the second round gives the same JSON.
template <class Decode, class Encode>
void roundTrip(const Json& j, Decode decode, Encode encode, const char* what) {
    Json once = encode(decode(j));
    check(encode(decode(once)) == once, what);
}

void decode(uint8_t which, const Json& j) {
    using namespace znpex::server;
    namespace di = znpex::di;
    switch (which % 9) {
        case 0:
            roundTrip(j, decodePeerHello, encodePeerHello, "peer.hello");
            break;
        case 1:
            roundTrip(j, decodePeerChallenge, encodePeerChallenge, "challenge");
            break;
        case 2:
            roundTrip(j, decodePeerProve, encodePeerProve, "peer.prove");
            break;
        case 3:
            roundTrip(j, decodePeerHelloResult, encodePeerHelloResult, "hello result");
            break;
        case 4:
            roundTrip(j, decodePeerDeliver, encodePeerDeliver, "peer.deliver");
            break;
        case 5:
            roundTrip(j, di::decodeTransaction, di::encodeTransaction, "transaction");
            break;
        case 6:
            roundTrip(j, di::decodeNodes, di::encodeNodes, "node table");
            break;
        case 7:
            roundTrip(j, di::decodeGroups, di::encodeGroups, "group table");
            break;
        default:
            roundTrip(
                j, [](const Json& p) { return di::decodeHeartbeat(p); }, di::encodeHeartbeat,
                "heartbeat");
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    uint8_t which = data[0];
    std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    try {
        decode(which, znpex::proto::parseJson(text));
    } catch (const znpex::proto::ProtocolError&) {
        // Refused input is the expected outcome for most of the space.
    }
    return 0;
}
