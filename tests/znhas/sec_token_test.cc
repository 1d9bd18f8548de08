#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "tests/znhas/znhas_fixture.h"
#include "znhas/sec_messages.h"
#include "znhas/znhas.h"

namespace {

using znhas_test::Bytes;
using znhas_test::lastError;

TEST(SecToken, CreateLaysOutBigEndianHeadAndKey) {
    const Bytes key = {0xde, 0xad, 0xbe, 0xef, 0x01};
    sec_buffer_t tok = nullptr;
    ASSERT_EQ(sec_create_host_token("node1", 5, key.data(), 8194, &tok), 0);
    ASSERT_NE(tok, nullptr);
    ASSERT_EQ(tok->length, 13U);
    const auto* p = static_cast<const uint8_t*>(tok->value);
    EXPECT_EQ(Bytes(p, p + 13), (Bytes{0xC5, 0xEC, 0x00, 0x01, 0x00, 0x00, 0x20, 0x02, 0xde, 0xad,
                                       0xbe, 0xef, 0x01}));
    EXPECT_EQ(sec_release_host_token(&tok), 0);
    EXPECT_EQ(tok, nullptr);
    EXPECT_EQ(sec_release_host_token(&tok), 0);
    EXPECT_EQ(sec_release_host_token(nullptr), 0);
}

TEST(SecToken, CreateRejectsBadArguments) {
    const Bytes key = {1, 2, 3};
    sec_buffer_t held = nullptr;
    ASSERT_EQ(sec_create_host_token("x", 3, key.data(), 8193, &held), 0);
    struct Case {
        const char* what;
        const char* name;
        int len;
        const uint8_t* key;
        int type;
        bool useHeld;
        int arg;
    };
    const Case cases[] = {
        {"null name", nullptr, 3, key.data(), 8193, false, 1},
        {"empty name", "", 3, key.data(), 8193, false, 1},
        {"zero length", "n", 0, key.data(), 8193, false, 2},
        {"negative length", "n", -4, key.data(), 8193, false, 2},
        {"huge length", "n", 1 << 20, key.data(), 8193, false, 2},
        {"null key", "n", 3, nullptr, 8193, false, 3},
        {"type too small", "n", 3, key.data(), 255, false, 4},
        {"type too large", "n", 3, key.data(), 8195, false, 4},
        {"out token not null", "n", 3, key.data(), 8193, true, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        sec_buffer_t fresh = nullptr;
        sec_buffer_t* out = c.useHeld ? &held : &fresh;
        EXPECT_EQ(sec_create_host_token(c.name, c.len, c.key, c.type, out), ZNHAS_E_BADPARAM);
        auto err = lastError();
        EXPECT_EQ(err.id, ZNHAS_E_BADPARAM);
        EXPECT_EQ(err.catalog, "znhas.cat");
        EXPECT_EQ(err.set, 1);
        EXPECT_EQ(err.text.rfind("2650-951 libzn_has Failure: incorrect parameters provided to "
                                 "sec_create_host_token.",
                                 0),
                  0U)
            << err.text;
        EXPECT_NE(err.text.find("Argument " + std::to_string(c.arg) + " "), std::string::npos);
        EXPECT_EQ(fresh, nullptr);
    }
    sec_release_host_token(&held);
}

TEST(SecToken, ParseChecksFamilyVersionAndType) {
    struct Case {
        const char* what;
        Bytes bytes;
        int rc;
    };
    const Case cases[] = {
        {"good", {0xC5, 0xEC, 0, 1, 0, 0, 0x20, 0x01, 9, 8}, 0},
        {"lowest type", {0xC5, 0xEC, 0, 1, 0, 0, 0x01, 0x00, 9}, 0},
        {"family", {0xC5, 0xED, 0, 1, 0, 0, 0x20, 0x01, 9}, ZNHAS_E_BADPARAM},
        {"version 2", {0xC5, 0xEC, 0, 2, 0, 0, 0x20, 0x01, 9}, ZNHAS_E_BADPARAM},
        {"type 255", {0xC5, 0xEC, 0, 1, 0, 0, 0x00, 0xFF, 9}, ZNHAS_E_BADPARAM},
        {"type 8195", {0xC5, 0xEC, 0, 1, 0, 0, 0x20, 0x03, 9}, ZNHAS_E_BADPARAM},
        {"head only", {0xC5, 0xEC, 0, 1, 0, 0, 0x20, 0x01}, ZNHAS_E_BADPARAM},
        {"short head", {0xC5, 0xEC, 0}, ZNHAS_E_BADPARAM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes copy = c.bytes;
        sec_buffer_s buf{static_cast<uint32_t>(copy.size()), copy.data()};
        int keylen = -1;
        sec_host_token_t parsed = nullptr;
        ASSERT_EQ(sec_parse_host_token(&buf, &keylen, &parsed), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(parsed->sht_magic, 0xC5EC0001U);
            EXPECT_EQ(parsed->sht_type, (uint32_t(copy[6]) << 8) | copy[7]);
            EXPECT_EQ(keylen, static_cast<int>(copy.size()) - 8);
            EXPECT_EQ(Bytes(parsed->sht_key, parsed->sht_key + keylen),
                      Bytes(copy.begin() + 8, copy.end()));
            sec_release_parsed_token(&parsed);
            EXPECT_EQ(parsed, nullptr);
        } else {
            EXPECT_EQ(parsed, nullptr);
            EXPECT_EQ(lastError().id, c.rc);
        }
    }
    sec_buffer_s nullValue{12, nullptr};
    int keylen = 0;
    sec_host_token_t parsed = nullptr;
    EXPECT_EQ(sec_parse_host_token(&nullValue, &keylen, &parsed), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_parse_host_token(nullptr, &keylen, &parsed), ZNHAS_E_BADPARAM);
}

TEST(SecToken, PrintAndSetRoundTrip) {
    struct Case {
        int type;
        const char* typeText;
    };
    const Case cases[] = {{8193, "rsa512"}, {8194, "rsa1024"}, {256, "?"}, {8192, "?"}};
    const Bytes key = {0x00, 0x0f, 0xa0, 0xff, 0x7e};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        znhas_test::Token tok(key, c.type);
        char* keyText = nullptr;
        char* typeText = nullptr;
        ASSERT_EQ(sec_print_host_token(tok.t, &keyText, &typeText), 0);
        EXPECT_STREQ(keyText, "000fa0ff7e");
        EXPECT_STREQ(typeText, c.typeText);
        sec_buffer_t back = nullptr;
        ASSERT_EQ(sec_set_host_token(keyText, c.type, &back), 0);
        ASSERT_EQ(back->length, tok.t->length);
        EXPECT_EQ(0, memcmp(back->value, tok.t->value, back->length));
        sec_release_host_token(&back);
        free(keyText);
        free(typeText);
    }
    sec_buffer_t up = nullptr;
    ASSERT_EQ(sec_set_host_token("ABcd", 8193, &up), 0);
    EXPECT_EQ(static_cast<uint8_t*>(up->value)[8], 0xab);
    EXPECT_EQ(static_cast<uint8_t*>(up->value)[9], 0xcd);
    sec_release_host_token(&up);
}

TEST(SecToken, SetRejectsBadText) {
    struct Case {
        const char* text;
        int type;
        int rc;
    };
    const Case cases[] = {
        {"abc", 8193, ZNHAS_E_ODDHEX},     {"a", 8193, ZNHAS_E_ODDHEX},
        {"zz", 8193, ZNHAS_E_BADPARAM},    {"0x12", 8193, ZNHAS_E_BADPARAM},
        {" 1", 8193, ZNHAS_E_BADPARAM},    {"", 8193, ZNHAS_E_BADPARAM},
        {nullptr, 8193, ZNHAS_E_BADPARAM}, {"0102", 100, ZNHAS_E_BADPARAM},
        {"0102", 9000, ZNHAS_E_BADPARAM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "(null)");
        sec_buffer_t t = nullptr;
        EXPECT_EQ(sec_set_host_token(c.text, c.type, &t), c.rc);
        EXPECT_EQ(t, nullptr);
        auto err = lastError();
        EXPECT_EQ(err.id, c.rc);
        EXPECT_EQ(err.text.rfind("2650-951 ", 0), 0U) << err.text;
    }
    std::string tooLong(2 * 16384 + 2, 'a');
    sec_buffer_t t = nullptr;
    EXPECT_EQ(sec_set_host_token(tooLong.c_str(), 8193, &t), ZNHAS_E_BADPARAM);
}

TEST(SecToken, PrintRejectsBadTokensAndOutputs) {
    Bytes bad = {0xC5, 0xEC, 0, 9, 0, 0, 0x20, 0x01, 1};
    sec_buffer_s buf{static_cast<uint32_t>(bad.size()), bad.data()};
    char* k = nullptr;
    char* t = nullptr;
    EXPECT_EQ(sec_print_host_token(&buf, &k, &t), ZNHAS_E_BADPARAM);
    znhas_test::Token good(Bytes{1});
    EXPECT_EQ(sec_print_host_token(good.t, nullptr, &t), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_print_host_token(good.t, &k, nullptr), ZNHAS_E_BADPARAM);
    EXPECT_EQ(k, nullptr);
    EXPECT_EQ(t, nullptr);
}

// The other messages' texts are checked where the operations report them.
TEST(SecMessages, DistinctNumbersAndTheFirstLinesNoOperationHereReports) {
    using znhas::SecMsg;
    auto firstLine = [](SecMsg id) {
        std::string t = znhas::secMessage(id).text;
        return t.substr(0, t.find('\n'));
    };
    EXPECT_EQ(firstLine(SecMsg::NoMemory), "2650-952 libzn_has Memory allocation failure in %1$s.");
    EXPECT_EQ(firstLine(SecMsg::Internal), "2650-953 libzn_has Internal failure detected in %1$s.");
    std::set<int> numbers;
    for (SecMsg id : {SecMsg::BadParam, SecMsg::NoMemory, SecMsg::Internal, SecMsg::FileAccess,
                      SecMsg::NotFound, SecMsg::Corrupted, SecMsg::NoSpace, SecMsg::Oversized,
                      SecMsg::LockFailed}) {
        EXPECT_TRUE(numbers.insert(znhas::secMessage(id).number).second) << static_cast<int>(id);
    }
}

TEST(SecMessages, RenderedArgumentsLandInTheirPlaces) {
    znhas::secNoSpace("sec__modify_thl", "/x/zn_has.thl", 77);
    auto err = lastError();
    EXPECT_EQ(err.id, ZNHAS_E_FILE);
    EXPECT_EQ(err.text.rfind("2650-960 libzn_has Failure: No space left in /x/zn_has.thl.\n"
                             "sec__modify_thl could not add 77 bytes",
                             0),
              0U)
        << err.text;
    znhas::secInternal("f", "Vok_rsaKeyGen", 5);
    err = lastError();
    EXPECT_EQ(err.id, ZNHAS_E_INTERNAL);
    EXPECT_NE(err.text.find("Return code from function: 5"), std::string::npos) << err.text;
}

}  // namespace
