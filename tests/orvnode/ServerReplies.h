// Replies as the management server makes them, for the node agent's tests:
// signature over elements 1 and 2 with the frame's secret, the server's node
// id and token, then the tagged values (11 elements for 513 and 514).
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/SignSD.h"
#include "platform/zn_owned.h"
#include "znhas/znhas.h"

namespace orvnodetest {

// A public host token of a fresh 1024-bit key (made once per process).
inline const std::vector<uint8_t>& serverToken() {
    static const std::vector<uint8_t>* token = new std::vector<uint8_t>([] {
        sec_buffer_t pvt = nullptr, pub = nullptr;
        EXPECT_EQ(sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub), 0);
        const auto* p = static_cast<const uint8_t*>(pub->value);
        std::vector<uint8_t> t(p, p + pub->length);
        sec_release_host_token(&pvt);
        sec_release_host_token(&pub);
        return t;
    }());
    return *token;
}

inline zn_array* names(const std::vector<std::string>& list) {
    zn_array* a = zn_array_new(static_cast<uint32_t>(list.size()));
    for (size_t i = 0; i < list.size(); ++i) {
        a->elements[i].ptr_char = ::strdup(list[i].c_str());
    }
    return a;
}

inline zn::SdPtr makeReply(uint32_t protocol, uint64_t nodeId, const std::vector<uint8_t>& token,
                           const std::vector<uint8_t>& secret,
                           const std::vector<std::string>& primaryNames = {}) {
    uint32_t count = protocol == 512 ? 7 : 11;
    zn::SdPtr sd(zn_sd_new(count));
    auto* e = sd->elements;
    e[1].data_type = ZN_UINT64;
    e[1].value.val_uint64 = nodeId;
    e[2].data_type = ZN_BINARY_PTR;
    e[2].value.ptr_binary = zn_binary_new(token.data(), static_cast<uint32_t>(token.size()));
    e[3].data_type = ZN_INT32;
    e[3].value.val_int32 = 10;
    e[4].data_type = ZN_CHAR_PTR;
    e[4].value.ptr_char = ::strdup("TM");
    e[5].data_type = ZN_INT32;
    e[5].value.val_int32 = 11;
    e[6].data_type = ZN_CHAR_PTR;
    e[6].value.ptr_char = ::strdup("SN");
    if (count == 11) {
        e[7].data_type = ZN_INT32;
        e[7].value.val_int32 = 9;
        e[8].data_type = ZN_CHAR_PTR_ARRAY;
        e[8].value.ptr_array = names(primaryNames);
        e[9].data_type = ZN_INT32;
        e[9].value.val_int32 = 1000;
        e[10].data_type = ZN_CHAR_PTR_ARRAY;
        e[10].value.ptr_array = names({});
    }
    sec_buffer_s key{static_cast<uint32_t>(secret.size()), const_cast<uint8_t*>(secret.data())};
    sec_buffer_s sig{0, nullptr};
    EXPECT_EQ(WEX_COMMON::signSD(e + 1, 2, &key, &sig), 0);
    zn_binary* bin = nullptr;
    EXPECT_EQ(WEX_COMMON::sec2binary(&sig, bin), 0u);
    sec_release_buffer(&sig);
    e[0].data_type = ZN_BINARY_PTR;
    e[0].value.ptr_binary = bin;
    return sd;
}

}  // namespace orvnodetest
