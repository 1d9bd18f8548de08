// Events decoded straight from their frame must equal what the parsed
// message gives; frames the direct road does not take are left to it.
#include <gtest/gtest.h>

#include <cstring>

#include "znpex/client/EventDecode.h"
#include "znpex/proto/JsonRpc.h"

namespace {

using znpex::client::eventFromParams;
using znpex::client::eventFromText;

// Floats bit for bit: the sign of a zero counts.
bool sameValue(zn_data_type_t t, const zn_value_t& a, const zn_value_t& b) {
    if (t == ZN_FLOAT64) {
        return std::memcmp(&a.val_float64, &b.val_float64, sizeof a.val_float64) == 0;
    }
    return zn_value_equal(t, a, b);
}

void expectSame(const px_event_2_t& a, const px_event_2_t& b) {
    EXPECT_EQ(a.pe_registration, b.pe_registration);
    EXPECT_STREQ(a.pe_class, b.pe_class);
    EXPECT_EQ(a.pe_flags, b.pe_flags);
    EXPECT_EQ(a.pe_errnum, b.pe_errnum);
    EXPECT_EQ(a.pe_has_handle, b.pe_has_handle);
    EXPECT_EQ(0, std::memcmp(a.pe_handle.bytes, b.pe_handle.bytes, sizeof a.pe_handle.bytes));
    ASSERT_EQ(a.pe_attr_count, b.pe_attr_count);
    for (uint32_t i = 0; i < a.pe_attr_count; ++i) {
        EXPECT_STREQ(a.pe_attrs[i].pe_name, b.pe_attrs[i].pe_name);
        EXPECT_EQ(a.pe_attrs[i].pe_id, b.pe_attrs[i].pe_id);
        ASSERT_EQ(a.pe_attrs[i].pe_type, b.pe_attrs[i].pe_type);
        EXPECT_TRUE(
            sameValue(a.pe_attrs[i].pe_type, a.pe_attrs[i].pe_value, b.pe_attrs[i].pe_value));
    }
}

const std::string kHead = R"({"jsonrpc":"2.0","method":"event.fired","params":)";
const std::string kHandle = R"("handle":"00112233445566778899aabbccddeeff00112233")";

TEST(EventDecode, PlainEventsReadAsTheParsedMessageReadsThem) {
    const std::string frames[] = {
        kHead + R"({"registration":7,"class":"Kor.Node","flags":0,)" + kHandle +
            R"(,"attributes":[{"name":"Hostname","id":1,"persistent":true,"t":8,"v":"n1"},)"
            R"({"name":"Status","id":0,"persistent":false,"t":3,"v":1}]}})",
        // Error event of a class: no handle, no attributes, members reordered.
        R"({"params":{"attributes":[],"error":262154,"flags":3,"class":"C","registration":18446744073709551615},)"
        R"("method":"event.fired","jsonrpc":"2.0"})",
        kHead + R"({"registration":1,"class":"C","flags":2,"attributes":[)"
                R"({"t":4,"v":"-42","id":-3,"name":"n"},{"name":"h","id":2,"t":10,"v":null},)"
                R"({"name":"f","id":4,"t":7,"v":"-inf"},{"name":"z","id":5,"t":7,"v":-0.0},)"
                R"({"name":"y","id":6,"t":7,"v":-0}]}})",
    };
    for (const std::string& f : frames) {
        SCOPED_TRACE(f);
        auto direct = eventFromText(f);
        ASSERT_NE(direct, nullptr);
        auto general = eventFromParams(znpex::proto::parseMessage(f).params);
        expectSame(*direct, *general);
    }
}

TEST(EventDecode, OtherFramesAreLeftToTheParsedMessage) {
    const std::string attr = R"({"name":"S","id":0,"t":3,"v":1})";
    const std::string frames[] = {
        R"({"jsonrpc":"2.0","method":"rm.attributesModified","params":{}})",
        R"({"jsonrpc":"2.0","id":3,"result":{}})",
        kHead + R"({"registration":1,"class":"C","flags":0,"attributes":[)" + attr + "],\"x\":1}}",
        kHead + R"({"registration":1,"class":"C","attributes":[)" + attr + "]}}",
        kHead + R"({"registration":-1,"class":"C","flags":0,"attributes":[]}})",
        kHead + R"({"registration":1,"class":"C","flags":4294967296,"attributes":[]}})",
        kHead + R"({"registration":1,"class":"C\u00e9","flags":0,"attributes":[]}})",
        kHead + R"({"registration":1,"class":"C","flags":0,"handle":"AB","attributes":[]}})",
        kHead +
            R"({"registration":1,"class":"C","flags":0,"attributes":[{"name":"S","id":0,"v":1,"t":3}]}})",
        kHead +
            R"({"registration":1,"class":"C","flags":0,"attributes":[{"name":"S","id":0,"t":3}]}})",
        kHead +
            R"({"registration":1,"class":"C","flags":0,"attributes":[{"name":"S","id":0,"t":11,"v":[]}]}})",
        kHead + R"({"registration":1,"class":"C","flags":0,"attributes":[)" + attr + "," + attr +
            "," + R"({"name":"S","id":0,"t":3,"v":-1}]}})",
    };
    for (const std::string& f : frames) {
        EXPECT_EQ(eventFromText(f), nullptr) << f;
    }
}

}  // namespace

namespace {

// What the general road refuses leaves nothing behind (the sanitizer build
// reports a leak otherwise).
TEST(EventDecode, RefusedAttributesLeaveNothingBehind) {
    const char* attrs[] = {
        R"({"name":"n","t":3,"v":1})",
        R"({"name":"n","id":"x","t":3,"v":1})",
        R"({"id":1,"t":3,"v":1})",
        R"({"name":"n","id":1,"t":3,"v":-1})",
    };
    for (const char* a : attrs) {
        std::string frame = kHead + R"({"registration":1,"class":"C","flags":0,"attributes":[)" +
                            R"({"name":"ok","id":0,"t":8,"v":"kept"},)" + a + "]}}";
        EXPECT_EQ(eventFromText(frame), nullptr);
        EXPECT_ANY_THROW(eventFromParams(znpex::proto::parseMessage(frame).params)) << a;
    }
}

}  // namespace
