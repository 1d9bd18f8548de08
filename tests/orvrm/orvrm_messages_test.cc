#include <gtest/gtest.h>

#include <nl_types.h>

#include <cstdlib>
#include <string>

#include "orvrm/ORVRMMessages.h"
#include "platform/msgfmt.h"
#include "tests/support/TempDir.h"

namespace {

TEST(OrvrmCatalogue, NumbersAndGaps) {
    EXPECT_STREQ(orvrm::defaultMessageText(0), "Bad message id for message set ORVRM_set");
    EXPECT_STREQ(orvrm::defaultMessageText(112), "Bad message id for message set ORVRM_set");
    int valid = 0;
    for (int n = 1; n <= 111; ++n) {
        valid += orvrm::isValidMessageNumber(n) ? 1 : 0;
    }
    EXPECT_EQ(valid, 105);  // 111 less the unused 31, 61..64 and 110
    for (int gap : {31, 61, 62, 63, 64, 110}) {
        EXPECT_FALSE(orvrm::isValidMessageNumber(gap)) << gap;
        EXPECT_STREQ(orvrm::defaultMessageText(gap), "Reserved: DO NOT USE!") << gap;
    }
}

TEST(OrvrmCatalogue, TextsKeepTheirOwnSpacingAndEndings) {
    EXPECT_STREQ(orvrm::defaultMessageText(15), "2655-015  Duplicate member names in list.\n");
    EXPECT_STREQ(orvrm::defaultMessageText(70),
                 "2655-070 ConsoleSerialSpeed attribute must be set to a value between 1 and "
                 "230400 bps inclusive.");
    EXPECT_STREQ(orvrm::defaultMessageText(88),
                 "2655-213 Input to Kor.HwCtrlPoint resource class action, HAModeActive, is not "
                 "valid.\nValid values are 0 or 1.\n");
    EXPECT_STREQ(
        orvrm::defaultMessageText(111),
        "2655-076 Unable to acquire lock on SetupMMPeerDomain. Lock is currently in use.\n");
}

TEST(OrvrmCatalogue, EveryTextHasItsNumberPrefixAndRendersItsArguments) {
    for (int n = 1; n <= 111; ++n) {
        if (!orvrm::isValidMessageNumber(n)) {
            continue;
        }
        std::string t = orvrm::defaultMessageText(n);
        ASSERT_EQ(t.rfind("2655-", 0), 0u) << n;
        // Three string arguments cover every text; nothing may be left unformatted.
        zn::MsgArgs args = zn::collectMsgArgsV("%s%s%s", "A", "B", "C");
        std::string out = zn::formatMsg(t.c_str(), args);
        EXPECT_EQ(out.find("%1$"), std::string::npos) << n;
        EXPECT_EQ(out.find("%2$"), std::string::npos) << n;
    }
}

// The shipped gencat source must say exactly what the compiled defaults say,
// or a site that installs it would see other texts than the daemon's own.
TEST(OrvrmCatalogue, ShippedCatalogueSourceMatchesCompiledDefaults) {
    testsupport::TempDir dir;
    std::string src = std::string(ORVRM_SOURCE_DIR) + "/orvrm/Kor.ORVRM.msg";
    std::string cat = dir / "Kor.ORVRM.cat";
    ASSERT_EQ(std::system(("gencat " + cat + " " + src).c_str()), 0);
    nl_catd cd = catopen(cat.c_str(), 0);
    ASSERT_NE(cd, reinterpret_cast<nl_catd>(-1));
    for (int n = 1; n <= 111; ++n) {
        const char* got = catgets(cd, 1, n, nullptr);
        if (!orvrm::isValidMessageNumber(n)) {
            EXPECT_EQ(got, nullptr) << n;
            continue;
        }
        ASSERT_NE(got, nullptr) << n;
        EXPECT_STREQ(got, orvrm::defaultMessageText(n)) << n;
    }
    catclose(cd);
}

}  // namespace
