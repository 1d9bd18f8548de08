// Values typed on the command line: every type parses from its text form,
// out-of-range and malformed texts are refused with a reason, typed
// arguments need a known prefix, and values print back readably.
#include <gtest/gtest.h>

#include "tests/znpex_proto/ZnValues.h"
#include "znpex/cli/ValueText.h"

namespace zv = testsupport::zv;
using namespace znpex::cli;

namespace {

struct Good {
    zn_data_type_t type;
    const char* text;
    const char* printed;  // formatValue of the parsed value
};

const Good kGood[] = {
    {ZN_INT32, "-2147483648", "-2147483648"},
    {ZN_INT32, "0x10", "16"},
    {ZN_INT32, "010", "10"},
    {ZN_UINT32, "4294967295", "4294967295"},
    {ZN_INT64, "-9223372036854775808", "-9223372036854775808"},
    {ZN_UINT64, "18446744073709551615", "18446744073709551615"},
    {ZN_FLOAT32, "1.5", "1.5"},
    {ZN_FLOAT64, "-2e-3", "-0.002"},
    {ZN_CHAR_PTR, "text with spaces, and commas", "text with spaces, and commas"},
    {ZN_CHAR_PTR, "", ""},
    {ZN_BINARY_PTR, "0x00ff10", "0x00ff10"},
    {ZN_BINARY_PTR, "ABCD", "0xabcd"},
    {ZN_RSRC_HANDLE_PTR, "00112233445566778899aabbccddeeff10213243",
     "00112233445566778899aabbccddeeff10213243"},
    {ZN_CHAR_PTR_ARRAY, "a,b\\,c,", "{a,b,c,}"},
    {ZN_CHAR_PTR_ARRAY, "", "{}"},
    {ZN_UINT64_ARRAY, "1,18446744073709551615", "{1,18446744073709551615}"},
    {ZN_INT32_ARRAY, "-1", "{-1}"},
};

TEST(ValueText, EveryCommandLineTypeParses) {
    for (const auto& g : kGood) {
        SCOPED_TRACE(std::string(zn_data_type_name(g.type)) + " " + g.text);
        std::string why;
        auto v = parseValue(g.type, g.text, &why);
        ASSERT_TRUE(v.has_value()) << why;
        EXPECT_EQ(v->type(), g.type);
        EXPECT_EQ(formatValue(v->type(), v->value()), g.printed);
    }
    std::string why;
    auto strs = parseValue(ZN_CHAR_PTR_ARRAY, "a,b\\,c,", &why);
    ASSERT_EQ(strs->value().ptr_array->array_cnt, 3u);
    EXPECT_STREQ(strs->value().ptr_array->elements[1].ptr_char, "b,c");
    EXPECT_STREQ(strs->value().ptr_array->elements[2].ptr_char, "");
}

TEST(ValueText, MalformedTextsAreRefusedWithAReason) {
    const std::pair<zn_data_type_t, const char*> bad[] = {
        {ZN_INT32, "2147483648"},
        {ZN_INT32, "12abc"},
        {ZN_INT32, ""},
        {ZN_INT32, " 1"},
        {ZN_UINT32, "-1"},
        {ZN_UINT32, "4294967296"},
        {ZN_INT64, "9223372036854775808"},
        {ZN_UINT64, "+5"},
        {ZN_UINT64, "18446744073709551616"},
        {ZN_FLOAT32, "1e39"},
        {ZN_FLOAT64, "1.5x"},
        {ZN_BINARY_PTR, "0x123"},
        {ZN_BINARY_PTR, "zz"},
        {ZN_RSRC_HANDLE_PTR, "0011"},
        {ZN_RSRC_HANDLE_PTR, "00112233445566778899AABBCCDDEEFF10213243"},
        {ZN_SD_PTR, "x"},
        {ZN_SD_PTR_ARRAY, "x"},
        {ZN_UINT32_ARRAY, "1,x"},
    };
    for (const auto& [t, text] : bad) {
        SCOPED_TRACE(std::string(zn_data_type_name(t)) + " \"" + text + "\"");
        std::string why;
        EXPECT_FALSE(parseValue(t, text, &why).has_value());
        EXPECT_FALSE(why.empty());
    }
}

TEST(ValueText, TypedArgumentsNeedAKnownPrefix) {
    std::string why;
    auto a = parseTypedArg("int32:5", &why);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->type(), ZN_INT32);
    EXPECT_EQ(a->value().val_int32, 5);
    auto s = parseTypedArg("str:a:b", &why);
    ASSERT_TRUE(s);
    EXPECT_STREQ(s->value().ptr_char, "a:b");
    auto u = parseTypedArg("uint64:7", &why);
    ASSERT_TRUE(u);
    EXPECT_EQ(u->value().val_uint64, 7u);
    auto l = parseTypedArg("strs:a,b", &why);
    ASSERT_TRUE(l);
    EXPECT_EQ(l->type(), ZN_CHAR_PTR_ARRAY);
    EXPECT_EQ(l->value().ptr_array->array_cnt, 2u);
    for (const char* bad : {"5", "abc", "integer:5", "sd:[]", ":5", "int32:x"}) {
        EXPECT_FALSE(parseTypedArg(bad, &why).has_value()) << bad;
    }
    EXPECT_EQ(typeOfPrefix("handles"), ZN_RSRC_HANDLE_PTR_ARRAY);
    EXPECT_EQ(typeLabel(ZN_UINT64_ARRAY), "uint64s");
}

TEST(ValueText, StructuredDataAndNullsPrintReadably) {
    zn::OwnedValue sd = zv::sd(zv::list(zv::i32(1), zv::str("x"), zv::null(ZN_CHAR_PTR)));
    EXPECT_EQ(formatValue(sd.type(), sd.value()), "[int32:1, str:x, str:(null)]");
    zn::OwnedValue none = zv::null(ZN_UINT64_ARRAY);
    EXPECT_EQ(formatValue(none.type(), none.value()), "(null)");
}

}  // namespace
