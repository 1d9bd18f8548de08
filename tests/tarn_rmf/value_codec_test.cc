// The packed value encoding: every storable type survives a round trip, and
// truncated or damaged bytes are refused without reading outside the buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMValueCodec.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;
using regtest::Owned;

struct Sample {
    const char* label;
    zn_data_type_t type;
    Owned value;
};

std::vector<Sample> samples() {
    std::vector<Sample> out;
    auto add = [&](const char* label, zn_data_type_t t, zn_value_t v) {
        zn_value_t copy;
        EXPECT_TRUE(zn_value_dup(t, v, copy));
        out.push_back(Sample{label, t, Owned(t, copy)});
    };
    add("int32 negative", ZN_INT32, zn_value_t{.val_int32 = -123456});
    add("uint32 max", ZN_UINT32, zn_value_t{.val_uint32 = 0xFFFFFFFFu});
    add("int64 min", ZN_INT64, zn_value_t{.val_int64 = INT64_MIN});
    add("uint64 max", ZN_UINT64, zn_value_t{.val_uint64 = UINT64_MAX});
    add("float32", ZN_FLOAT32, zn_value_t{.val_float32 = -1.5f});
    add("float64", ZN_FLOAT64, zn_value_t{.val_float64 = 3.141592653589793});
    add("string", ZN_CHAR_PTR, zn_value_t{.ptr_char = const_cast<char*>("node1.example.com")});
    add("empty string", ZN_CHAR_PTR, zn_value_t{.ptr_char = const_cast<char*>("")});
    add("null string", ZN_CHAR_PTR, zn_value_t{.ptr_char = nullptr});
    zn_binary* bin = zn_binary_new("\0\1\2\3\xff", 5);
    add("binary", ZN_BINARY_PTR, zn_value_t{.ptr_binary = bin});
    std::free(bin);
    zn_resource_handle h = regtest::handle(77);
    add("handle", ZN_RSRC_HANDLE_PTR, zn_value_t{.ptr_rsrc_handle = &h});
    add("null handle", ZN_RSRC_HANDLE_PTR, zn_value_t{.ptr_rsrc_handle = nullptr});
    zn_array* ids = zn_array_new(3);
    ids->elements[0].val_uint64 = 1;
    ids->elements[1].val_uint64 = 0x0123456789abcdefull;
    ids->elements[2].val_uint64 = UINT64_MAX;
    add("uint64 array", ZN_UINT64_ARRAY, zn_value_t{.ptr_array = ids});
    std::free(ids);
    zn_array* names = zn_array_new(2);
    names->elements[0].ptr_char = const_cast<char*>("a");
    names->elements[1].ptr_char = const_cast<char*>("+group");
    add("string array", ZN_CHAR_PTR_ARRAY, zn_value_t{.ptr_array = names});
    std::free(names);
    zn_array* none = zn_array_new(0);
    add("empty array", ZN_INT32_ARRAY, zn_value_t{.ptr_array = none});
    std::free(none);
    add("null array", ZN_CHAR_PTR_ARRAY, zn_value_t{.ptr_array = nullptr});
    zn_structured_data* sd = zn_sd_new(3);
    sd->elements[0].data_type = ZN_INT32;
    sd->elements[0].value.val_int32 = 2;
    sd->elements[1].data_type = ZN_CHAR_PTR;
    sd->elements[1].value.ptr_char = const_cast<char*>("added");
    sd->elements[2].data_type = ZN_RSRC_HANDLE_PTR;
    sd->elements[2].value.ptr_rsrc_handle = &h;
    add("structured data", ZN_SD_PTR, zn_value_t{.ptr_sd = sd});
    std::free(sd);
    return out;
}

TEST(RegistryValueCodec, EveryTypeRoundTripsAndEveryTruncationIsRefused) {
    for (const Sample& s : samples()) {
        SCOPED_TRACE(s.label);
        std::string bytes;
        ASSERT_TRUE(rmPackValue(s.type, s.value.value(), bytes));
        const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
        const unsigned char* end = p + bytes.size();
        ASSERT_EQ(rmCheckPacked(s.type, p, end), end);
        RMValueView view;
        EXPECT_EQ(rmPackedView(s.type, p, view), end);
        zn_value_t copy;
        ASSERT_TRUE(rmCopyOut(view, copy));
        Owned back(s.type, copy);
        EXPECT_TRUE(zn_value_equal(s.type, s.value.value(), back.value()));
        // A view taken from the zn value packs to the same bytes.
        std::string again;
        ASSERT_TRUE(rmPackView(rmViewOf(s.type, s.value.value()), again));
        EXPECT_EQ(again, bytes);
        for (size_t cut = 0; cut < bytes.size(); ++cut) {
            // Exact-size heap copy so a read past the end is caught by ASan.
            std::vector<unsigned char> part(bytes.begin(), bytes.begin() + static_cast<long>(cut));
            EXPECT_EQ(rmCheckPacked(s.type, part.data(), part.data() + part.size()), nullptr)
                << "cut at " << cut;
        }
    }
}

TEST(RegistryValueCodec, MalformedEncodingsAreRefused) {
    struct Case {
        const char* label;
        zn_data_type_t type;
        std::vector<unsigned char> bytes;
    };
    const Case cases[] = {
        {"string without its NUL", ZN_CHAR_PTR, {3, 'a', 'b', 'c'}},
        {"string with an inner NUL", ZN_CHAR_PTR, {4, 'a', 0, 'c', 0}},
        {"handle presence byte 2", ZN_RSRC_HANDLE_PTR, {2}},
        {"varint longer than 5 bytes", ZN_BINARY_PTR, {0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
        {"varint above 32 bits", ZN_BINARY_PTR, {0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
        {"varint with a redundant zero byte", ZN_BINARY_PTR, {0x81, 0x00}},
        {"array count beyond the bytes", ZN_CHAR_PTR_ARRAY, {0xFF, 0xFF, 0x03, 0}},
        {"uint64 array one element short", ZN_UINT64_ARRAY, {3, 1, 0, 0, 0, 0, 0, 0, 0}},
        {"structured data with a bad element type", ZN_SD_PTR, {2, 99}},
        {"structured data element type 0", ZN_SD_PTR, {2, 0}},
        {"a type that can't be stored", ZN_NONE, {0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const unsigned char* p = c.bytes.data();
        const unsigned char* end = p + c.bytes.size();
        const unsigned char* stop = rmCheckPacked(c.type, p, end);
        EXPECT_TRUE(stop == nullptr || stop != end) << "accepted";
    }
}

TEST(RegistryValueCodec, NestingBeyondTheLimitIsRefusedBothWays) {
    // Levels of structured data, each holding the next: the limit packs, one more does not.
    auto nested = [](int levels) {
        zn_structured_data* sd = zn_sd_new(1);
        sd->elements[0].data_type = ZN_INT32;
        for (int i = 1; i < levels; ++i) {
            zn_structured_data* outer = zn_sd_new(1);
            outer->elements[0].data_type = ZN_SD_PTR;
            outer->elements[0].value.ptr_sd = sd;
            sd = outer;
        }
        return zn_value_t{.ptr_sd = sd};
    };
    for (int levels : {kZnMaxSdNesting, kZnMaxSdNesting + 1}) {
        zn_value_t top = nested(levels);
        std::string bytes;
        EXPECT_EQ(rmPackValue(ZN_SD_PTR, top, bytes), levels <= kZnMaxSdNesting) << levels;
        zn_value_free(ZN_SD_PTR, top);
    }

    // Hand-made bytes nested deeper than allowed: refused, not recursed into.
    std::string deep;
    for (int i = 0; i < kZnMaxSdNesting + 1; ++i) {
        deep.push_back(2);  // one element
        deep.push_back(static_cast<char>(ZN_SD_PTR));
    }
    deep.push_back(0);  // innermost: null
    const auto* p = reinterpret_cast<const unsigned char*>(deep.data());
    EXPECT_EQ(rmCheckPacked(ZN_SD_PTR, p + 0, p + deep.size()), nullptr);
}

TEST(RegistryValueCodec, VarintsRoundTripAtTheirByteBoundaries) {
    for (uint32_t v : {0u, 1u, 127u, 128u, 16383u, 16384u, 0x0FFFFFFFu, 0xFFFFFFFFu}) {
        std::string out;
        rmPutVarint(v, out);
        uint32_t back = 0;
        const auto* p = reinterpret_cast<const unsigned char*>(out.data());
        EXPECT_EQ(rmGetVarint(p, p + out.size(), back), p + out.size());
        EXPECT_EQ(back, v);
    }
}

}  // namespace
