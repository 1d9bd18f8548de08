#include "orvnode/Request.h"

#include <cstdlib>
#include <cstring>

#include "common/SignSD.h"
#include "znhas/znhas.h"

namespace orvnode {
namespace {

constexpr int32_t kFurtherNamesTag = 1001;
constexpr uint32_t kShortReply = 7;
constexpr uint32_t kLongReply = 11;

char* dupString(const std::string& s) {
    return ::strdup(s.c_str());
}

zn_array* stringArray(const std::vector<std::string>& names) {
    zn_array* a = zn_array_new(static_cast<uint32_t>(names.size()));
    if (a == nullptr) {
        return nullptr;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        a->elements[i].ptr_char = dupString(names[i]);
        if (a->elements[i].ptr_char == nullptr) {
            zn_value_t v;
            v.ptr_array = a;
            zn_value_free(ZN_CHAR_PTR_ARRAY, v);
            return nullptr;
        }
    }
    return a;
}

sec_buffer_s keyOf(const Secret& secret) {
    return {static_cast<uint32_t>(secret.bytes().size()),
            const_cast<uint8_t*>(secret.bytes().data())};
}

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
    uint32_t count = spec.furtherNames.empty() ? 6 : 8;
    zn::SdPtr sd(zn_sd_new(count));
    if (!sd) {
        *why = "out of memory";
        return {};
    }
    zn_structured_data_element_t* e = sd->elements;
    e[0].data_type = ZN_UINT32;
    e[0].value.val_uint32 = spec.protocol;
    e[1].data_type = ZN_BINARY_PTR;
    e[1].value.ptr_binary = nullptr;
    e[2].data_type = ZN_CHAR_PTR;
    e[2].value.ptr_char = dupString(spec.hostname);
    e[3].data_type = ZN_UINT64;
    e[3].value.val_uint64 = spec.nodeId;
    e[4].data_type = ZN_CHAR_PTR;
    e[4].value.ptr_char = dupString(spec.mtms);
    e[5].data_type = ZN_BINARY_PTR;
    e[5].value.ptr_binary =
        zn_binary_new(spec.token.data(), static_cast<uint32_t>(spec.token.size()));
    if (count == 8) {
        e[6].data_type = ZN_INT32;
        e[6].value.val_int32 = kFurtherNamesTag;
        e[7].data_type = ZN_CHAR_PTR_ARRAY;
        e[7].value.ptr_array = stringArray(spec.furtherNames);
    }
    if (e[2].value.ptr_char == nullptr || e[4].value.ptr_char == nullptr ||
        e[5].value.ptr_binary == nullptr || (count == 8 && e[7].value.ptr_array == nullptr)) {
        *why = "out of memory";
        return {};
    }
    sec_buffer_s key = keyOf(secret);
    sec_buffer_s signature{0, nullptr};
    if (int rc = WEX_COMMON::signSD(e + 2, 4, &key, &signature); rc != 0) {
        *why = "the request could not be signed (code " + std::to_string(rc) + ")";
        return {};
    }
    zn_binary* bin = nullptr;
    unsigned rc = WEX_COMMON::sec2binary(&signature, bin);
    sec_release_buffer(&signature);
    if (rc != 0) {
        *why = "out of memory";
        return {};
    }
    e[1].value.ptr_binary = bin;
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
    // verifySD takes non-const elements; it only reads them.
    auto* signedPart = const_cast<zn_structured_data_element_t*>(e + 1);
    sec_buffer_s signature{};
    WEX_COMMON::binary2sec(e[0].value.ptr_binary, &signature);
    sec_buffer_s key = keyOf(secret);
    if (unsigned rc = WEX_COMMON::verifySD(signedPart, 2, &key, &signature); rc != 0) {
        *why = "the reply's signature does not match this frame's secret (code " +
               std::to_string(rc) +
               "): the server has another secret for this frame, or the reply was altered";
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
