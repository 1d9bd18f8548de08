// Signing and verifying structured data: the signature is HMAC-SHA256 of the
// marshalled bytes, the result codes of both sides, and the conversions
// between security buffers and binaries.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/SignSD.h"
#include "tests/common/SdBuilder.h"
#include "tests/common/WexTraceCapture.h"

namespace {

using testsupport::SdBuilder;

struct Key {
    explicit Key(std::string bytes) : bytes_(std::move(bytes)) {
        buf = {static_cast<uint32_t>(bytes_.size()), bytes_.data()};
    }
    std::string bytes_;
    sec_buffer_s buf;
};

std::string hex(const sec_buffer_s& b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint32_t i = 0; i < b.length; ++i) {
        unsigned char c = static_cast<const unsigned char*>(b.value)[i];
        s += digits[c >> 4];
        s += digits[c & 15];
    }
    return s;
}

TEST(SignSD, SignatureIsTheKeyedDigestOfTheMarshalledBytes) {
    // A published HMAC-SHA256 vector: key 20 x 0x0b, data "Hi There"; the
    // elements marshal to exactly that data.
    Key key(std::string(20, '\x0b'));
    SdBuilder b;
    b.str("Hi ").f64(3.0).str("There");
    sec_buffer_s sig = {0, nullptr};
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), b.count(), &key.buf, &sig), 0);
    EXPECT_EQ(hex(sig), "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key.buf, &sig), 0u);
    sec_release_buffer(&sig);
}

TEST(SignSD, FloatBetweenIntegersSignsTheSameAsWithoutIt) {
    Key key("frame-secret");
    SdBuilder with, without;
    with.i32(1).f32(0.5f).i32(2);
    without.i32(1).i32(2);
    sec_buffer_s a = {0, nullptr}, b = {0, nullptr};
    ASSERT_EQ(WEX_COMMON::signSD(with.data(), with.count(), &key.buf, &a), 0);
    ASSERT_EQ(WEX_COMMON::signSD(without.data(), without.count(), &key.buf, &b), 0);
    EXPECT_EQ(hex(a), hex(b));
    EXPECT_EQ(WEX_COMMON::verifySD(without.data(), without.count(), &key.buf, &a), 0u);
    sec_release_buffer(&a);
    sec_release_buffer(&b);
}

TEST(SignSD, SignAndVerifyResultCodes) {
    Key key("k1");
    Key other("k2");
    Key empty("");
    struct Row {
        const char* name;
        std::function<void(SdBuilder&)> build;
        sec_buffer_s* key;
        int signRc;
        unsigned verifyRc;  // verifying the row's signature (any bytes when it has none)
    };
    const std::vector<Row> rows = {
        {"good", [](SdBuilder& b) { b.str("node").u32(3); }, &key.buf, 0, 0},
        {"no elements", [](SdBuilder&) {}, &key.buf, -1, 1},
        {"empty result", [](SdBuilder& b) { b.f32(1.0f).str(""); }, &key.buf, -3, 3},
        {"null key", [](SdBuilder& b) { b.u32(1); }, nullptr, SEC_E_ARGUMENT, 5},
        {"empty key", [](SdBuilder& b) { b.u32(1); }, &empty.buf, SEC_E_ARGUMENT, 5},
    };
    for (const Row& r : rows) {
        SdBuilder b;
        r.build(b);
        sec_buffer_s sig = {0, nullptr};
        EXPECT_EQ(WEX_COMMON::signSD(b.data(), b.count(), r.key, &sig), r.signRc) << r.name;
        if (r.signRc != 0) {
            EXPECT_EQ(sig.value, nullptr) << r.name;
            std::string anyBytes(SEC_KEYED_DIGEST_LENGTH, 's');
            sec_buffer_s some = {SEC_KEYED_DIGEST_LENGTH, anyBytes.data()};
            EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), r.key, &some), r.verifyRc)
                << r.name;
            continue;
        }
        EXPECT_EQ(sig.length, SEC_KEYED_DIGEST_LENGTH) << r.name;
        EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), r.key, &sig), r.verifyRc) << r.name;
        EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &other.buf, &sig), 5u) << r.name;
        sec_release_buffer(&sig);
    }
}

TEST(SignSD, AnyChangedSignatureByteOrElementIsRejected) {
    Key key("0123456789abcdef");
    SdBuilder b;
    b.str("Kor.ManagedNode").u64(77).bin(std::string("\x01\x02", 2));
    sec_buffer_s sig = {0, nullptr};
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), b.count(), &key.buf, &sig), 0);
    auto* bytes = static_cast<unsigned char*>(sig.value);
    for (uint32_t i = 0; i < sig.length; ++i) {
        bytes[i] ^= 0x01;
        EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key.buf, &sig), 5u) << i;
        bytes[i] ^= 0x01;
    }
    sec_buffer_s shortSig = {sig.length - 1, sig.value};
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key.buf, &shortSig), 5u);
    SdBuilder changed;
    changed.str("Kor.ManagedNode").u64(78).bin(std::string("\x01\x02", 2));
    EXPECT_EQ(WEX_COMMON::verifySD(changed.data(), changed.count(), &key.buf, &sig), 5u);
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), b.count(), &key.buf, &sig), 0u);
    sec_release_buffer(&sig);
}

TEST(SignSDTrace, SuccessAndFailureLines) {
    testsupport::WexTraceCapture trace;
    Key key("k");
    SdBuilder b;
    b.u32(1);
    sec_buffer_s sig = {0, nullptr};
    ASSERT_EQ(WEX_COMMON::signSD(b.data(), 1, &key.buf, &sig), 0);
    sec_release_buffer(&sig);
    const std::vector<std::string> ok = {
        "WEX_COMMON::signSD() called, count == 1",
        "marshalSD() called, count == 1",
        "adding 1 to size for ZN_INT32 type [1]",
        "Copying 1 bytes of string [1], was originally a ZN_UINT32",
        "signing marshaled data buffer",
        "freeing marshalled data buffer",
        "WEX_COMMON::signSD() returning 0",
    };
    EXPECT_EQ(trace.lines(), ok);
    trace.clear();
    EXPECT_EQ(WEX_COMMON::signSD(b.data(), 1, nullptr, &sig), SEC_E_ARGUMENT);
    EXPECT_TRUE(
        trace.has("sec_prepare_message() call failed with error code == 1, returning that"));
    trace.clear();
    EXPECT_EQ(WEX_COMMON::verifySD(b.data(), 1, &key.buf, &sig), 5u);
    for (const auto& line : trace.lines()) {
        EXPECT_EQ(line.find("verify"), std::string::npos) << "verifySD writes no trace: " << line;
    }
}

TEST(SecBinary, Sec2BinaryCopiesAndBinary2SecPointsIntoTheBinary) {
    const std::vector<std::string> payloads = {"", "a", std::string("\0\x80\xff", 3),
                                               std::string(300, 'q')};
    for (const auto& p : payloads) {
        std::string copy = p;
        sec_buffer_s src = {static_cast<uint32_t>(copy.size()), copy.data()};
        zn_binary* bin = reinterpret_cast<zn_binary*>(0x1);
        ASSERT_EQ(WEX_COMMON::sec2binary(&src, bin), 0u);
        ASSERT_NE(bin, nullptr);
        EXPECT_EQ(bin->length, p.size());
        EXPECT_EQ(std::string(reinterpret_cast<char*>(bin->data), bin->length), p);
        copy.assign(copy.size(), 'X');  // the binary is a copy
        EXPECT_EQ(std::string(reinterpret_cast<char*>(bin->data), bin->length), p);
        sec_buffer_s back = {99, nullptr};
        WEX_COMMON::binary2sec(bin, &back);
        EXPECT_EQ(back.length, p.size());
        EXPECT_EQ(back.value, static_cast<void*>(bin->data));
        std::free(bin);
    }
}

TEST(SecBinary, UnusableInputsAreRefused) {
    zn_binary* bin = reinterpret_cast<zn_binary*>(0x1);
    EXPECT_EQ(WEX_COMMON::sec2binary(nullptr, bin), 1u);
    EXPECT_EQ(bin, nullptr);
    sec_buffer_s missing = {4, nullptr};
    bin = reinterpret_cast<zn_binary*>(0x1);
    EXPECT_EQ(WEX_COMMON::sec2binary(&missing, bin), 1u);
    EXPECT_EQ(bin, nullptr);
    sec_buffer_s dst = {5, &dst};
    WEX_COMMON::binary2sec(nullptr, &dst);
    EXPECT_EQ(dst.length, 0u);
    EXPECT_EQ(dst.value, nullptr);
    WEX_COMMON::binary2sec(nullptr, nullptr);  // ignored
}

TEST(SecBinaryTrace, Sec2BinaryLines) {
    testsupport::WexTraceCapture trace;
    char data[] = "ab";
    sec_buffer_s src = {2, data};
    zn_binary* bin = nullptr;
    ASSERT_EQ(WEX_COMMON::sec2binary(&src, bin), 0u);
    std::free(bin);
    const std::vector<std::string> expected = {"WEX_COMMON::sec2binary() called",
                                               "WEX_COMMON::sec2binary() returing 0"};
    EXPECT_EQ(trace.lines(), expected);
}

}  // namespace
