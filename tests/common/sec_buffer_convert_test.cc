// Keys to hex text and back: exact texts and bytes, including the unchecked
// inputs (odd lengths, non-hex pairs) whose results are part of the contract.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/SecBufferConvert.h"
#include "tests/common/WexTraceCapture.h"

namespace {

TEST(SecBufferConvert, KeyToAsciiTable) {
    struct Row {
        std::string key;
        int length;
        const char* text;  // null: no result
    };
    const std::vector<Row> rows = {
        {std::string("\x00\xab", 2), 2, "00ab"},
        {"\x01", 1, "01"},
        {std::string("\xff\x10\x0a\x7f", 4), 4, "ff100a7f"},
        {"abc", 2, "6162"},  // only `length` bytes are read
        {"", 0, nullptr},
        {"x", -1, nullptr},
    };
    WEX_COMMON::SecBufferConvert conv;
    for (const auto& r : rows) {
        std::string key = r.key;
        char* text = conv.convertKeyToASCII(key.data(), r.length);
        if (r.text == nullptr) {
            EXPECT_EQ(text, nullptr) << r.length;
            continue;
        }
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, r.text);
        delete[] text;
    }
    EXPECT_EQ(conv.convertKeyToASCII(nullptr, 4), nullptr);
}

TEST(SecBufferConvert, AsciiToKeyTable) {
    struct Row {
        const char* text;
        std::vector<unsigned char> bytes;  // the whole strlen(text) array
    };
    const std::vector<Row> rows = {
        {"00ab", {0x00, 0xab, 0, 0}},
        {"00AB", {0x00, 0xab, 0, 0}},
        {"ff100a7f", {0xff, 0x10, 0x0a, 0x7f, 0, 0, 0, 0}},
        {"abc", {0xab, 0x0c, 0}},      // odd: the last digit stands alone
        {"zz12", {0x00, 0x12, 0, 0}},  // no valid digit gives 0
        {"4g", {0x04, 0}},             // valid leading digits only
        {" f", {0x0f, 0}},             // read as an unsigned number: blanks skipped
        {"", {}},
    };
    WEX_COMMON::SecBufferConvert conv;
    for (const auto& r : rows) {
        std::string text = r.text;
        auto* key = static_cast<unsigned char*>(conv.convertASCIIToKey(text.data()));
        ASSERT_NE(key, nullptr) << r.text;
        std::vector<unsigned char> got(key, key + std::strlen(r.text));
        EXPECT_EQ(got, r.bytes) << r.text;
        delete[] key;
    }
    EXPECT_EQ(conv.convertASCIIToKey(nullptr), nullptr);
}

TEST(SecBufferConvert, RoundTripOfEveryByteValue) {
    std::string key;
    for (int i = 0; i < 256; ++i) {
        key += static_cast<char>(i);
    }
    WEX_COMMON::SecBufferConvert conv;
    char* text = conv.convertKeyToASCII(key.data(), 256);
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(std::strlen(text), 512u);
    auto* back = static_cast<unsigned char*>(conv.convertASCIIToKey(text));
    EXPECT_EQ(std::memcmp(back, key.data(), 256), 0);
    delete[] back;
    delete[] text;
}

TEST(SecBufferConvertTrace, Lines) {
    testsupport::WexTraceCapture trace;
    WEX_COMMON::SecBufferConvert conv;
    unsigned char key[] = {0x00, 0xab};
    delete[] conv.convertKeyToASCII(key, 2);
    char text[] = "0a";
    delete[] static_cast<unsigned char*>(conv.convertASCIIToKey(text));
    const std::vector<std::string> expected = {
        "WEX_COMMON::SecBufferConvert::convertKeyToASCII(key,2) called",
        "SecBufferConvert::convertKeyToASCII, returnString=[00ab]",
        "convertASCIIToKey(0a) called, converting 2 bytes",
        "after strtoul a\n",
    };
    EXPECT_EQ(trace.lines(), expected);
}

}  // namespace
