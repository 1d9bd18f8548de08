#include "platform/zn_types.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Builds {"a","bb"} as a string array value.
zn_value_t stringArray(const char* x, const char* y) {
    zn_value_t v;
    v.ptr_array = zn_array_new(2);
    v.ptr_array->elements[0].ptr_char = strdup(x);
    v.ptr_array->elements[1].ptr_char = strdup(y);
    return v;
}

TEST(ZnTypes, ArrayCodesMapToTheirElements) {
    EXPECT_EQ(zn_array_element_type(ZN_CHAR_PTR_ARRAY), ZN_CHAR_PTR);
    EXPECT_EQ(zn_array_element_type(ZN_UINT64_ARRAY), ZN_UINT64);
    EXPECT_EQ(zn_array_type_of(ZN_CHAR_PTR), ZN_CHAR_PTR_ARRAY);
    EXPECT_EQ(zn_array_type_of(ZN_NONE), ZN_UNKNOWN);
    EXPECT_FALSE(zn_is_array_type(ZN_SD_PTR));
    EXPECT_STREQ(zn_data_type_name(ZN_CHAR_PTR_ARRAY), "ZN_CHAR_PTR_ARRAY");
    EXPECT_EQ(zn_data_type_name(static_cast<zn_data_type_t>(99)), nullptr);
}

TEST(ZnTypes, DeepCopyOfNestedValuesIsIndependent) {
    zn_value_t sdv;
    sdv.ptr_sd = zn_sd_new(3);
    sdv.ptr_sd->elements[0].data_type = ZN_CHAR_PTR;
    sdv.ptr_sd->elements[0].value.ptr_char = strdup("node1");
    sdv.ptr_sd->elements[1].data_type = ZN_CHAR_PTR_ARRAY;
    sdv.ptr_sd->elements[1].value = stringArray("a", "bb");
    sdv.ptr_sd->elements[2].data_type = ZN_BINARY_PTR;
    sdv.ptr_sd->elements[2].value.ptr_binary = zn_binary_new("\x00\x01\x02", 3);

    zn_value_t copy;
    ASSERT_TRUE(zn_value_dup(ZN_SD_PTR, sdv, copy));
    EXPECT_TRUE(zn_value_equal(ZN_SD_PTR, sdv, copy));
    EXPECT_NE(copy.ptr_sd->elements[0].value.ptr_char, sdv.ptr_sd->elements[0].value.ptr_char);
    copy.ptr_sd->elements[1].value.ptr_array->elements[1].ptr_char[0] = 'X';
    EXPECT_FALSE(zn_value_equal(ZN_SD_PTR, sdv, copy));
    zn_value_free(ZN_SD_PTR, sdv);
    zn_value_free(ZN_SD_PTR, copy);
    EXPECT_EQ(copy.ptr_sd, nullptr);
}

TEST(ZnTypes, NullPointersCopyAndCompareAsNull) {
    zn_value_t a{}, b{};
    ASSERT_TRUE(zn_value_dup(ZN_CHAR_PTR_ARRAY, a, b));
    EXPECT_EQ(b.ptr_array, nullptr);
    EXPECT_TRUE(zn_value_equal(ZN_CHAR_PTR, a, b));
    zn_value_t s;
    s.ptr_char = strdup("x");
    EXPECT_FALSE(zn_value_equal(ZN_CHAR_PTR, a, s));
    zn_value_free(ZN_CHAR_PTR, s);
}

TEST(ZnTypes, HandlesCompareWhole) {
    zn_resource_handle a{}, b{};
    b.bytes[19] = 1;
    EXPECT_FALSE(a == b);
    a.bytes[19] = 1;
    EXPECT_TRUE(a == b);
}

}  // namespace
