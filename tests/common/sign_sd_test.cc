// Signing and verifying structured data: the signature is HMAC-SHA256 of the
// marshalled bytes, the result codes of both sides, and the conversions
// between security buffers and binaries.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "common/SignSD.h"
#include "tests/common/SdBuilder.h"
#include "tests/common/WexTraceCapture.h"

namespace {

using testsupport::SdBuilder;

sec_buffer_s buf(std::string& s) {
    return {static_cast<uint32_t>(s.size()), s.data()};
}

std::string hex(const sec_buffer_s& b) {
    std::string s;
    char two[3];
    for (uint32_t i = 0; i < b.length; ++i) {
        std::snprintf(two, sizeof two, "%02x", static_cast<const unsigned char*>(b.value)[i]);
        s += two;
    }
    return s;
}

TEST(SignSD, SignatureIsTheKeyedDigestOfTheMarshalledBytes) {
    // A published HMAC-SHA256 vector (key 20 x 0x0b, data "Hi There"); the
    // float adds nothing, so these elements marshal to exactly that data.
    std::string k(20, '\x0b');
    sec_buffer_s key = buf(k), sig = {0, nullptr}, sig2 = {0, nullptr};
    SdBuilder b, withoutFloat;
    b.str("Hi ").f64(3.0).str("There");
    withoutFloat.str("Hi ").str("There");
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), b.count(), &key, &sig), 0);
    EXPECT_EQ(hex(sig), "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    ASSERT_EQ(WEX_COMMON::signSD(withoutFloat.data(), withoutFloat.count(), &key, &sig2), 0);
    EXPECT_EQ(hex(sig2), hex(sig));
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key, &sig), 0u);
    sec_release_buffer(&sig);
    sec_release_buffer(&sig2);
}

TEST(SignSD, SignAndVerifyResultCodes) {
    std::string k1 = "k1", k2 = "k2", none;
    sec_buffer_s key = buf(k1), other = buf(k2), empty = buf(none);
    struct Row {
        const char* name;
        std::function<void(SdBuilder&)> build;
        sec_buffer_s* key;
        int signRc;
        unsigned verifyRc;  // verifying the row's signature (any bytes when it has none)
    };
    const std::vector<Row> rows = {
        {"good", [](SdBuilder& b) { b.str("node").u32(3); }, &key, 0, 0},
        {"no elements", [](SdBuilder&) {}, &key, -1, 1},
        {"empty result", [](SdBuilder& b) { b.f32(1.0f).str(""); }, &key, -3, 3},
        {"null key", [](SdBuilder& b) { b.u32(1); }, nullptr, SEC_E_ARGUMENT, 5},
        {"empty key", [](SdBuilder& b) { b.u32(1); }, &empty, SEC_E_ARGUMENT, 5},
    };
    for (const Row& r : rows) {
        SdBuilder b;
        r.build(b);
        std::string anyBytes(SEC_KEYED_DIGEST_LENGTH, 's');
        sec_buffer_s sig = {0, nullptr};
        EXPECT_EQ(WEX_COMMON::signSD(b.data(), b.count(), r.key, &sig), r.signRc) << r.name;
        if (r.signRc != 0) {
            EXPECT_EQ(sig.value, nullptr) << r.name;
            sig = buf(anyBytes);
        }
        EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), r.key, &sig), r.verifyRc) << r.name;
        if (r.signRc == 0) {
            EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &other, &sig), 5u) << r.name;
            sec_release_buffer(&sig);
        }
    }
}

TEST(SignSD, ChangedElementsOrSignatureAreRejected) {
    std::string k = "0123456789abcdef";
    sec_buffer_s key = buf(k), sig = {0, nullptr};
    SdBuilder b, changed;
    b.str("Kor.ManagedNode").u64(77).bin(std::string("\x01\x02", 2));
    changed.str("Kor.ManagedNode").u64(78).bin(std::string("\x01\x02", 2));
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), b.count(), &key, &sig), 0);
    EXPECT_EQ(WEX_COMMON::verifySD(changed.data(), changed.count(), &key, &sig), 5u);
    sec_buffer_s shorter = {sig.length - 1, sig.value};
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key, &shorter), 5u);
    static_cast<unsigned char*>(sig.value)[0] ^= 1;
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key, &sig), 5u);
    sec_release_buffer(&sig);
}

TEST(SignSDTrace, SuccessAndFailureLines) {
    testsupport::WexTraceCapture trace;
    std::string k = "k";
    sec_buffer_s key = buf(k), sig = {0, nullptr};
    SdBuilder b;
    b.u32(1);
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), 1, &key, &sig), 0);
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), 1, &key, &sig), 0u);  // writes no line of its own
    sec_release_buffer(&sig);
    EXPECT_EQ(WEX_COMMON::signSD(b.data(), 1, nullptr, &sig), SEC_E_ARGUMENT);
    const std::vector<std::string> expected = {
        "WEX_COMMON::signSD() called, count == 1",
        "marshalSD() called, count == 1",
        "adding 1 to size for ZN_INT32 type [1]",
        "Copying 1 bytes of string [1], was originally a ZN_UINT32",
        "signing marshaled data buffer",
        "freeing marshalled data buffer",
        "WEX_COMMON::signSD() returning 0",
        "marshalSD() called, count == 1",
        "adding 1 to size for ZN_INT32 type [1]",
        "Copying 1 bytes of string [1], was originally a ZN_UINT32",
        "WEX_COMMON::signSD() called, count == 1",
        "marshalSD() called, count == 1",
        "adding 1 to size for ZN_INT32 type [1]",
        "Copying 1 bytes of string [1], was originally a ZN_UINT32",
        "signing marshaled data buffer",
        "freeing marshalled data buffer",
        "sec_prepare_message() call failed with error code == 1, returning that",
    };
    EXPECT_EQ(trace.lines(), expected);
}

TEST(SecBinary, ConversionsBothWays) {
    testsupport::WexTraceCapture trace;
    for (std::string p : {std::string(), std::string("\0\x80\xff", 3), std::string(300, 'q')}) {
        std::string copy = p;
        sec_buffer_s src = buf(copy), back = {99, nullptr};
        zn_binary* bin = nullptr;
        ASSERT_EQ(WEX_COMMON::sec2binary(&src, bin), 0u);
        copy.assign(copy.size(), 'X');  // the binary is a copy
        EXPECT_EQ(std::string(reinterpret_cast<char*>(bin->data), bin->length), p);
        WEX_COMMON::binary2sec(bin, &back);  // ... and this is not
        EXPECT_EQ(back.length, p.size());
        EXPECT_EQ(back.value, static_cast<void*>(bin->data));
        std::free(bin);
    }
    EXPECT_EQ(trace.lines()[0], "WEX_COMMON::sec2binary() called");
    EXPECT_EQ(trace.lines()[1], "WEX_COMMON::sec2binary() returing 0");
    // Unusable sources are refused with the destination null.
    sec_buffer_s missing = {4, nullptr};
    for (sec_buffer_s* src : {static_cast<sec_buffer_s*>(nullptr), &missing}) {
        zn_binary* bin = reinterpret_cast<zn_binary*>(&missing);
        EXPECT_EQ(WEX_COMMON::sec2binary(src, bin), 1u);
        EXPECT_EQ(bin, nullptr);
    }
    sec_buffer_s dst = {5, &dst};
    WEX_COMMON::binary2sec(nullptr, &dst);
    EXPECT_EQ(dst.value, nullptr);
    EXPECT_EQ(dst.length, 0u);
}

}  // namespace
