#include "platform/msgfmt.h"

#include <gtest/gtest.h>

namespace {

TEST(MsgFmt, PositionalArgumentsInAnyOrder) {
    zn::MsgArgs a = zn::collectMsgArgsV("%1$s has %2$d nodes", "grp", 42);
    EXPECT_EQ(zn::formatMsg("%1$s has %2$d nodes", a), "grp has 42 nodes");
    // A translation that reorders the arguments renders the same values.
    EXPECT_EQ(zn::formatMsg("%2$d nodes in %1$s", a), "42 nodes in grp");
}

TEST(MsgFmt, SequentialFlagsWidthAndLengthModifiers) {
    zn::MsgArgs a = zn::collectMsgArgsV("%-5s|%05d|%llx|%lu|%.2f", "ab", 7,
                                        0x1234567890abcdefULL, 99UL, 2.5);
    EXPECT_EQ(zn::formatMsg("%-5s|%05d|%llx|%lu|%.2f", a), "ab   |00007|1234567890abcdef|99|2.50");
}

TEST(MsgFmt, LiteralPercentAndUnknownConversionsAreCopied) {
    zn::MsgArgs a = zn::collectMsgArgsV("100%% of %s", "x");
    EXPECT_EQ(zn::formatMsg("100%% of %s %y %", a), "100% of x %y %");
}

TEST(MsgFmt, NullStringAndMissingArgumentsNeverCrash) {
    zn::MsgArgs a = zn::collectMsgArgsV("%1$s", static_cast<const char*>(nullptr));
    EXPECT_EQ(zn::formatMsg("[%1$s]", a), "[(null)]");
    // A translated text asking for an argument that was never passed.
    EXPECT_EQ(zn::formatMsg("[%1$s][%3$s]", a), "[(null)][]");
}

TEST(MsgFmt, TypeMismatchFromTranslationRendersWhatWasPassed) {
    zn::MsgArgs a = zn::collectMsgArgsV("%1$d and %2$s", 12, "name");
    EXPECT_EQ(zn::formatMsg("%1$s and %2$d", a), "12 and name");
}

TEST(MsgFmt, PercentNIsNeverHonoured) {
    zn::MsgArgs a = zn::collectMsgArgsV("%d", 1);
    EXPECT_EQ(zn::formatMsg("%d%n", a), "1%n");
}

TEST(MsgFmt, GapInPositionsStopsCollection) {
    // Position 2 is never typed, so 3 cannot be read safely.
    zn::MsgArgs a = zn::collectMsgArgsV("%1$s %3$s", "a", "b", "c");
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].s, "a");
}

}  // namespace
