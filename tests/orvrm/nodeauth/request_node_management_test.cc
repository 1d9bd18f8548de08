// "RequestNodeManagement" through the class's dispatch: every protocol's
// reply, every refusal with its catalogue message, the signature checks and
// a replayed request.
#include <arpa/inet.h>

#include <filesystem>

#include "tests/orvrm/nodeauth/NodeAuthFixture.h"

namespace nodeauthtest {
namespace {

using orvrm::kNaRequestNodeManagement;

const zn_structured_data& replyOf(const RMReply& r) {
    static zn_structured_data empty{};
    return r.actionData.empty() || !r.actionData[0] ? empty : *r.actionData[0];
}

std::vector<std::string> namesAt(const zn_structured_data& sd, uint32_t i) {
    std::vector<std::string> out;
    if (i >= sd.element_count || sd.elements[i].data_type != ZN_CHAR_PTR_ARRAY) {
        return out;
    }
    const zn_array* a = sd.elements[i].value.ptr_array;
    for (uint32_t k = 0; a != nullptr && k < a->array_cnt; ++k) {
        out.emplace_back(a->elements[k].ptr_char);
    }
    return out;
}

TEST_F(NodeAuthTest, EveryProtocolGetsItsReplyAndManagesTheNode) {
    struct Case {
        uint32_t protocol;
        uint32_t elements;
        bool signedReply;
    };
    // The unsigned protocols need the domain to take unknown nodes.
    ASSERT_NE(rccp<orvrm::OrvCtrlRccp>(orvrm::kOrvCtrlClass), nullptr);
    rccp<orvrm::OrvCtrlRccp>(orvrm::kOrvCtrlClass)->setAddUnrecognizedNodes(1);
    const Case cases[] = {
        {0, 7, false}, {1, 11, false}, {512, 7, true}, {513, 11, true}, {514, 11, true}};
    uint64_t id = 0x100;
    for (const Case& c : cases) {
        SCOPED_TRACE("protocol " + std::to_string(c.protocol));
        std::string host = "n" + std::to_string(c.protocol) + ".example";
        resolver_.name(host, host, {"127.0.0.2"});
        WEX_COMMON::NodeRequestSpec s = spec(c.protocol, host, ++id);
        RMReply r = request(s);
        ASSERT_FALSE(r.error) << classtest::errorText(r.error);
        const zn_structured_data& reply = replyOf(r);
        ASSERT_EQ(reply.element_count, c.elements);
        ASSERT_EQ(reply.elements[0].data_type, ZN_BINARY_PTR);
        if (c.signedReply) {
            EXPECT_TRUE(WEX_COMMON::verifyNodeReply(&reply, frameKey_));
            EXPECT_FALSE(WEX_COMMON::verifyNodeReply(&reply, bytesOf("another key")));
        } else {
            ASSERT_NE(reply.elements[0].value.ptr_binary, nullptr);
            EXPECT_EQ(reply.elements[0].value.ptr_binary->length, 0u);
        }
        EXPECT_EQ(reply.elements[1].value.val_uint64, rmcp().getNodeId());
        const zn_binary* token = reply.elements[2].value.ptr_binary;
        ASSERT_NE(token, nullptr);
        EXPECT_EQ(std::vector<uint8_t>(token->data, token->data + token->length), localToken_);
        EXPECT_EQ(reply.elements[3].value.val_int32, 10);
        EXPECT_EQ(reply.elements[5].value.val_int32, 11);
        if (c.elements == 11) {
            EXPECT_EQ(reply.elements[7].value.val_int32, 9);
            EXPECT_EQ(reply.elements[9].value.val_int32, 1000);
            std::vector<std::string> seen = namesAt(reply, 10);
            ASSERT_EQ(seen.size(), 1u);
            in_addr a{};
            bool dotted = inet_pton(AF_INET, seen[0].c_str(), &a) == 1;
            EXPECT_EQ(dotted, c.protocol == 514) << seen[0];
        }
        EXPECT_EQ(modeOf(host), "Managed");
        EXPECT_EQ(storedToken(host), s.token);
    }
    EXPECT_EQ(nodeCount(), 5u);
}

TEST_F(NodeAuthTest, RefusalsCarryTheirMessageAndDefineNothing) {
    struct Case {
        const char* what;
        std::function<zn::SdPtr(NodeAuthTest&)> make;
        int errorId;
        const char* message;
    };
    auto tweak = [](std::function<void(WEX_COMMON::NodeRequestSpec&)> f) {
        return [f](NodeAuthTest& t) {
            WEX_COMMON::NodeRequestSpec s = t.spec();
            f(s);
            return WEX_COMMON::makeNodeRequest(s);
        };
    };
    auto edit = [](std::function<void(zn_structured_data&)> f) {
        return [f](NodeAuthTest& t) {
            zn::SdPtr rq = WEX_COMMON::makeNodeRequest(t.spec());
            f(*rq);
            return rq;
        };
    };
    const Case cases[] = {
        {"no input", [](NodeAuthTest&) { return zn::SdPtr(); }, 266, "2655-028"},
        {"five elements", edit([](zn_structured_data& rq) {
             zn_value_free(rq.elements[5].data_type, rq.elements[5].value);
             rq.element_count = 5;
         }),
         266, "2655-028"},
        {"id as an INT64",
         edit([](zn_structured_data& rq) { rq.elements[3].data_type = ZN_INT64; }), 266,
         "2655-029"},
        {"protocol as an INT32",
         edit([](zn_structured_data& rq) { rq.elements[0].data_type = ZN_INT32; }), 266,
         "2655-029"},
        {"empty host name", tweak([](auto& s) { s.hostname = ""; }), 266, "2655-050"},
        {"node id 0", tweak([](auto& s) { s.universalId = 0; }), 266, "2655-050"},
        {"protocol 2", tweak([](auto& s) { s.protocol = 2; }), 267,
         "2655-043 The management server is not authorized to accept the manage request from "
         "node node1.example."},
        {"unknown MTMS", tweak([](auto& s) { s.mtms = "9999-XXX*0000000"; }), 267, "2655-038"},
        {"wrong key", tweak([](auto& s) { s.frameKey = bytesOf("not the frame's key"); }), 267,
         "2655-043"},
        {"tampered host name after signing", edit([](zn_structured_data& rq) {
             std::free(rq.elements[2].value.ptr_char);
             rq.elements[2].value.ptr_char = strdup("node2.example");
         }),
         267, "2655-043"},
        {"tampered token after signing",
         edit([](zn_structured_data& rq) { rq.elements[5].value.ptr_binary->data[0] ^= 1; }), 267,
         "2655-043"},
        {"unsigned protocol, unknown node, domain takes none",
         tweak([](auto& s) { s.protocol = 0; }), 267, "2655-043"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RMReply r = invoke(kNaRequestNodeManagement, c.make(*this));
        ASSERT_TRUE(r.error);
        EXPECT_EQ(classtest::errorId(r.error), c.errorId);
        EXPECT_NE(classtest::errorText(r.error).find(c.message), std::string::npos)
            << classtest::errorText(r.error);
        EXPECT_TRUE(r.actionData.empty());
        EXPECT_EQ(nodeCount(), 0u);
        EXPECT_TRUE(storedToken(kNode).empty());
    }
}

TEST_F(NodeAuthTest, FailuresAfterTheChecksCarryTheirMessages) {
    // The node's value is refused by the node class: 2655-044, nothing defined.
    WEX_COMMON::NodeRequestSpec s = spec();
    zn::SdPtr base = WEX_COMMON::makeNodeRequest(s);
    zn::SdPtr rq(zn_sd_new(8));
    for (uint32_t i = 0; i < 6; ++i) {
        rq->elements[i] = base->elements[i];
        base->elements[i].data_type = ZN_UNKNOWN;
    }
    rq->elements[6].data_type = ZN_INT32;
    rq->elements[6].value.val_int32 = orvrm::kMnConsoleSerialSpeed;
    rq->elements[7].data_type = ZN_UINT32;
    rq->elements[7].value.val_uint32 = 0;
    RMReply r = invoke(kNaRequestNodeManagement, std::move(rq));
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find("2655-044 Create or Update of the node resource "
                                                 "failed."),
              std::string::npos)
        << classtest::errorText(r.error);
    EXPECT_EQ(nodeCount(), 0u);

    // This host's key file is gone: 2655-041.
    std::filesystem::remove(zn::paths::resolve(zn::paths::kPublicKeyFile));
    r = request(spec());
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find("2655-041 An error occurred when retrieving the "
                                                 "public key of the management server."),
              std::string::npos)
        << classtest::errorText(r.error);
    EXPECT_EQ(nodeCount(), 0u);
}

TEST_F(NodeAuthTest, UnsignedProtocolFollowsTheNodesFlagAndTheDomainSetting) {
    // A node the administrator defined and allowed to ask.
    define(orvrm::kManagedNodeClass,
           classtest::attrs(classtest::str(orvrm::kMnHostname, kNode),
                            classtest::u64(orvrm::kMnUniversalId, 0x11),
                            classtest::u32(orvrm::kMnAllowManageRequest, 1)));
    RMReply r = request(spec(0));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    EXPECT_EQ(modeOf(kNode), "Managed");
    // The permission was for once: asking again is refused.
    r = request(spec(0));
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find("2655-043"), std::string::npos);
}

TEST_F(NodeAuthTest, ReplayedRequestChangesNothingNew) {
    WEX_COMMON::NodeRequestSpec s = spec();
    s.ownNames = {"node1"};
    zn::SdPtr first = WEX_COMMON::makeNodeRequest(s);
    zn::SdPtr again = zn::copySd(first.get());
    RMReply r = invoke(kNaRequestNodeManagement, std::move(first));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    std::string thl = testsupport::readFile(zn::paths::resolve(zn::paths::kThlFile));
    std::string owners = testsupport::readFile(zn::paths::resolve(zn::paths::kThlOwnersFile));
    r = invoke(kNaRequestNodeManagement, std::move(again));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    EXPECT_EQ(nodeCount(), 1u);
    EXPECT_EQ(modeOf(kNode), "Managed");
    EXPECT_EQ(storedToken("node1"), s.token);
    // The same token under the same names: the list's live records are the same.
    EXPECT_EQ(testsupport::readFile(zn::paths::resolve(zn::paths::kThlOwnersFile)), owners);
    EXPECT_EQ(testsupport::readFile(zn::paths::resolve(zn::paths::kThlFile)).size(), thl.size());
}

TEST_F(NodeAuthTest, TaggedValuesDescribeTheNodeButNotWhatTheServerDecides) {
    WEX_COMMON::NodeRequestSpec s = spec();
    zn::SdPtr base = WEX_COMMON::makeNodeRequest(s);
    zn::SdPtr rq(zn_sd_new(10));
    for (uint32_t i = 0; i < 6; ++i) {
        rq->elements[i] = base->elements[i];
        base->elements[i].data_type = ZN_UNKNOWN;
    }
    rq->elements[6].data_type = ZN_INT32;
    rq->elements[6].value.val_int32 = orvrm::kMnHWModel;
    rq->elements[7].data_type = ZN_CHAR_PTR;
    rq->elements[7].value.ptr_char = strdup("E8B");
    rq->elements[8].data_type = ZN_INT32;
    rq->elements[8].value.val_int32 = orvrm::kMnMode;
    rq->elements[9].data_type = ZN_CHAR_PTR;
    rq->elements[9].value.ptr_char = strdup("MinManaged");
    std::vector<rm_attribute_value> values =
        orvrm::NodeAuthenticateRccp::getNodeSystemData(rq.get());
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].rm_attribute_id, orvrm::kMnHostname);
    EXPECT_EQ(values[1].rm_attribute_id, orvrm::kMnUniversalId);
    EXPECT_EQ(values[2].rm_attribute_id, orvrm::kMnHWModel);
    RMReply r = invoke(kNaRequestNodeManagement, std::move(rq));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    EXPECT_EQ(modeOf(kNode), "Managed");
}

}  // namespace
}  // namespace nodeauthtest
