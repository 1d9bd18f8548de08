// The class's other actions: supported protocols, the node status command,
// stopping status logs, the peer-domain set-up with its refusals, the access
// control entries, unknown actions, and the class's own entries at start.
#include <sys/stat.h>

#include <thread>

#include "tests/orvrm/nodeauth/NodeAuthFixture.h"

namespace nodeauthtest {
namespace {

using namespace orvrm;

zn::SdPtr statusInput(const char* node, zn_data_type_t codeType, uint32_t code,
                      const char* message) {
    zn::SdPtr in(zn_sd_new(3));
    in->elements[0].data_type = ZN_CHAR_PTR;
    in->elements[0].value.ptr_char = node != nullptr ? strdup(node) : nullptr;
    in->elements[1].data_type = codeType;
    in->elements[1].value.val_uint32 = code;
    in->elements[2].data_type = ZN_CHAR_PTR;
    in->elements[2].value.ptr_char = message != nullptr ? strdup(message) : nullptr;
    return in;
}

// An entry line as the list editor writes it.
std::string aclLine(const char* identity, const char* type, const char* perms,
                    const char* comment) {
    char line[512];
    std::snprintf(line, sizeof line, "\t%30s\t%s %-2s # %s\n", identity, type, perms, comment);
    return line;
}

int32_t int32Answer(const RMReply& r) {
    if (r.actionData.empty() || !r.actionData[0] || r.actionData[0]->element_count != 1 ||
        r.actionData[0]->elements[0].data_type != ZN_INT32) {
        ADD_FAILURE() << "no INT32 answer: " << classtest::errorText(r.error);
        return 999;
    }
    return r.actionData[0]->elements[0].value.val_int32;
}

TEST_F(NodeAuthTest, SupportedProtocolsAreOneAndTheMask) {
    RMReply r = invoke(kNaSupportedProtocols, nullptr);
    ASSERT_FALSE(r.error);
    ASSERT_EQ(r.actionData.size(), 1u);
    const zn_structured_data& sd = *r.actionData[0];
    ASSERT_EQ(sd.element_count, 2u);
    EXPECT_EQ(sd.elements[0].data_type, ZN_UINT64);
    EXPECT_EQ(sd.elements[0].value.val_uint64, 1u);
    EXPECT_EQ(sd.elements[1].value.val_uint64, 0x1Fu);
}

TEST_F(NodeAuthTest, UnknownActionIsNotSupported) {
    RMReply r = invoke(7, nullptr);
    EXPECT_EQ(classtest::errorId(r.error), 0x1000E);
    EXPECT_NE(classtest::errorText(r.error).find("invokeClassAction"), std::string::npos);
}

TEST_F(NodeAuthTest, StatusCommandRunsOnlyForValidRequestsOfLoggingNodes) {
    std::string cmd = zn::paths::resolve(zn::paths::kNodeStatus);
    ASSERT_EQ(zn::paths::ensureParentDir(cmd), 0);
    std::string args = root_ / "status.args";
    std::ofstream(cmd) << "#!/bin/sh\necho \"$@\" > '" << args << "'\nexit 3\n";
    ::chmod(cmd.c_str(), 0755);
    define(kManagedNodeClass,
           classtest::attrs(classtest::str(kMnHostname, "logs"),
                            classtest::u32(kMnControlFlag, ManagedNodeRccp::kControlStatusLogs)));
    define(kManagedNodeClass, classtest::attrs(classtest::str(kMnHostname, "quiet")));

    struct Case {
        const char* what;
        zn::SdPtr in;
        int32_t answer;
    };
    std::string long513(513, 'x');
    Case cases[] = {
        {"no input", nullptr, -1},
        {"null node", statusInput(nullptr, ZN_UINT32, 1, "m"), -1},
        {"code 0", statusInput("logs", ZN_UINT32, 0, "m"), -1},
        {"code 4", statusInput("logs", ZN_UINT32, 4, "m"), -1},
        {"code as INT32", statusInput("logs", ZN_INT32, 1, "m"), -1},
        {"quote in message", statusInput("logs", ZN_UINT32, 1, "it's"), -1},
        {"bang in message", statusInput("logs", ZN_UINT32, 1, "up!"), -1},
        {"513 characters", statusInput("logs", ZN_UINT32, 1, long513.c_str()), -1},
        {"node without status logs", statusInput("quiet", ZN_UINT32, 1, "m"), -1},
        {"unknown node", statusInput("nobody", ZN_UINT32, 1, "m"), -1},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(int32Answer(invoke(kNaInvokeInstMsgCmd, std::move(c.in))), c.answer);
    }
    EXPECT_TRUE(testsupport::readFile(args).empty()) << "nothing ran for a refused request";

    std::string long512(512, 'y');
    EXPECT_EQ(int32Answer(invoke(kNaInvokeInstMsgCmd,
                                 statusInput("logs", ZN_UINT32, 2, "disk $(rm -rf x) full"))),
              3);
    // Arguments, not a shell: the text arrives as words, unexpanded.
    EXPECT_EQ(testsupport::readFile(args), "2 logs disk $(rm -rf x) full\n");
    EXPECT_EQ(int32Answer(
                  invoke(kNaInvokeInstMsgCmd, statusInput("logs", ZN_UINT32, 3, long512.c_str()))),
              3);
    EXPECT_EQ(int32Answer(invoke(kNaInvokeInstMsgCmd, statusInput("logs", ZN_UINT32, 1, nullptr))),
              3);
    EXPECT_EQ(testsupport::readFile(args), "1 logs\n");
}

TEST_F(NodeAuthTest, StopStatusLoggingClearsTheNodesFlag) {
    define(kManagedNodeClass,
           classtest::attrs(classtest::str(kMnHostname, "logs"),
                            classtest::u32(kMnControlFlag, ManagedNodeRccp::kControlStatusLogs)));
    zn::SdPtr empty(zn_sd_new(1));
    empty->elements[0].data_type = ZN_CHAR_PTR;
    empty->elements[0].value.ptr_char = strdup("");
    EXPECT_EQ(int32Answer(invoke(kNaStopStatusLogging, std::move(empty))), -1);
    EXPECT_EQ(int32Answer(invoke(kNaStopStatusLogging, nullptr)), -1);
    EXPECT_EQ(nodes()->isAllowStatusLogs("logs"), 1);
    EXPECT_EQ(int32Answer(invoke(kNaStopStatusLogging, statusInput("logs", ZN_UINT32, 1, "m"))), 0);
    EXPECT_EQ(nodes()->isAllowStatusLogs("logs"), 0);
}

zn::SdPtr peerInput(const char* mtms, uint64_t id, const std::vector<uint8_t>& key) {
    zn::SdPtr in(zn_sd_new(3));
    in->elements[1].data_type = ZN_CHAR_PTR;
    in->elements[1].value.ptr_char = strdup(mtms);
    in->elements[2].data_type = ZN_UINT64;
    in->elements[2].value.val_uint64 = id;
    std::vector<uint8_t> k = key;
    sec_buffer_s kb{static_cast<uint32_t>(k.size()), k.data()};
    sec_buffer_s sig{};
    EXPECT_EQ(WEX_COMMON::signSD(&in->elements[1], 2, &kb, &sig), 0);
    zn_binary* b = nullptr;
    WEX_COMMON::sec2binary(&sig, b);
    sec_release_buffer(&sig);
    in->elements[0].data_type = ZN_BINARY_PTR;
    in->elements[0].value.ptr_binary = b;
    return in;
}

TEST_F(NodeAuthTest, PeerDomainSetUpIsSignedAndOneAtATime) {
    RMReply r = invoke(kNaSetupMMPeerDomain, peerInput(kMtms, 0x11, bytesOf("wrong key")));
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find(
                  "2655-071 The management server is not authorized to accept the PeerDomain "
                  "setup request from node 0x0000000000000011."),
              std::string::npos)
        << classtest::errorText(r.error);

    r = invoke(kNaSetupMMPeerDomain, peerInput("0000-000*UNKNOWN", 0x11, frameKey_));
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find("2655-046"), std::string::npos);

    {
        // A set-up in progress holds the lock: the next is refused, not queued.
        std::lock_guard<std::mutex> busy(auth()->peerDomainMutex());
        std::thread other(
            [&] { r = invoke(kNaSetupMMPeerDomain, peerInput(kMtms, 0x11, frameKey_)); });
        other.join();
    }
    EXPECT_EQ(classtest::errorId(r.error), 271);
    EXPECT_NE(classtest::errorText(r.error).find("2655-076 Unable to acquire lock on "
                                                 "SetupMMPeerDomain"),
              std::string::npos);

    // Free again: the node without a partner gives the set-up's -1.
    r = invoke(kNaSetupMMPeerDomain, peerInput(kMtms, 0x11, frameKey_));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    EXPECT_EQ(int32Answer(r), -1);
}

TEST_F(NodeAuthTest, ClassEntriesAreInTheListFromStart) {
    std::string acl = aclText();
    EXPECT_NE(acl.find("Kor.NodeAuthenticate\n"), std::string::npos) << acl;
    EXPECT_NE(acl.find(aclLine("*", "C", "rw", "Everyone has access to the class")),
              std::string::npos)
        << acl;
    EXPECT_NE(acl.find(aclLine("UNAUTHENT", "C", "rw", "")), std::string::npos) << acl;
}

TEST_F(NodeAuthTest, AccessEntriesAreGrantedAndWithdrawnOnSignedRequests) {
    WEX_COMMON::NodeRequestSpec s = spec();
    s.ownNames = {"node1"};
    ASSERT_FALSE(request(s).error);
    const std::string entry =
        aclLine("root@node1.example", "R", "r", "grant root on node1.example read access");

    struct Refusal {
        const char* what;
        zn::SdPtr in;
        int id;
        const char* message;
    };
    zn::SdPtr three = aclInput(kNode, 0x11, frameKey_);
    zn_value_free(three->elements[3].data_type, three->elements[3].value);
    three->element_count = 3;
    Refusal refusals[] = {
        {"three elements", std::move(three), 0x18000, "2655-200"},
        {"no input", nullptr, 0x18000, "2655-200"},
        {"wrong key", aclInput(kNode, 0x11, bytesOf("wrong")), 0x18000,
         "2655-201 Node was not authenticated - action ignored."},
    };
    for (Refusal& c : refusals) {
        SCOPED_TRACE(c.what);
        RMReply r = invoke(kNaSetACL, std::move(c.in));
        EXPECT_EQ(classtest::errorId(r.error), c.id);
        EXPECT_NE(classtest::errorText(r.error).find(c.message), std::string::npos)
            << classtest::errorText(r.error);
        EXPECT_EQ(aclText().find(entry), std::string::npos);
    }

    RMReply r = invoke(kNaSetACL, aclInput(kNode, 0x11, frameKey_));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    std::string acl = aclText();
    EXPECT_NE(acl.find("Kor.ManagedNode\n" + entry), std::string::npos) << acl;

    // Withdrawn: the entry goes and the node's own names leave the list;
    // a name of another node given alongside stays.
    ASSERT_FALSE(request(spec(512, "other.example", 0x22)).error);
    r = invoke(kNaClearACL, aclInput(kNode, 0x11, frameKey_, {"node1", "other.example"}));
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    EXPECT_EQ(aclText().find("root@node1.example"), std::string::npos);
    EXPECT_TRUE(storedToken("node1").empty());
    EXPECT_FALSE(storedToken("other.example").empty());
}

}  // namespace
}  // namespace nodeauthtest
