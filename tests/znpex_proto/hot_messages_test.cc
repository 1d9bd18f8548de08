// Typed values and "notify.attributesModified" on the direct text road: the
// text written is the general encoders' wire form, and whatever the scan
// accepts decodes the same the general way. What the scan refuses must still
// reach its decoder: the general road decides on it.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "tests/znpex_proto/ZnValues.h"
#include "znpex/proto/AttributesModifiedText.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/proto/ValueCodec.h"
#include "znpex/proto/ValueText.h"

namespace {

using namespace testsupport::zv;
using znpex::proto::Json;
using znpex::proto::JsonScan;
using znpex::proto::JsonWriter;

// Values of every type: those the direct road reads first, then those it
// leaves to the general one (text with escapes or beyond ASCII, binaries,
// structured data, arrays).
constexpr size_t kDirect = 17;
std::vector<zn::OwnedValue> everyType() {
    return list(null(ZN_UNKNOWN), null(ZN_NONE), i32(-2147483647 - 1), i32(7), u32(4294967295u),
                i64(-9223372036854775807 - 1), u64(18446744073709551615u), f32(-1.5f), f32(FLT_MAX),
                f64(0.1), f64(-0.0), f64(NAN), f64(-INFINITY), str("node-1.x"), null(ZN_CHAR_PTR),
                handle(handleOf(3)), null(ZN_RSRC_HANDLE_PTR), str("quo\"te caf\xc3\xa9"),
                bin(std::string("\0\1\2", 3)), sd(list(u32(1), str("a"))),
                array(ZN_UINT32_ARRAY, list(u32(1), u32(2))));
}

bool sameValue(const zn::OwnedValue& a, const zn::OwnedValue& b) {
    if (a.type() != b.type()) {
        return false;
    }
    if (a.type() == ZN_FLOAT64 && std::isnan(a.value().val_float64)) {
        return std::isnan(b.value().val_float64);
    }
    return zn_value_equal(a.type(), a.value(), b.value());
}

TEST(ValueText, EveryTypeIsWrittenAsValueCodecWritesIt) {
    std::vector<zn::OwnedValue> values = everyType();
    for (size_t i = 0; i < values.size(); ++i) {
        const zn::OwnedValue& v = values[i];
        SCOPED_TRACE(i);
        std::string text;
        JsonWriter w(text);
        w.beginObject();
        znpex::proto::writeTypedMembers(w, v.type(), v.value());
        w.endObject();
        Json want = znpex::proto::encodeValue(v.type(), v.value());
        EXPECT_EQ(znpex::proto::parseJson(text), want) << text;

        // Read back: the direct road takes scalars, text and handles, and
        // reads them as decodeValue does; the rest is left to decodeValue.
        zn::OwnedValue got;
        bool direct = i < kDirect;
        std::string bare = znpex::proto::dumpJson(want["v"]);
        JsonScan again(bare);
        EXPECT_EQ(znpex::proto::scanBareValue(again, v.type(), got) && again.end(), direct) << bare;
        if (direct) {
            EXPECT_TRUE(sameValue(got, znpex::proto::decodeValue(want, "v"))) << bare;
            EXPECT_TRUE(std::signbit(got.value().val_float64) ==
                            std::signbit(v.value().val_float64) ||
                        v.type() != ZN_FLOAT64);
        }
    }
}

TEST(ValueText, ValuesTheGeneralDecoderRefusesAreNeverTaken) {
    struct Case {
        zn_data_type_t t;
        const char* v;
    } cases[] = {
        {ZN_INT32, "2147483648"},
        {ZN_INT32, "1.0"},
        {ZN_UINT32, "-1"},
        {ZN_UINT32, "-0"},
        {ZN_UINT32, "4294967296"},
        {ZN_INT64, "5"},
        {ZN_INT64, "\"+5\""},
        {ZN_INT64, "\"9223372036854775808\""},
        {ZN_UINT64, "\"-1\""},
        {ZN_UINT64, "\"\""},
        {ZN_FLOAT32, "1e39"},
        {ZN_FLOAT64, "\"NaN\""},
        {ZN_CHAR_PTR, "5"},
        {ZN_RSRC_HANDLE_PTR, "\"ABCDEF\""},
        {ZN_RSRC_HANDLE_PTR, "\"0000000000000000000000000000000000000000ab\""},
        {ZN_NONE, "0"},
        {ZN_UINT32, "null"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.v);
        JsonScan s(c.v);
        zn::OwnedValue got;
        EXPECT_FALSE(znpex::proto::scanBareValue(s, c.t, got) && s.end());
        EXPECT_THROW(znpex::proto::decodeBareValue(c.t, znpex::proto::parseJson(c.v), "v"),
                     znpex::proto::ProtocolError);
    }
}

rm_attribute_value attr(int id, const zn::OwnedValue& v) {
    return rm_attribute_value{id, v.type(), v.value()};
}

TEST(AttributesModifiedText, NotificationReadsAsTheGeneralRoadReadsIt) {
    std::vector<zn::OwnedValue> values = everyType();
    std::vector<rm_attribute_value> attrs;
    for (size_t i = 0; i < values.size(); ++i) {
        attrs.push_back(attr(static_cast<int>(i) - 3, values[i]));
    }
    zn_resource_handle h = handleOf(9);
    for (const zn_resource_handle* handle : {static_cast<const zn_resource_handle*>(nullptr),
                                             static_cast<const zn_resource_handle*>(&h)}) {
        for (bool persistent : {false, true}) {
            std::string text = znpex::proto::attributesModifiedNotification(
                "Kor.Node", handle, persistent, attrs.data(), static_cast<unsigned>(attrs.size()));
            znpex::proto::RpcMessage m = znpex::proto::parseMessage(text);
            EXPECT_EQ(m.kind, znpex::proto::RpcMessage::Kind::Notification);
            EXPECT_EQ(m.method, znpex::proto::kNotifyAttributesModified);
            znpex::proto::AttributesModified want =
                znpex::proto::decodeAttributesModified(m.params);
            EXPECT_EQ(m.params, znpex::proto::encodeAttributesModified(want));
            // Values beyond the direct road send it the general way.
            EXPECT_FALSE(znpex::proto::scanAttributesModifiedNotification(text).has_value());

            // Scalars alone: the direct road, to the same result.
            std::vector<rm_attribute_value> scalars(attrs.begin(), attrs.begin() + kDirect);
            text = znpex::proto::attributesModifiedNotification(
                "Kor.Node", handle, persistent, scalars.data(),
                static_cast<unsigned>(scalars.size()));
            auto got = znpex::proto::scanAttributesModifiedNotification(text);
            ASSERT_TRUE(got.has_value()) << text;
            want = znpex::proto::decodeAttributesModified(znpex::proto::parseMessage(text).params);
            EXPECT_EQ(znpex::proto::encodeAttributesModified(*got),
                      znpex::proto::encodeAttributesModified(want));
        }
    }
}

TEST(AttributesModifiedText, OnlyPlainNotificationsTakeTheDirectRoad) {
    const std::string head = R"({"jsonrpc":"2.0","method":"notify.attributesModified","params":)";
    const std::string values = R"("values":[{"id":1,"t":3,"v":1}])";
    // Members in the general encoder's order are plain too.
    EXPECT_TRUE(znpex::proto::scanAttributesModifiedNotification(znpex::proto::dumpJson(
        znpex::proto::parseJson(head + R"({"class":"C","persistent":false,)" + values + "}}"))));
    const std::string refused[] = {
        R"({"jsonrpc":"2.0","id":1,"method":"notify.attributesModified","params":{"class":"C","persistent":false,"values":[]}})",
        R"({"jsonrpc":"1.0","method":"notify.attributesModified","params":{"class":"C","persistent":false,"values":[]}})",
        R"({"jsonrpc":"2.0","method":"notify.resourcesUndefined","params":{"class":"C","persistent":false,"values":[]}})",
        head + R"({"class":"C","persistent":false}})",
        head + R"({"class":"C","values":[]}})",
        head + R"({"class":"C","class":"D","persistent":false,"values":[]}})",
        head + R"({"class":"C","persistent":false,"values":[],"extra":1}})",
        head + R"({"class":"C\u0041","persistent":false,"values":[]}})",
        head + R"({"class":"C","handle":null,"persistent":false,"values":[]}})",
        head + R"({"class":"C","persistent":0,"values":[]}})",
        head + R"({"class":"C","persistent":false,"values":[{"t":3,"id":1,"v":1}]}})",
        head + R"({"class":"C","persistent":false,"values":[{"id":1,"t":3,"v":1,"w":2}]}})",
        head + R"({"class":"C","persistent":false,"values":[{"id":1,"t":3,"v":-1}]}})",
        head + R"({"class":"C","persistent":false,"values":[{"id":1,"t":99,"v":1}]}})",
        head + R"({"class":"C","persistent":false,"values":[]}} )" + "x",
    };
    for (const std::string& text : refused) {
        EXPECT_FALSE(znpex::proto::scanAttributesModifiedNotification(text).has_value()) << text;
    }
}

}  // namespace
