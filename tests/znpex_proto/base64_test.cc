// Base64: the standard vectors, and one canonical text per byte string.
#include <gtest/gtest.h>

#include "znpex/proto/Base64.h"

using znpex::proto::base64Decode;
using znpex::proto::base64Encode;

namespace {

TEST(Base64, StandardVectorsRoundTrip) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, text] : vectors) {
        std::string p(plain);
        EXPECT_EQ(base64Encode(p.data(), p.size()), text);
        auto back = base64Decode(text);
        ASSERT_TRUE(back.has_value()) << text;
        EXPECT_EQ(std::string(back->begin(), back->end()), p);
    }
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    auto back = base64Decode(base64Encode(all.data(), all.size()));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(std::string(back->begin(), back->end()), all);
}

TEST(Base64, NonCanonicalTextIsRefused) {
    for (const char* bad : {"Zg", "Zg=", "Zh==", "Zm9=", "Z===", "=Zg=", "Zg==Zg==", "Zm 9v",
                            "Zm9v\n", "Zm-_", "Zm9v====", "@@@@"}) {
        EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
    }
}

}  // namespace
