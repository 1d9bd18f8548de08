// The direct JSON reader and writer of the hot messages. The reader may
// refuse more than the general parser (its callers then take the general
// road) but must never accept a text the general parser refuses or read one
// differently; the writer must print what dumpJson prints.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/support/ScanWalk.h"
#include "znpex/proto/Json.h"
#include "znpex/proto/JsonScan.h"
#include "znpex/proto/JsonWriter.h"

namespace {

using testsupport::numbersAsDoubles;
using testsupport::scanWalk;
using znpex::proto::Json;
using znpex::proto::JsonScan;
using znpex::proto::JsonWriter;

bool generalParses(std::string_view text, Json* out = nullptr) {
    try {
        Json j = znpex::proto::parseJson(text);
        if (out != nullptr) {
            *out = j;
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

TEST(JsonScan, ReadsWhatItTakesAsTheGeneralParserDoes) {
    const char* taken[] = {
        R"({"a":1,"b":[true,false,null],"c":{"d":"x y"}})",
        " \t\r\n[ 1 , -2 , 0 , -0 , 1.5 , -1e3 , 2E+2 , 3e-2 ] \n",
        "[18446744073709551615, -9223372036854775808, 18446744073709551616, 1e308]",
        "[9007199254740993, -9007199254740993, 0.1, 5e-324]",
        R"({"same":1,"same":2})",
        "[[[[]]],{},[{}]]",
        R"("printable ~!@#$%^&*()_+{}|:<>?`-=[];',./")",
        "{}",
    };
    for (const char* text : taken) {
        SCOPED_TRACE(text);
        std::optional<Json> scanned = scanWalk(text);
        Json general;
        ASSERT_TRUE(generalParses(text, &general));
        ASSERT_TRUE(scanned.has_value());
        EXPECT_EQ(*scanned, numbersAsDoubles(general));
    }
}

TEST(JsonScan, RefusesWhatItDoesNotFullyUnderstand) {
    // Each is refused by the scan; those the general parser takes go its way.
    struct Case {
        const char* text;
        bool general;
    } cases[] = {
        {R"(["esc\"aped"])", true},
        {"[\"caf\xc3\xa9\"]", true},
        {"[\"tab\there\"]", false},
        {"[\"\xff\"]", false},
        {"[1e400]", false},
        {"[01]", false},
        {"[1.]", false},
        {"[.5]", false},
        {"[-]", false},
        {"[1e]", false},
        {"[+1]", false},
        {"[1,]", false},
        {"[,1]", false},
        {"[1 2]", false},
        {R"({"a" 1})", false},
        {R"({"a":1,})", false},
        {R"({"a":1])", false},
        {"[1}", false},
        {"[tru]", false},
        {"[nul]", false},
        {"[truex]", false},
        {"[\"open", false},
        {"[1", false},
        {"", false},
        {"[1] x", false},
        {"{1:2}", false},
        {"NaN", false},
        {"[Infinity]", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_FALSE(scanWalk(c.text).has_value());
        EXPECT_EQ(generalParses(c.text), c.general);
    }
}

TEST(JsonScan, NestingPastTheLimitIsLeftToTheGeneralParser) {
    std::string deep(znpex::proto::kMaxJsonDepth, '[');
    deep += std::string(znpex::proto::kMaxJsonDepth, ']');
    EXPECT_TRUE(scanWalk(deep).has_value());
    std::string deeper = "[" + deep + "]";
    EXPECT_FALSE(scanWalk(deeper).has_value());
    EXPECT_FALSE(generalParses(deeper));
}

TEST(JsonScan, TypedReadsKeepToTheirRangeAndAFailureSticks) {
    struct Case {
        const char* text;
        bool asInt64;
        bool asUInt64;
    } cases[] = {
        {"9223372036854775807", true, true},
        {"9223372036854775808", false, true},
        {"-9223372036854775808", true, false},
        {"-9223372036854775809", false, false},
        {"18446744073709551615", false, true},
        {"18446744073709551616", false, false},
        {"-0", true, false},
        {"1.0", false, false},
        {"1e2", false, false},
        {"\"1\"", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        int64_t i = 0;
        uint64_t u = 0;
        JsonScan a(c.text);
        EXPECT_EQ(a.int64(i) && a.end(), c.asInt64);
        JsonScan b(c.text);
        EXPECT_EQ(b.uint64(u) && b.end(), c.asUInt64);
    }
    JsonScan s("[1, 2]");
    std::string_view text;
    ASSERT_TRUE(s.beginArray());
    ASSERT_TRUE(s.nextElement());
    EXPECT_FALSE(s.string(text));
    EXPECT_FALSE(s.ok());
    EXPECT_FALSE(s.nextElement());  // no way on after a failure
    EXPECT_FALSE(s.end());
}

TEST(JsonWriter, PrintsWhatDumpJsonPrints) {
    const std::string strings[] = {
        "plain",
        "quote \" and back\\slash",
        std::string("nul\0inside", 10),
        "\x01\x1f\x7f",
        "tab\tline\nreturn\r",
        "caf\xc3\xa9 \xe2\x82\xac",
        "bad \xff\xfe utf",
        "cut \xe2\x82",
        "",
    };
    for (const std::string& s : strings) {
        std::string out;
        JsonWriter(out).string(s);
        EXPECT_EQ(out, znpex::proto::dumpJson(Json(s)));
    }
    std::string out;
    JsonWriter w(out);
    w.beginObject().key("a").beginArray().integer(-5).unsignedInteger(18446744073709551615u);
    w.boolean(true).null().beginObject().endObject().beginArray().endArray().endArray();
    w.key("b").raw("{\"x\":1}").key("c").number(0.1).endObject();
    EXPECT_EQ(out, R"({"a":[-5,18446744073709551615,true,null,{},[]],"b":{"x":1},"c":0.1})");
    EXPECT_EQ(znpex::proto::parseJson(out)["c"].get<double>(), 0.1);
}

TEST(JsonWriter, NumbersReadBackExactly) {
    const double values[] = {0.0,
                             -0.0,
                             1.0,
                             -1.5,
                             0.1,
                             1e300,
                             -1e-300,
                             5e-324,
                             1e21,
                             1e22,
                             123456789012345678.0,
                             std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::min(),
                             3.0e-5};
    for (double d : values) {
        std::string out;
        JsonWriter(out).number(d);
        double back = znpex::proto::parseJson(out).get<double>();
        EXPECT_EQ(back, d) << out;
        EXPECT_EQ(std::signbit(back), std::signbit(d)) << out;
    }
    std::string out;
    EXPECT_THROW(JsonWriter(out).number(std::nan("")), std::invalid_argument);
    EXPECT_THROW(JsonWriter(out).number(INFINITY), std::invalid_argument);
}

}  // namespace
