// The marshalled byte string is a wire contract: every row of the golden table
// pins the exact bytes for an element list, and the rejected rows pin the
// result codes and that nothing is handed out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "common/MarshalSD.h"
#include "tests/common/SdBuilder.h"
#include "tests/common/WexTraceCapture.h"

namespace {

using testsupport::SdBuilder;
using namespace std::string_literals;

struct Golden {
    const char* name;
    std::function<void(SdBuilder&)> build;
    unsigned int rc;
    std::string bytes;  // expected marshalled bytes when rc is 0
    int count = -1;     // elements passed; -1: all that were built
};

const Golden kGolden[] = {
    {"IntegersAndTextButNotTheFloat", [](SdBuilder& b) { b.i32(-5).str("ab").f64(1.5).u32(7); }, 0,
     "-5ab7"},
    {"Int64Minimum", [](SdBuilder& b) { b.i64(INT64_MIN); }, 0, "-9223372036854775808"},
    {"Int64Maximum", [](SdBuilder& b) { b.i64(INT64_MAX); }, 0, "9223372036854775807"},
    {"UInt64Maximum", [](SdBuilder& b) { b.u64(UINT64_MAX); }, 0, "18446744073709551615"},
    {"Int32Extremes", [](SdBuilder& b) { b.i32(INT32_MIN).i32(INT32_MAX); }, 0,
     "-21474836482147483647"},
    {"UInt32MaximumIsUnsigned", [](SdBuilder& b) { b.u32(UINT32_MAX); }, 0, "4294967295"},
    {"ZerosHaveOneDigitEach", [](SdBuilder& b) { b.i32(0).u32(0).i64(0).u64(0); }, 0, "0000"},
    {"NegativeSixtyFourBit", [](SdBuilder& b) { b.i64(-1).u64(1); }, 0, "-11"},
    {"BinaryDataWithoutItsLength",
     [](SdBuilder& b) {
         b.bin(
             "\x00\xff"s
             "A");
     },
     0,
     "\x00\xff"s
     "A"},
    {"MixedInIndexOrder", [](SdBuilder& b) { b.bin("k=").str("node1").u64(42).i32(-7); }, 0,
     "k=node142-7"},
    {"EmptyStringAddsNothing", [](SdBuilder& b) { b.u32(1).str("").u32(2); }, 0, "12"},
    {"ZeroLengthBinaryAddsNothing", [](SdBuilder& b) { b.u32(1).bin("").u32(2); }, 0, "12"},
    {"NullPointersAddNothing", [](SdBuilder& b) { b.str("a").raw(ZN_CHAR_PTR).raw(ZN_BINARY_PTR); },
     0, "a"},
    {"OtherTypesAreSkipped",
     [](SdBuilder& b) {
         b.u32(1).raw(ZN_UNKNOWN).raw(ZN_NONE).f32(2.5f).raw(ZN_RSRC_HANDLE_PTR).raw(ZN_SD_PTR);
         b.raw(ZN_CHAR_PTR_ARRAY).raw(ZN_UINT64_ARRAY).raw(99).raw(-3).u32(2);
     },
     0, "12"},
    {"AmbiguityKeptOneThenTwoThree", [](SdBuilder& b) { b.str("1").str("23"); }, 0, "123"},
    {"AmbiguityKeptOneTwoThenThree", [](SdBuilder& b) { b.u32(12).str("3"); }, 0, "123"},
    {"NoSeparatorsOrTerminators", [](SdBuilder& b) { b.str("a b").str("\n"); }, 0, "a b\n"},
    // Rejected inputs.
    {"CountLimitsTheElementsRead", [](SdBuilder& b) { b.u32(1).u32(2).u32(3); }, 0, "12", 2},
    {"NoElements", [](SdBuilder&) {}, 1, ""},
    {"CountZero", [](SdBuilder& b) { b.u32(5); }, 1, "", 0},
    {"CountNegative", [](SdBuilder& b) { b.u32(5); }, 1, "", -4},
    {"AllFloats", [](SdBuilder& b) { b.f32(1.0f).f64(2.0); }, 3, ""},
    {"AllEmptyStrings", [](SdBuilder& b) { b.str("").str(""); }, 3, ""},
    {"AllZeroLengthBinaries", [](SdBuilder& b) { b.bin("").bin(""); }, 3, ""},
    {"OnlySkippedTypes", [](SdBuilder& b) { b.raw(ZN_SD_PTR).raw(ZN_CHAR_PTR); }, 3, ""},
};

class MarshalGolden : public ::testing::TestWithParam<Golden> {};

TEST_P(MarshalGolden, ProducesExactBytesOrResult) {
    const Golden& g = GetParam();
    SdBuilder b;
    g.build(b);
    int sentinel = 0;
    sec_buffer_s out = {77, &sentinel};
    int count = g.count == -1 ? b.count() : g.count;
    unsigned int rc = WEX_COMMON::marshalSD(b.data(), count, out);
    ASSERT_EQ(rc, g.rc);
    if (rc != 0) {
        EXPECT_EQ(out.length, 77u) << "a refused list leaves the buffer untouched";
        EXPECT_EQ(out.value, &sentinel);
        return;
    }
    ASSERT_NE(out.value, nullptr);
    std::string got(static_cast<const char*>(out.value), out.length);
    EXPECT_EQ(got, g.bytes);
    std::free(out.value);
}

INSTANTIATE_TEST_SUITE_P(Table, MarshalGolden, ::testing::ValuesIn(kGolden),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(MarshalSDTrace, WritesTheSizeAndCopyLinesInOrder) {
    testsupport::WexTraceCapture trace;
    SdBuilder b;
    b.i32(-5).str("ab").f64(1.5).u32(7).bin("xyz").i64(-9).u64(8);
    sec_buffer_s out = {0, nullptr};
    ASSERT_EQ(WEX_COMMON::marshalSD(b.data(), b.count(), out), 0u);
    std::free(out.value);
    const std::vector<std::string> expected = {
        "marshalSD() called, count == 7",
        "adding 2 to size for ZN_INT32 type [-5]",
        "adding 2 to size for Char type [ab]",
        "adding 1 to size for ZN_INT32 type [7]",
        "adding 3 to size for Binary type",
        "adding 2 to size for ZN_INT32 type [-9]",
        "adding 1 to size for ZN_INT32 type [8]",
        "Copying 2 bytes of string [-5], was originally a ZN_INT32",
        "Copying 2 bytes of string [ab]",
        "Copying 1 bytes of string [7], was originally a ZN_UINT32",
        "Copying 3 bytes of binary data",
        "Copying 2 bytes of string [-9], was originally a ZN_INT64",
        "Copying 1 bytes of string [8], was originally a ZN_UINT64",
    };
    EXPECT_EQ(trace.lines(), expected);
}

TEST(MarshalSDTrace, FailureLinesAndNothingWhileTheFlagIsOff) {
    testsupport::WexTraceCapture trace;
    sec_buffer_s out = {0, nullptr};
    EXPECT_EQ(WEX_COMMON::marshalSD(nullptr, 0, out), 1u);
    SdBuilder b;
    b.f32(1.0f);
    EXPECT_EQ(WEX_COMMON::marshalSD(b.data(), 1, out), 3u);
    WEX_COMMON::TRACE_ENABLED = false;
    EXPECT_EQ(WEX_COMMON::marshalSD(b.data(), 1, out), 3u);
    const std::vector<std::string> expected = {
        "marshalSD() called, count == 0",
        "Data was NULL or count < 1, returning 1",
        "marshalSD() called, count == 1",
        "Size was zero, returning 3",
    };
    EXPECT_EQ(trace.lines(), expected);
}

TEST(MarshalSDTrace, RecordsGoToTheInstalledComponent) {
    static const tarn_base::tr_category_description kCats[] = {{"Errors"}, {"Info"}};
    tarn_base::CTraceComponent* other = tarn_base::CTraceManager::newComponent("_TST", kCats, 2);
    ASSERT_NE(other, nullptr);
    std::vector<std::string> seen;
    testsupport::WexTraceCapture trace;
    tarn_base::CTraceManager::setSpec("*:Errors=255,_TST:Info=1");
    tarn_base::CTraceManager::setHook(
        [&](const std::string& comp, const std::string& cat, const std::string& text) {
            seen.push_back(comp + "|" + cat + "|" + text);
        });
    WEX_COMMON::TRACE_COMP_ID = other;
    sec_buffer_s out = {0, nullptr};
    EXPECT_EQ(WEX_COMMON::marshalSD(nullptr, 0, out), 1u);
    WEX_COMMON::TRACE_COMP_ID = nullptr;
    const std::vector<std::string> expected = {
        "_TST|Info|marshalSD() called, count == 0",
        "_TST|Info|Data was NULL or count < 1, returning 1",
    };
    EXPECT_EQ(seen, expected);
}

}  // namespace
