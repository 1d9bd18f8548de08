// Platform errors on the wire: every field and argument kind survives, the
// receiver renders the same text, and damaged error objects are refused.
#include <gtest/gtest.h>

#include "platform/zn_owned.h"
#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/ProtocolError.h"

using znpex::proto::decodeError;
using znpex::proto::encodeError;
using znpex::proto::Json;
using znpex::proto::ProtocolError;

namespace {

zn::ErrorPtr make(const char* text, ...) {
    // The default text decides the argument kinds, as for any caller.
    cu_error_t* e = nullptr;
    va_list ap;
    va_start(ap, text);
    cu_vpkg_error_1(&e, 0x10015, "ffdc-7", "Kor.ORVRM.cat", 1, 49, text, ap);
    va_end(ap);
    return zn::ErrorPtr(e);
}

TEST(ErrorCodec, FieldsAndTextSurvive) {
    zn::ErrorPtr e =
        make("2655-049 The following error message was returned by function %1$s: %2$s.",
             "getNodeSystemData", "boom");
    Json j = encodeError(*e);
    EXPECT_EQ(j["id"], 0x10015);
    EXPECT_EQ(j["cat"], "Kor.ORVRM.cat");
    EXPECT_EQ(j["set"], 1);
    EXPECT_EQ(j["num"], 49);
    EXPECT_EQ(j["ffdc"], "ffdc-7");
    EXPECT_EQ(j["args"], Json::parse(R"([{"t":8,"v":"getNodeSystemData"},{"t":8,"v":"boom"}])"));
    EXPECT_EQ(j["text"],
              "2655-049 The following error message was returned by function getNodeSystemData: "
              "boom.");
    zn::ErrorPtr back = decodeError(Json::parse(j.dump()), "error");
    EXPECT_EQ(back->cu_error_id, e->cu_error_id);
    EXPECT_EQ(back->cu_ffdc_id, e->cu_ffdc_id);
    EXPECT_EQ(back->cu_msg_cat, e->cu_msg_cat);
    EXPECT_EQ(back->cu_msg_set, e->cu_msg_set);
    EXPECT_EQ(back->cu_msg_num, e->cu_msg_num);
    EXPECT_EQ(back->cu_msg_default, e->cu_msg_default);
    EXPECT_EQ(cu_error_text(back.get()), cu_error_text(e.get()));
}

TEST(ErrorCodec, EveryArgumentKindRendersTheSame) {
    zn::ErrorPtr e =
        make("%1$d|%2$lld|%3$u|%4$llx|%5$.2f|%6$s|%7$s|%8$5d", -7, -9000000000000LL, 4000000000u,
             0xdeadbeefcafeULL, 2.5, "txt", static_cast<const char*>(nullptr), 42);
    Json j = encodeError(*e);
    EXPECT_EQ(j["args"][0], Json::parse(R"({"t":4,"v":"-7"})"));
    EXPECT_EQ(j["args"][2], Json::parse(R"({"t":5,"v":"4000000000"})"));
    EXPECT_EQ(j["args"][4], Json::parse(R"({"t":7,"v":2.5})"));
    EXPECT_EQ(j["args"][6], Json::parse(R"({"t":8,"v":null})"));
    zn::ErrorPtr back = decodeError(j, "error");
    ASSERT_EQ(back->cu_args.size(), 8u);
    EXPECT_EQ(back->cu_args[0].kind, zn::MsgArg::Kind::Int);
    EXPECT_EQ(back->cu_args[2].kind, zn::MsgArg::Kind::UInt);
    EXPECT_EQ(back->cu_args[4].kind, zn::MsgArg::Kind::Double);
    EXPECT_TRUE(back->cu_args[6].nullString);
    EXPECT_EQ(cu_error_text(back.get()), cu_error_text(e.get()));
    EXPECT_EQ(cu_error_text(back.get()),
              "-7|-9000000000000|4000000000|deadbeefcafe|2.50|txt|(null)|   42");
}

TEST(ErrorCodec, PointerArgumentsTravelAsTheirText) {
    int x = 0;
    zn::ErrorPtr e = make("at %1$p", static_cast<void*>(&x));
    Json j = encodeError(*e);
    EXPECT_EQ(j["args"][0]["t"], 8);
    zn::ErrorPtr back = decodeError(j, "error");
    EXPECT_EQ(cu_error_text(back.get()), cu_error_text(e.get()));
}

TEST(ErrorCodec, OnlyTheIdIsRequired) {
    zn::ErrorPtr e = decodeError(Json::parse(R"({"id":5})"), "error");
    EXPECT_EQ(e->cu_error_id, 5);
    EXPECT_TRUE(e->cu_msg_cat.empty());
    EXPECT_TRUE(e->cu_args.empty());
}

TEST(ErrorCodec, DamagedErrorsAreRefused) {
    const std::pair<const char*, const char*> bad[] = {
        {R"("oops")", "error: expected an object"},
        {R"({"cat":"x"})", "missing field \"id\""},
        {R"({"id":"5"})", "error.id: expected a 32-bit signed integer"},
        {R"({"id":1,"cat":7})", "error.cat: expected a string"},
        {R"({"id":1,"args":{}})", "error.args: expected an array"},
        {R"({"id":1,"args":[{"t":10,"v":null}]})", "error.args[0]: a message argument"},
        {R"({"id":1,"args":[{"t":8}]})", "error.args[0]: missing field \"v\""},
    };
    for (const auto& [wire, message] : bad) {
        SCOPED_TRACE(wire);
        try {
            decodeError(Json::parse(wire), "error");
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
    Json many{{"id", 1}, {"args", Json::array()}};
    for (int i = 0; i < 65; ++i) {
        many["args"].push_back(Json{{"t", 2}, {"v", i}});
    }
    EXPECT_THROW(decodeError(many, "error"), ProtocolError);
}

}  // namespace
