// orvctl key add, ls and rm: they edit the frame key store under the state
// root directly; the secret is printed once and never listed.
#include <gtest/gtest.h>

#include "common/FrameKeyStore.h"
#include "tests/orvctl/OrvctlRun.h"
#include "tests/support/TempDir.h"

namespace {

using orvctltest::orvctl;

class OrvctlKey : public ::testing::Test {
protected:
    testsupport::TempDir root_{/*asRoot=*/true};
};

TEST_F(OrvctlKey, AddPrintsTheSecretOnceAndLsShowsNamesOnly) {
    auto add = orvctl({"key", "add", "8233-E8B*1000ABC"});
    ASSERT_EQ(add.status, 0) << add.err;
    std::string secret = add.out.substr(0, add.out.find('\n'));
    EXPECT_EQ(secret.size(), 64u);
    EXPECT_EQ(secret.find_first_not_of("0123456789abcdef"), std::string::npos) << secret;
    WEX_COMMON::SecretBytes key;
    ASSERT_TRUE(WEX_COMMON::FrameKeyStore().lookup("8233-E8B*1000ABC", &key));
    EXPECT_EQ(key.bytes().size(), 32u);

    auto again = orvctl({"key", "add", "8233-E8B*1000ABC"});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("already has a key"), std::string::npos) << again.err;

    ASSERT_EQ(orvctl({"key", "add", "9119-MME*2000XYZ"}).status, 0);
    auto ls = orvctl({"key", "ls"});
    ASSERT_EQ(ls.status, 0) << ls.err;
    EXPECT_EQ(ls.out, "8233-E8B*1000ABC\n9119-MME*2000XYZ\n");
    auto json = orvctl({"key", "ls", "-o", "json"});
    ASSERT_EQ(json.status, 0);
    EXPECT_EQ(json.out, "[\n  \"8233-E8B*1000ABC\",\n  \"9119-MME*2000XYZ\"\n]\n");
    EXPECT_EQ(json.out.find(secret), std::string::npos);
}

TEST_F(OrvctlKey, RmRemovesAndRefusesUnknownFrames) {
    ASSERT_EQ(orvctl({"key", "add", "F1"}).status, 0);
    EXPECT_EQ(orvctl({"key", "rm", "F1"}).status, 0);
    EXPECT_EQ(orvctl({"key", "ls"}).out, "");
    auto missing = orvctl({"key", "rm", "F1"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("frame F1 has no key"), std::string::npos) << missing.err;
    auto bad = orvctl({"key", "add", "has blank"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("not a valid MTMS"), std::string::npos) << bad.err;
}

TEST_F(OrvctlKey, EachCommandAnswersHelp) {
    for (const char* sub : {"add", "ls", "rm"}) {
        SCOPED_TRACE(sub);
        auto help = orvctl({"key", sub, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("Usage"), std::string::npos) << help.out;
    }
    auto usage = orvctl({"key"});
    EXPECT_EQ(usage.status, 2);
    auto missing = orvctl({"key", "add"});
    EXPECT_EQ(missing.status, 2);
}

}  // namespace
