#include "common/NodeRequest.h"

#include <cstdlib>
#include <cstring>

#include "common/SignSD.h"

namespace WEX_COMMON {
namespace {

bool setNames(zn_structured_data_element_t& e, const std::vector<std::string>& names) {
    e.data_type = ZN_CHAR_PTR_ARRAY;
    e.value.ptr_array = zn_array_new(static_cast<uint32_t>(names.size()));
    if (e.value.ptr_array == nullptr) {
        e.data_type = ZN_UNKNOWN;
        return false;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        e.value.ptr_array->elements[i].ptr_char = strdup(names[i].c_str());
        if (e.value.ptr_array->elements[i].ptr_char == nullptr) {
            return false;
        }
    }
    return true;
}

}  // namespace

zn::SdPtr makeNodeRequest(const NodeRequestSpec& spec) {
    uint32_t count = 6;
    count += spec.ownNames.empty() ? 0 : 2;
    count += spec.seenNames.empty() ? 0 : 2;
    zn::SdPtr rq(zn_sd_new(count));
    if (!rq) {
        return rq;
    }
    zn_structured_data_element_t* e = rq->elements;
    e[0].data_type = ZN_UINT32;
    e[0].value.val_uint32 = spec.protocol;
    e[1].data_type = ZN_BINARY_PTR;
    e[1].value.ptr_binary = zn_binary_new(nullptr, 0);
    e[2].data_type = ZN_CHAR_PTR;
    e[2].value.ptr_char = strdup(spec.hostname.c_str());
    e[3].data_type = ZN_UINT64;
    e[3].value.val_uint64 = spec.universalId;
    e[4].data_type = ZN_CHAR_PTR;
    e[4].value.ptr_char = strdup(spec.mtms.c_str());
    e[5].data_type = ZN_BINARY_PTR;
    e[5].value.ptr_binary =
        zn_binary_new(spec.token.data(), static_cast<uint32_t>(spec.token.size()));
    if (e[1].value.ptr_binary == nullptr || e[2].value.ptr_char == nullptr ||
        e[4].value.ptr_char == nullptr || e[5].value.ptr_binary == nullptr) {
        return nullptr;
    }
    uint32_t at = 6;
    if (!spec.ownNames.empty()) {
        e[at].data_type = ZN_INT32;
        e[at].value.val_int32 = 1001;
        if (!setNames(e[at + 1], spec.ownNames))
            return nullptr;
        at += 2;
    }
    if (!spec.seenNames.empty()) {
        e[at].data_type = ZN_INT32;
        e[at].value.val_int32 = 1000;
        if (!setNames(e[at + 1], spec.seenNames))
            return nullptr;
    }
    if (spec.protocol >= 512) {
        std::vector<uint8_t> key = spec.frameKey;
        sec_buffer_s k{static_cast<uint32_t>(key.size()), key.data()};
        sec_buffer_s sig{};
        int rc = signSD(&e[2], 4, &k, &sig);
        std::memset(key.data(), 0, key.size());
        if (rc != 0) {
            return nullptr;
        }
        zn_binary* b = nullptr;
        unsigned int crc = sec2binary(&sig, b);
        sec_release_buffer(&sig);
        if (crc != 0) {
            return nullptr;
        }
        std::free(e[1].value.ptr_binary);
        e[1].value.ptr_binary = b;
    }
    return rq;
}

bool verifyNodeReply(const zn_structured_data* reply, const std::vector<uint8_t>& frameKey) {
    if (reply == nullptr || reply->element_count < 3 ||
        reply->elements[0].data_type != ZN_BINARY_PTR ||
        reply->elements[0].value.ptr_binary == nullptr) {
        return false;
    }
    std::vector<uint8_t> key = frameKey;
    sec_buffer_s k{static_cast<uint32_t>(key.size()), key.data()};
    sec_buffer_s sig{};
    binary2sec(reply->elements[0].value.ptr_binary, &sig);
    unsigned int rc =
        verifySD(const_cast<zn_structured_data_element_t*>(&reply->elements[1]), 2, &k, &sig);
    std::memset(key.data(), 0, key.size());
    return rc == 0;
}

}  // namespace WEX_COMMON
