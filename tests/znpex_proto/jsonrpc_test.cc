// JSON-RPC envelopes: what the helpers build is what parseMessage reads back,
// and every malformed payload is refused with the right code and, where one
// could be read, the id to answer.
#include <gtest/gtest.h>

#include "znpex/proto/JsonRpc.h"

using namespace znpex::proto;

namespace {

TEST(JsonRpc, BuiltMessagesParseBackToTheirKind) {
    RpcMessage req = parseMessage(dumpJson(makeRequest(7, "class.list", Json::object())));
    EXPECT_EQ(req.kind, RpcMessage::Kind::Request);
    EXPECT_EQ(req.id, 7);
    EXPECT_EQ(req.method, "class.list");
    EXPECT_TRUE(req.params.is_object());

    RpcMessage note = parseMessage(dumpJson(makeNotification("peer.send", {{"type", 1}})));
    EXPECT_EQ(note.kind, RpcMessage::Kind::Notification);
    EXPECT_TRUE(note.id.is_null());
    EXPECT_EQ(note.params["type"], 1);

    RpcMessage noParams = parseMessage(dumpJson(makeRequest("s-1", "service.status", nullptr)));
    EXPECT_EQ(noParams.id, "s-1");
    EXPECT_TRUE(noParams.params.is_null());

    RpcMessage res = parseMessage(dumpJson(makeResult(7, {{"ok", true}})));
    EXPECT_EQ(res.kind, RpcMessage::Kind::Result);
    EXPECT_EQ(res.result["ok"], true);

    RpcMessage err = parseMessage(dumpJson(makeError(nullptr, kParseError, "parse error")));
    EXPECT_EQ(err.kind, RpcMessage::Kind::Error);
    EXPECT_TRUE(err.id.is_null());
    EXPECT_EQ(err.errorCode, kParseError);
    EXPECT_TRUE(err.errorData.is_null());
}

TEST(JsonRpc, ErrorsCarryThePlatformErrorAsData) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, 0x10015, nullptr, "tarn.rmf.cat", 2, 21, "%1$s is not connected",
                   "Kor.ORVRM");
    RpcMessage m = parseMessage(dumpJson(makeErrorFrom(3, kNotConnected, *e)));
    cu_rel_error_1(e);
    EXPECT_EQ(m.errorCode, kNotConnected);
    EXPECT_EQ(m.errorMessage, "Kor.ORVRM is not connected");
    EXPECT_EQ(m.errorData["id"], 0x10015);
    EXPECT_EQ(m.errorData["text"], "Kor.ORVRM is not connected");
}

TEST(JsonRpc, MalformedPayloadsAreRefusedWithCodeAndId) {
    struct Case {
        std::string payload;
        int code;
        Json id;
    };
    const std::vector<Case> cases = {
        {"", kParseError, nullptr},
        {"{", kParseError, nullptr},
        {"{\"jsonrpc\":\"2.0\"} trailing", kParseError, nullptr},
        {std::string(150, '[') + std::string(150, ']'), kParseError, nullptr},
        {"[]", kInvalidRequest, nullptr},
        {R"([{"jsonrpc":"2.0","id":1,"method":"m"}])", kInvalidRequest, nullptr},
        {R"({"id":1,"method":"m"})", kInvalidRequest, 1},
        {R"({"jsonrpc":"1.0","id":"a","method":"m"})", kInvalidRequest, "a"},
        {R"({"jsonrpc":"2.0","id":{},"method":"m"})", kInvalidRequest, nullptr},
        {R"({"jsonrpc":"2.0","id":1.5,"method":"m"})", kInvalidRequest, nullptr},
        {R"({"jsonrpc":"2.0","id":2,"method":5})", kInvalidRequest, 2},
        {R"({"jsonrpc":"2.0","id":3,"method":"m","params":"x"})", kInvalidRequest, 3},
        {R"({"jsonrpc":"2.0"})", kInvalidRequest, nullptr},
        {R"({"jsonrpc":"2.0","id":4})", kInvalidRequest, 4},
        {R"({"jsonrpc":"2.0","id":5,"result":1,"error":{}})", kInvalidRequest, 5},
        {R"({"jsonrpc":"2.0","id":6,"error":{"code":"x","message":"m"}})", kInvalidRequest, 6},
        {R"({"jsonrpc":"2.0","id":7,"error":{"code":1}})", kInvalidRequest, 7},
        {R"({"jsonrpc":"2.0","id":8,"error":5})", kInvalidRequest, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.payload.substr(0, 60));
        try {
            parseMessage(c.payload);
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_EQ(e.code(), c.code) << e.what();
            EXPECT_EQ(e.id(), c.id);
        }
    }
}

TEST(JsonRpc, NestingWithinTheLimitParses) {
    std::string deep = std::string(kMaxJsonDepth - 1, '[') + std::string(kMaxJsonDepth - 1, ']');
    std::string payload = R"({"jsonrpc":"2.0","method":"m","params":)" + deep + "}";
    EXPECT_EQ(parseMessage(payload).kind, RpcMessage::Kind::Notification);
    // Brackets inside strings do not count.
    std::string inString = R"({"jsonrpc":"2.0","method":")" + std::string(500, '[') + "\"}";
    EXPECT_EQ(parseMessage(inString).method.size(), 500u);
}

TEST(JsonRpc, InvalidUtf8IsReplacedWhenPrinting) {
    Json j = makeResult(1, std::string("a\xff") + "b");
    std::string text = dumpJson(j);
    EXPECT_EQ(parseMessage(text).result,
              "a\xef\xbf\xbd"
              "b");
}

}  // namespace
