// The request to be managed and the check of the reply: the request's
// layout and a signature the server's check accepts (and that any change of
// a signed element breaks), and replies taken or refused.
#include "orvnode/Request.h"

#include <gtest/gtest.h>

#include "common/SignSD.h"
#include "tests/orvnode/ServerReplies.h"

namespace {

using orvnode::RequestSpec;
using orvnode::Secret;
using orvnodetest::makeReply;
using orvnodetest::serverToken;

const std::vector<uint8_t> kSecret = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

Secret secretOf(const std::vector<uint8_t>& bytes) {
    std::string hex;
    for (uint8_t b : bytes) {
        char two[3];
        std::snprintf(two, sizeof(two), "%02x", b);
        hex += two;
    }
    Secret s;
    std::string why;
    EXPECT_TRUE(Secret::fromHex(hex, &s, &why)) << why;
    return s;
}

RequestSpec spec(uint32_t protocol = 512) {
    RequestSpec r;
    r.protocol = protocol;
    r.hostname = "node1";
    r.nodeId = 0x1122334455667788ULL;
    r.mtms = "9119-MHE*10ABCDE";
    r.token = {0xC5, 0xEC, 0, 1, 2, 3};
    return r;
}

// The server's check: the signature (element 1) over elements 2 to 5.
bool serverAccepts(zn_structured_data* sd, const std::vector<uint8_t>& secret) {
    sec_buffer_s key{static_cast<uint32_t>(secret.size()), const_cast<uint8_t*>(secret.data())};
    sec_buffer_s sig{};
    WEX_COMMON::binary2sec(sd->elements[1].value.ptr_binary, &sig);
    return WEX_COMMON::verifySD(sd->elements + 2, 4, &key, &sig) == 0;
}

TEST(Request, LayoutAndSignatureAsTheServerChecksThem) {
    for (uint32_t protocol : {512u, 513u, 514u}) {
        SCOPED_TRACE(protocol);
        std::string why;
        zn::SdPtr sd = orvnode::buildRequest(spec(protocol), secretOf(kSecret), &why);
        ASSERT_TRUE(sd) << why;
        ASSERT_EQ(sd->element_count, 6u);
        const zn_data_type_t types[] = {ZN_UINT32, ZN_BINARY_PTR, ZN_CHAR_PTR,
                                        ZN_UINT64, ZN_CHAR_PTR,   ZN_BINARY_PTR};
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(sd->elements[i].data_type, types[i]) << i;
        }
        EXPECT_EQ(sd->elements[0].value.val_uint32, protocol);
        EXPECT_STREQ(sd->elements[2].value.ptr_char, "node1");
        EXPECT_EQ(sd->elements[3].value.val_uint64, 0x1122334455667788ULL);
        EXPECT_STREQ(sd->elements[4].value.ptr_char, "9119-MHE*10ABCDE");
        EXPECT_EQ(sd->elements[5].value.ptr_binary->length, 6u);
        EXPECT_TRUE(serverAccepts(sd.get(), kSecret));
        // Another frame's secret does not verify it; nor does a changed node id.
        std::vector<uint8_t> other = kSecret;
        other[0] ^= 1;
        EXPECT_FALSE(serverAccepts(sd.get(), other));
        sd->elements[3].value.val_uint64 += 1;
        EXPECT_FALSE(serverAccepts(sd.get(), kSecret));
    }
}

TEST(Request, FurtherNamesGoUnderTag1001) {
    RequestSpec r = spec();
    r.furtherNames = {"node1.example", "n1"};
    std::string why;
    zn::SdPtr sd = orvnode::buildRequest(r, secretOf(kSecret), &why);
    ASSERT_TRUE(sd) << why;
    ASSERT_EQ(sd->element_count, 8u);
    EXPECT_EQ(sd->elements[6].value.val_int32, 1001);
    ASSERT_EQ(sd->elements[7].data_type, ZN_CHAR_PTR_ARRAY);
    ASSERT_EQ(sd->elements[7].value.ptr_array->array_cnt, 2u);
    EXPECT_STREQ(sd->elements[7].value.ptr_array->elements[1].ptr_char, "n1");
    EXPECT_TRUE(serverAccepts(sd.get(), kSecret));
}

TEST(Request, WhatCannotBeSentIsNotBuilt) {
    struct Case {
        const char* name;
        RequestSpec spec;
        const char* why;
    };
    std::vector<Case> cases;
    for (uint32_t p : {0u, 1u, 2u, 515u}) {
        cases.push_back({"unsigned protocol", spec(p), "is not one of 512, 513, 514"});
    }
    RequestSpec noHost = spec();
    noHost.hostname.clear();
    cases.push_back({"no host name", noHost, "must all be given"});
    RequestSpec noId = spec();
    noId.nodeId = 0;
    cases.push_back({"node id 0", noId, "must all be given"});
    RequestSpec noToken = spec();
    noToken.token.clear();
    cases.push_back({"no token", noToken, "must all be given"});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string why;
        EXPECT_FALSE(orvnode::buildRequest(c.spec, secretOf(kSecret), &why));
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
    std::string why;
    EXPECT_FALSE(orvnode::buildRequest(spec(), Secret(), &why));
}

TEST(Reply, AGoodReplyGivesTheServersKeyAndNames) {
    zn::SdPtr reply = makeReply(513, 77, serverToken(), kSecret, {"mgmt", "mgmt.example"});
    orvnode::ServerReply out;
    std::string why;
    ASSERT_TRUE(orvnode::checkReply(reply.get(), 513, secretOf(kSecret), &out, &why)) << why;
    EXPECT_EQ(out.nodeId, 77u);
    EXPECT_EQ(out.token, serverToken());
    EXPECT_EQ(out.names, (std::vector<std::string>{"mgmt", "mgmt.example"}));
    reply = makeReply(512, 77, serverToken(), kSecret);
    ASSERT_TRUE(orvnode::checkReply(reply.get(), 512, secretOf(kSecret), &out, &why)) << why;
    EXPECT_TRUE(out.names.empty());
}

TEST(Reply, RepliesThatDoNotCheckOutAreRefused) {
    std::vector<uint8_t> otherSecret = kSecret;
    otherSecret[5] ^= 0x40;
    struct Case {
        const char* name;
        zn::SdPtr reply;
        uint32_t protocol;
        const char* why;
    };
    std::vector<Case> cases;
    cases.push_back({"signed with another secret", makeReply(512, 77, serverToken(), otherSecret),
                     512, "signature does not match"});
    zn::SdPtr altered = makeReply(512, 77, serverToken(), kSecret);
    altered->elements[1].value.val_uint64 = 78;
    cases.push_back({"node id altered", std::move(altered), 512, "signature does not match"});
    cases.push_back(
        {"7 elements for 513", makeReply(512, 77, serverToken(), kSecret), 513, "not 11"});
    cases.push_back({"no reply", zn::SdPtr(), 512, "0 elements"});
    std::vector<uint8_t> junk = {1, 2, 3};
    cases.push_back(
        {"not a host token", makeReply(512, 77, junk, kSecret), 512, "not a usable host key"});
    zn::SdPtr retyped = makeReply(512, 77, serverToken(), kSecret);
    retyped->elements[1].data_type = ZN_INT64;
    cases.push_back({"node id of the wrong type", std::move(retyped), 512, "wrong type"});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        orvnode::ServerReply out;
        std::string why;
        EXPECT_FALSE(orvnode::checkReply(c.reply.get(), c.protocol, secretOf(kSecret), &out, &why));
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
        EXPECT_TRUE(out.token.empty());
    }
}

}  // namespace
