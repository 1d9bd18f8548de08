// Fuzz target for everything the service and clients decode from a peer: the
// byte stream is cut into frames (small cap, the first byte chooses where the
// input is split), each payload is read as a JSON-RPC message and handed to
// the decoder its method or shape calls for. Only ProtocolError may escape a
// decoder; whatever decodes must encode again and decode to the same JSON.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCheck.h"
#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/Frame.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/proto/ValueCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace znpex::proto;

using fuzzsupport::check;

void decodeParams(const RpcMessage& m) {
    if (auto op = opFromRmMethod(m.method)) {
        std::string identity;
        tarn_rmf2v::RMRequest r = decodeRequestParams(*op, m.params, &identity);
        Json again = encodeRequestParams(r, identity);
        tarn_rmf2v::RMRequest r2 = decodeRequestParams(*op, again, &identity);
        check(encodeRequestParams(r2, identity) == again, "request re-encoding");
    } else if (m.method == kRmRegister) {
        RegisterParams p = decodeRegister(m.params);
        check(decodeRegister(encodeRegister(p)).classes.size() == p.classes.size(), "register");
    } else if (m.method == kSessionStart) {
        decodeSessionStart(m.params);
    } else if (m.method == kNotifyResourcesUndefined) {
        decodeResourcesUndefined(m.params);
    } else if (m.method == kNotifyAttributesModified) {
        AttributesModified a = decodeAttributesModified(m.params);
        check(encodeAttributesModified(decodeAttributesModified(encodeAttributesModified(a))) ==
                  encodeAttributesModified(a),
              "attributes modified");
    } else if (m.method == kPeerSend || m.method == kPeerReceived) {
        decodePeerMessage(m.params);
    } else if (m.method == kRmConnectionChanged) {
        decodeConnectionChanged(m.params);
    } else if (m.params.is_object()) {
        if (const Json* v = findField(m.params, "value")) {
            zn::OwnedValue val = decodeValue(*v, "value");
            Json again = encodeValue(val.type(), val.value());
            zn::OwnedValue val2 = decodeValue(again, "value");
            check(encodeValue(val2.type(), val2.value()) == again, "value re-encoding");
        }
    }
}

void decodeResult(const RpcMessage& m) {
    if (m.result.is_array()) {
        decodeClassList(m.result);
    } else if (m.result.is_object() && m.result.contains("session")) {
        decodeSessionStarted(m.result);
    } else {
        tarn_rmf2v::RMReply r = decodeReply(m.result);
        Json again = encodeReply(r);
        check(encodeReply(decodeReply(again)) == again, "reply re-encoding");
    }
}

void handle(const std::string& payload) {
    try {
        RpcMessage m = parseMessage(payload);
        switch (m.kind) {
            case RpcMessage::Kind::Request:
            case RpcMessage::Kind::Notification:
                decodeParams(m);
                break;
            case RpcMessage::Kind::Result:
                decodeResult(m);
                break;
            case RpcMessage::Kind::Error:
                if (!m.errorData.is_null()) {
                    zn::ErrorPtr e = decodeError(m.errorData, "error.data");
                    (void)cu_error_text(e.get());
                }
                break;
        }
    } catch (const ProtocolError&) {
        // Refused input is the expected outcome for most of the space.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    size_t split = data[0];
    ++data;
    --size;
    FrameDecoder decoder(64 * 1024);
    try {
        size_t first = split < size ? split : size;
        for (auto& f : decoder.feed(data, first)) {
            handle(f);
        }
        for (auto& f : decoder.feed(data + first, size - first)) {
            handle(f);
        }
    } catch (const ProtocolError&) {
        check(decoder.failed(), "oversize frame leaves the decoder failed");
    }
    return 0;
}
