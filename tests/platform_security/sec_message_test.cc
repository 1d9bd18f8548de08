// The keyed message signing of the security library: the mechanism chosen by
// the flags, argument checking, and verification of good and bad signatures.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/security/sec_message.h"

namespace {

sec_buffer_s buf(std::string& s) {
    return {static_cast<uint32_t>(s.size()), s.data()};
}

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

TEST(SecMessage, KeyedDigestKnownAnswers) {
    // Published HMAC-SHA256 vectors.
    struct Row {
        std::string key, message, digest;
    };
    const std::vector<Row> rows = {
        {std::string(20, '\x0b'), "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"Jefe", "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    };
    for (Row r : rows) {
        sec_buffer_s key = buf(r.key), msg = buf(r.message), sig = {7, nullptr};
        ASSERT_EQ(sec_prepare_message(&key, SEC_F_KEYED_DIGEST, &msg, &sig), SEC_S_OK);
        EXPECT_EQ(hex(sig), r.digest);
        EXPECT_EQ(sec_process_message(&key, SEC_F_KEYED_DIGEST, &msg, &sig), SEC_S_OK);
        sec_release_buffer(&sig);
        EXPECT_EQ(sig.value, nullptr);
        EXPECT_EQ(sig.length, 0u);
    }
}

TEST(SecMessage, ArgumentsAndFlagsTable) {
    std::string k = "key", m = "message";
    sec_buffer_s key = buf(k), msg = buf(m);
    sec_buffer_s emptyKey = {0, k.data()}, nullKey = {3, nullptr};
    sec_buffer_s emptyMsg = {0, nullptr}, brokenMsg = {5, nullptr};
    struct Row {
        const char* name;
        sec_buffer_s* key;
        unsigned flags;
        sec_buffer_s* msg;
        int rc;
    };
    const std::vector<Row> rows = {
        {"good", &key, 0x100000, &msg, SEC_S_OK},
        {"empty message", &key, 0x100000, &emptyMsg, SEC_S_OK},
        {"flags 0", &key, 0, &msg, SEC_E_FLAGS},
        {"flags plus a bit", &key, 0x100001, &msg, SEC_E_FLAGS},
        {"other mechanism", &key, 0x200000, &msg, SEC_E_FLAGS},
        {"all bits", &key, 0xffffffffu, &msg, SEC_E_FLAGS},
        {"null key", nullptr, 0x100000, &msg, SEC_E_ARGUMENT},
        {"empty key", &emptyKey, 0x100000, &msg, SEC_E_ARGUMENT},
        {"key bytes missing", &nullKey, 0x100000, &msg, SEC_E_ARGUMENT},
        {"null message", &key, 0x100000, nullptr, SEC_E_ARGUMENT},
        {"message bytes missing", &key, 0x100000, &brokenMsg, SEC_E_ARGUMENT},
    };
    for (const Row& r : rows) {
        int dummy = 0;
        sec_buffer_s sig = {9, &dummy};
        EXPECT_EQ(sec_prepare_message(r.key, r.flags, r.msg, &sig), r.rc) << r.name;
        if (r.rc != SEC_S_OK) {
            EXPECT_EQ(sig.value, nullptr) << r.name;
            EXPECT_EQ(sig.length, 0u) << r.name;
            continue;
        }
        EXPECT_EQ(sig.length, SEC_KEYED_DIGEST_LENGTH) << r.name;
        EXPECT_EQ(sec_process_message(r.key, r.flags, r.msg, &sig), SEC_S_OK) << r.name;
        EXPECT_EQ(sec_process_message(r.key, 0x100001, r.msg, &sig), SEC_E_FLAGS) << r.name;
        sec_release_buffer(&sig);
    }
    EXPECT_EQ(sec_prepare_message(&key, SEC_F_KEYED_DIGEST, &msg, nullptr), SEC_E_ARGUMENT);
    EXPECT_EQ(sec_process_message(&key, SEC_F_KEYED_DIGEST, &msg, nullptr), SEC_E_ARGUMENT);
}

TEST(SecMessage, EverySignatureByteCounts) {
    std::string k = "shared", m = "payload";
    sec_buffer_s key = buf(k), msg = buf(m), sig = {0, nullptr};
    ASSERT_EQ(sec_prepare_message(&key, SEC_F_KEYED_DIGEST, &msg, &sig), SEC_S_OK);
    auto* bytes = static_cast<unsigned char*>(sig.value);
    for (uint32_t i = 0; i < sig.length; ++i) {
        bytes[i] ^= 0x80;
        EXPECT_EQ(sec_process_message(&key, SEC_F_KEYED_DIGEST, &msg, &sig), SEC_E_SIGNATURE);
        bytes[i] ^= 0x80;
    }
    sec_buffer_s none = {SEC_KEYED_DIGEST_LENGTH, nullptr};
    EXPECT_EQ(sec_process_message(&key, SEC_F_KEYED_DIGEST, &msg, &none), SEC_E_SIGNATURE);
    sec_release_buffer(&sig);
}

}  // namespace
