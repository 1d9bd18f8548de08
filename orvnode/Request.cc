#include "orvnode/Request.h"

#include "common/NodeRequest.h"
#include "znhas/znhas.h"

namespace orvnode {
namespace {

constexpr uint32_t kShortReply = 7;
constexpr uint32_t kLongReply = 11;

}  // namespace

bool signedProtocol(uint32_t protocol) {
    return protocol == 512 || protocol == 513 || protocol == 514;
}

zn::SdPtr buildRequest(const RequestSpec& spec, const Secret& secret, std::string* why) {
    if (!signedProtocol(spec.protocol)) {
        *why = "protocol " + std::to_string(spec.protocol) + " is not one of 512, 513, 514";
        return {};
    }
    if (spec.hostname.empty() || spec.nodeId == 0 || spec.mtms.empty() || spec.token.empty() ||
        secret.empty()) {
        *why = "the host name, node id, MTMS, host token and secret must all be given";
        return {};
    }
    // The layout and signing are the ones every speaker for a node uses.
    WEX_COMMON::NodeRequestSpec n;
    n.protocol = spec.protocol;
    n.hostname = spec.hostname;
    n.universalId = spec.nodeId;
    n.mtms = spec.mtms;
    n.token = spec.token;
    n.frameKey = secret.bytes();
    n.ownNames = spec.furtherNames;
    zn::SdPtr sd = WEX_COMMON::makeNodeRequest(n);
    wipeBytes(n.frameKey);
    if (!sd) {
        *why = "the request could not be made (out of memory, or signing failed)";
    }
    return sd;
}

bool checkReply(const zn_structured_data* reply, uint32_t protocol, const Secret& secret,
                ServerReply* out, std::string* why) {
    uint32_t want = protocol == 512 ? kShortReply : kLongReply;
    if (reply == nullptr || reply->element_count < want) {
        *why = "the reply has " + std::to_string(reply == nullptr ? 0 : reply->element_count) +
               " elements, not " + std::to_string(want);
        return false;
    }
    const zn_structured_data_element_t* e = reply->elements;
    if (e[0].data_type != ZN_BINARY_PTR || e[0].value.ptr_binary == nullptr ||
        e[1].data_type != ZN_UINT64 || e[2].data_type != ZN_BINARY_PTR ||
        e[2].value.ptr_binary == nullptr || e[2].value.ptr_binary->length == 0) {
        *why = "the reply's signature, node id or host token is missing or of the wrong type";
        return false;
    }
    if (!WEX_COMMON::verifyNodeReply(reply, secret.bytes())) {
        *why =
            "the reply's signature does not match this frame's secret: the server has another "
            "secret for this frame, or the reply was altered";
        return false;
    }
    const zn_binary* token = e[2].value.ptr_binary;
    sec_buffer_s tokenBuffer{token->length, const_cast<unsigned char*>(token->data)};
    int keylen = 0;
    sec_host_token_t parsed = nullptr;
    if (sec_parse_host_token(&tokenBuffer, &keylen, &parsed) != 0) {
        *why = "the reply's host token is not a usable host key";
        return false;
    }
    sec_release_parsed_token(&parsed);
    out->nodeId = e[1].value.val_uint64;
    out->token.assign(token->data, token->data + token->length);
    out->names.clear();
    if (want == kLongReply && e[8].data_type == ZN_CHAR_PTR_ARRAY &&
        e[8].value.ptr_array != nullptr) {
        const zn_array* names = e[8].value.ptr_array;
        for (uint32_t i = 0; i < names->array_cnt; ++i) {
            if (names->elements[i].ptr_char != nullptr && *names->elements[i].ptr_char != '\0') {
                out->names.emplace_back(names->elements[i].ptr_char);
            }
        }
    }
    return true;
}

}  // namespace orvnode
