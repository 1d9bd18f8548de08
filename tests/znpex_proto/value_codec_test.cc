// Typed values on the wire: every type code round-trips through its JSON form
// exactly, the JSON form is the one the protocol states, and malformed input
// is refused with a message that names the field.
#include <cmath>
#include <functional>
#include <limits>
#include <set>

#include <gtest/gtest.h>

#include "tarn_rmf/registry/RMValueCodec.h"
#include "tests/znpex_proto/ZnValues.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

namespace zv = testsupport::zv;
using znpex::proto::Json;
using znpex::proto::ProtocolError;

namespace {

struct RoundTrip {
    const char* name;
    std::function<zn::OwnedValue()> make;
    const char* wire;  // expected JSON text of the typed value
};

zn_resource_handle seqHandle() {
    zn_resource_handle h{};
    for (unsigned i = 0; i < 20; ++i) {
        h.bytes[i] = static_cast<unsigned char>(i * 17);
    }
    return h;
}

const RoundTrip kRoundTrips[] = {
    {"int32 min", [] { return zv::i32(std::numeric_limits<int32_t>::min()); },
     R"({"t":2,"v":-2147483648})"},
    {"uint32 max", [] { return zv::u32(4294967295u); }, R"({"t":3,"v":4294967295})"},
    {"int64 min", [] { return zv::i64(std::numeric_limits<int64_t>::min()); },
     R"({"t":4,"v":"-9223372036854775808"})"},
    {"uint64 max", [] { return zv::u64(std::numeric_limits<uint64_t>::max()); },
     R"({"t":5,"v":"18446744073709551615"})"},
    {"uint64 beyond doubles", [] { return zv::u64(9007199254740993ull); },
     R"({"t":5,"v":"9007199254740993"})"},
    {"float32", [] { return zv::f32(1.5f); }, R"({"t":6,"v":1.5})"},
    {"float64", [] { return zv::f64(-0.25); }, R"({"t":7,"v":-0.25})"},
    {"float64 inf", [] { return zv::f64(-INFINITY); }, R"({"t":7,"v":"-inf"})"},
    {"string", [] { return zv::str("h\xc3\xa9llo \"q\""); }, R"({"t":8,"v":"héllo \"q\""})"},
    {"null string", [] { return zv::null(ZN_CHAR_PTR); }, R"({"t":8,"v":null})"},
    {"binary", [] { return zv::bin(std::string("\x00\xff\x10", 3)); }, R"({"t":9,"v":"AP8Q"})"},
    {"empty binary", [] { return zv::bin(""); }, R"({"t":9,"v":""})"},
    {"handle", [] { return zv::handle(seqHandle()); },
     R"({"t":10,"v":"00112233445566778899aabbccddeeff10213243"})"},
    {"null handle", [] { return zv::null(ZN_RSRC_HANDLE_PTR); }, R"({"t":10,"v":null})"},
    {"sd", [] { return zv::sd(zv::list(zv::i32(1), zv::str("x"), zv::u64(7))); },
     R"({"t":11,"v":[{"t":2,"v":1},{"t":8,"v":"x"},{"t":5,"v":"7"}]})"},
    {"empty sd", [] { return zv::sd({}); }, R"({"t":11,"v":[]})"},
    {"int32 array", [] { return zv::array(ZN_INT32_ARRAY, zv::list(zv::i32(-1), zv::i32(2))); },
     R"({"t":13,"v":[-1,2]})"},
    {"uint32 array", [] { return zv::array(ZN_UINT32_ARRAY, zv::list(zv::u32(3))); },
     R"({"t":14,"v":[3]})"},
    {"int64 array", [] { return zv::array(ZN_INT64_ARRAY, zv::list(zv::i64(-5))); },
     R"({"t":15,"v":["-5"]})"},
    {"uint64 array",
     [] { return zv::array(ZN_UINT64_ARRAY, zv::list(zv::u64(1), zv::u64(1ull << 63))); },
     R"({"t":16,"v":["1","9223372036854775808"]})"},
    {"float32 array", [] { return zv::array(ZN_FLOAT32_ARRAY, zv::list(zv::f32(0.5f))); },
     R"({"t":17,"v":[0.5]})"},
    {"float64 array", [] { return zv::array(ZN_FLOAT64_ARRAY, zv::list(zv::f64(2.0))); },
     R"({"t":18,"v":[2.0]})"},
    {"string array",
     [] { return zv::array(ZN_CHAR_PTR_ARRAY, zv::list(zv::str("a"), zv::str("b"))); },
     R"({"t":19,"v":["a","b"]})"},
    {"string array with null",
     [] { return zv::array(ZN_CHAR_PTR_ARRAY, zv::list(zv::null(ZN_CHAR_PTR))); },
     R"({"t":19,"v":[null]})"},
    {"binary array", [] { return zv::array(ZN_BINARY_PTR_ARRAY, zv::list(zv::bin("ab"))); },
     R"({"t":20,"v":["YWI="]})"},
    {"handle array",
     [] { return zv::array(ZN_RSRC_HANDLE_PTR_ARRAY, zv::list(zv::handle(seqHandle()))); },
     R"({"t":21,"v":["00112233445566778899aabbccddeeff10213243"]})"},
    {"sd array",
     [] { return zv::array(ZN_SD_PTR_ARRAY, zv::list(zv::sd(zv::list(zv::i32(4))), zv::sd({}))); },
     R"({"t":22,"v":[[{"t":2,"v":4}],[]]})"},
    {"empty array", [] { return zv::array(ZN_CHAR_PTR_ARRAY, {}); }, R"({"t":19,"v":[]})"},
    {"null array", [] { return zv::null(ZN_UINT64_ARRAY); }, R"({"t":16,"v":null})"},
    {"none", [] { return zv::null(ZN_NONE); }, R"({"t":1,"v":null})"},
};

TEST(ValueCodec, EveryTypeRoundTripsThroughItsWireForm) {
    for (const auto& c : kRoundTrips) {
        SCOPED_TRACE(c.name);
        zn::OwnedValue in = c.make();
        Json j = znpex::proto::encodeValue(in.type(), in.value());
        EXPECT_EQ(j, Json::parse(c.wire));
        zn::OwnedValue out = znpex::proto::decodeValue(Json::parse(j.dump()), "v");
        ASSERT_EQ(out.type(), in.type());
        EXPECT_TRUE(zn_value_equal(in.type(), in.value(), out.value()));
    }
}

TEST(ValueCodec, EveryTypeCodeIsCoveredByTheRoundTripTable) {
    std::set<int> covered;
    for (const auto& c : kRoundTrips) {
        covered.insert(c.make().type());
    }
    for (int code = ZN_NONE; code <= ZN_SD_PTR_ARRAY; ++code) {
        if (code != 12) {
            EXPECT_TRUE(covered.count(code)) << "type " << code;
        }
    }
}

TEST(ValueCodec, NotANumberTravelsAsText) {
    zn::OwnedValue in = zv::f64(NAN);
    Json j = znpex::proto::encodeValue(in.type(), in.value());
    EXPECT_EQ(j["v"], "nan");
    zn::OwnedValue out = znpex::proto::decodeValue(j, "v");
    EXPECT_TRUE(std::isnan(out.value().val_float64));
}

zn::OwnedValue nestedSd(int levels) {
    zn::OwnedValue v = zv::sd(zv::list(zv::i32(levels)));
    for (int i = 1; i < levels; ++i) {
        v = zv::sd(zv::list(std::move(v)));
    }
    return v;
}

TEST(ValueCodec, StructuredDataNestsUpToTheLimit) {
    zn::OwnedValue deepest = nestedSd(znpex::proto::kMaxSdDepth);
    Json j = znpex::proto::encodeValue(deepest.type(), deepest.value());
    zn::OwnedValue back = znpex::proto::decodeValue(j, "v");
    EXPECT_TRUE(zn_value_equal(ZN_SD_PTR, deepest.value(), back.value()));

    zn::OwnedValue tooDeep = nestedSd(znpex::proto::kMaxSdDepth + 1);
    EXPECT_THROW(znpex::proto::encodeValue(tooDeep.type(), tooDeep.value()), ProtocolError);
    // The same depth arriving from the wire is refused while decoding.
    Json wire = Json{{"t", 11}, {"v", Json::array({j})}};
    try {
        znpex::proto::decodeValue(wire, "v");
        FAIL() << "decoded structured data nested too deep";
    } catch (const ProtocolError& e) {
        EXPECT_NE(std::string(e.what()).find("nested deeper than 8"), std::string::npos)
            << e.what();
    }
}

TEST(ValueCodec, TheWireAndTheRegistryShareOneNestingLimitAndTypeList) {
    // What the wire accepts, the registry can keep, and the reverse.
    for (int levels : {1, kZnMaxSdNesting, kZnMaxSdNesting + 1}) {
        zn::OwnedValue v = nestedSd(levels);
        bool wire = true;
        try {
            znpex::proto::encodeValue(v.type(), v.value());
        } catch (const ProtocolError&) {
            wire = false;
        }
        std::string packed;
        bool table = tarn_rmf::rmPackValue(v.type(), v.value(), packed);
        EXPECT_EQ(wire, levels <= kZnMaxSdNesting) << levels;
        EXPECT_EQ(table, wire) << levels;
    }
    // Arrays add no level: structured data in an array in structured data is two.
    zn::OwnedValue inArray =
        zv::sd(zv::list(zv::array(ZN_SD_PTR_ARRAY, zv::list(nestedSd(kZnMaxSdNesting - 1)))));
    std::string packed;
    EXPECT_TRUE(tarn_rmf::rmPackValue(inArray.type(), inArray.value(), packed));
    EXPECT_NO_THROW(znpex::proto::encodeValue(inArray.type(), inArray.value()));
    for (int code = -1; code <= 30; ++code) {
        auto t = static_cast<zn_data_type_t>(code);
        bool value = zn_is_value_type(t);
        EXPECT_EQ(znpex::proto::isWireType(code), value || code == ZN_UNKNOWN || code == ZN_NONE)
            << code;
        EXPECT_EQ(value, (code >= ZN_INT32 && code <= ZN_SD_PTR) ||
                             (code >= ZN_INT32_ARRAY && code <= ZN_SD_PTR_ARRAY))
            << code;
    }
}

TEST(ValueCodec, UnknownCodesHaveNoWireForm) {
    zn::OwnedValue v = zv::scalar(static_cast<zn_data_type_t>(12), 0);
    EXPECT_THROW(znpex::proto::encodeValue(v.type(), v.value()), ProtocolError);
    zn::OwnedValue w = zv::scalar(static_cast<zn_data_type_t>(99), 0);
    EXPECT_THROW(znpex::proto::encodeValue(w.type(), w.value()), ProtocolError);
    w.release();
    v.release();
}

struct Rejection {
    const char* wire;
    const char* message;  // a part of the error text
};

const Rejection kRejections[] = {
    {R"([1])", "v: expected an object"},
    {R"({"v":1})", "missing field \"t\""},
    {R"({"t":2})", "missing field \"v\""},
    {R"({"t":12,"v":0})", "unknown data type 12"},
    {R"({"t":23,"v":0})", "unknown data type 23"},
    {R"({"t":-1,"v":0})", "unknown data type -1"},
    {R"({"t":"2","v":0})", "v.t: expected a 32-bit signed integer"},
    {R"({"t":2,"v":2147483648})", "v.v: expected a 32-bit signed integer"},
    {R"({"t":2,"v":1.5})", "expected a 32-bit signed integer"},
    {R"({"t":2,"v":"1"})", "expected a 32-bit signed integer"},
    {R"({"t":2,"v":null})", "null is not a value of type 2"},
    {R"({"t":3,"v":-1})", "expected a 32-bit unsigned integer"},
    {R"({"t":3,"v":4294967296})", "expected a 32-bit unsigned integer"},
    {R"({"t":4,"v":5})", "64-bit signed integer as a decimal string"},
    {R"({"t":4,"v":"9223372036854775808"})", "64-bit signed integer"},
    {R"({"t":4,"v":"-"})", "64-bit signed integer"},
    {R"({"t":4,"v":"+5"})", "64-bit signed integer"},
    {R"({"t":4,"v":" 5"})", "64-bit signed integer"},
    {R"({"t":5,"v":"-1"})", "64-bit unsigned integer"},
    {R"({"t":5,"v":"18446744073709551616"})", "64-bit unsigned integer"},
    {R"({"t":5,"v":"0x10"})", "64-bit unsigned integer"},
    {R"({"t":5,"v":""})", "64-bit unsigned integer"},
    {R"({"t":6,"v":1e300})", "out of range for a 32-bit float"},
    {R"({"t":7,"v":"NaN"})", "expected a number"},
    {R"({"t":7,"v":true})", "expected a number"},
    {R"({"t":8,"v":5})", "expected a string"},
    {R"({"t":8,"v":"a\u0000b"})", "NUL character"},
    {R"({"t":9,"v":"abc"})", "expected base64"},
    {R"({"t":9,"v":"YW I="})", "expected base64"},
    {R"({"t":10,"v":"00112233445566778899AABBCCDDEEFF00112233"})", "40 lowercase hex"},
    {R"({"t":10,"v":"0011"})", "40 lowercase hex"},
    {R"({"t":11,"v":{"t":2,"v":1}})", "v.v: expected an array"},
    {R"({"t":11,"v":[{"t":2,"v":"x"}]})", "v.v[0].v: expected a 32-bit signed integer"},
    {R"({"t":11,"v":[1]})", "v.v[0]: expected an object"},
    {R"({"t":13,"v":[1,"2"]})", "v.v[1]: expected a 32-bit signed integer"},
    {R"({"t":16,"v":[1]})", "v.v[0]: expected a 64-bit unsigned integer"},
    {R"({"t":19,"v":"a,b"})", "v.v: expected an array"},
    {R"({"t":19,"v":["a",3]})", "v.v[1]: expected a string"},
    {R"({"t":21,"v":["zz"]})", "40 lowercase hex"},
    {R"({"t":22,"v":[[{"t":99,"v":0}]]})", "v.v[0][0].t: unknown data type 99"},
    {R"({"t":1,"v":0})", "carries no value"},
};

TEST(ValueCodec, MalformedValuesAreRefusedWithTheirPath) {
    for (const auto& r : kRejections) {
        SCOPED_TRACE(r.wire);
        try {
            znpex::proto::decodeValue(Json::parse(r.wire), "v");
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_EQ(e.code(), znpex::proto::kInvalidParams);
            EXPECT_NE(std::string(e.what()).find(r.message), std::string::npos) << e.what();
        }
    }
}

TEST(ValueCodec, AttributesCarryTheirIds) {
    std::vector<tarn_rmf2v::RMReplyAttr> attrs;
    attrs.push_back({3, zv::str("node1")});
    attrs.push_back({-1, zv::u64(42)});
    Json j = znpex::proto::encodeAttrs(attrs);
    EXPECT_EQ(j, Json::parse(R"([{"id":3,"t":8,"v":"node1"},{"id":-1,"t":5,"v":"42"}])"));
    auto back = znpex::proto::decodeAttrs(j, "values");
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].id, 3);
    EXPECT_STREQ(back[0].value.value().ptr_char, "node1");
    EXPECT_EQ(back[1].value.value().val_uint64, 42u);
    EXPECT_THROW(znpex::proto::decodeAttrs(Json::parse(R"([{"t":8,"v":"x"}])"), "values"),
                 ProtocolError);
    EXPECT_THROW(znpex::proto::decodeAttrs(Json::parse(R"({"id":1})"), "values"), ProtocolError);
}

TEST(ValueCodec, HandlesAreFortyLowercaseHexDigits) {
    zn_resource_handle h = seqHandle();
    std::string hex = znpex::proto::handleToHex(h);
    EXPECT_EQ(hex, "00112233445566778899aabbccddeeff10213243");
    zn_resource_handle back{};
    ASSERT_TRUE(znpex::proto::parseHandleHex(hex, back));
    EXPECT_TRUE(back == h);
    EXPECT_FALSE(znpex::proto::parseHandleHex(hex + "0", back));
    EXPECT_FALSE(znpex::proto::parseHandleHex("g" + hex.substr(1), back));
}

}  // namespace
