#include "orvnode/Secret.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/TempDir.h"

namespace {

using orvnode::Secret;

TEST(Secret, HexTextIsTakenWholeOrNotAtAll) {
    struct Case {
        std::string text;
        std::vector<uint8_t> bytes;  // empty: refused
        const char* why;
    };
    const Case cases[] = {
        {"00ff10Ab", {0x00, 0xff, 0x10, 0xab}, nullptr},
        {"  0a0b\n", {0x0a, 0x0b}, nullptr},
        {"", {}, "empty"},
        {" \n", {}, "empty"},
        {"abc", {}, "even number"},
        {"0g", {}, "not a hex digit"},
        {"0a  0b", {}, "not a hex digit"},
        {std::string(1026, 'a'), {}, "at most 1024"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 16));
        Secret s;
        std::string why;
        bool ok = Secret::fromHex(c.text, &s, &why);
        EXPECT_EQ(ok, !c.bytes.empty());
        if (ok) {
            EXPECT_EQ(s.bytes(), c.bytes);
        } else {
            EXPECT_TRUE(s.empty());
            EXPECT_NE(why.find(c.why), std::string::npos) << why;
            // A refusal never repeats the text it refused.
            if (c.text.size() > 2) {
                EXPECT_EQ(why.find(c.text), std::string::npos) << why;
            }
        }
    }
}

TEST(Secret, FilesAreReadBoundedAndNamedInErrors) {
    testsupport::TempDir dir;
    std::string good = dir / "good";
    std::ofstream(good) << "deadbeef\n";
    Secret s;
    std::string why;
    ASSERT_TRUE(Secret::fromFile(good, &s, &why)) << why;
    EXPECT_EQ(s.bytes(), (std::vector<uint8_t>{0xde, 0xad, 0xbe, 0xef}));
    s.wipe();
    EXPECT_TRUE(s.empty());

    std::string big = dir / "big";
    std::ofstream(big) << std::string(5000, 'a');
    EXPECT_FALSE(Secret::fromFile(big, &s, &why));
    EXPECT_NE(why.find("larger than 4096"), std::string::npos) << why;

    EXPECT_FALSE(Secret::fromFile(dir / "absent", &s, &why));
    EXPECT_NE(why.find("cannot open the secret file"), std::string::npos) << why;

    std::string bad = dir / "bad";
    std::ofstream(bad) << "secret words\n";
    EXPECT_FALSE(Secret::fromFile(bad, &s, &why));
    EXPECT_NE(why.find("does not hold a secret"), std::string::npos) << why;
    EXPECT_EQ(why.find("secret words"), std::string::npos) << why;
}

TEST(Secret, MovingLeavesNothingBehind) {
    Secret a;
    std::string why;
    ASSERT_TRUE(Secret::fromHex("0102", &a, &why));
    Secret b = std::move(a);
    EXPECT_EQ(b.bytes().size(), 2u);
    std::string text = "abcd";
    orvnode::wipeString(text);
    EXPECT_TRUE(text.empty());
}

}  // namespace
