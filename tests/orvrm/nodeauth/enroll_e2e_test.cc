// A node's request to be managed through the running daemons: the
// administrator provisions the frame's key with orvctl's store, the node's
// signed request goes through the service, the node is defined and becomes
// "Managed"; a request signed with another key is refused with the
// catalogue's message and defines nothing.
#include <cstring>

#include "common/FrameKeyStore.h"
#include "common/NodeRequest.h"
#include "tests/orvrm/DaemonsFixture.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"
#include "znpex/client/px_client.h"

namespace {

using daemonstest::Daemons;

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

class Enrollment : public Daemons {
protected:
    void SetUp() override {
        Daemons::SetUp();
        unsigned char key[64];
        std::memset(key, 'K', sizeof key);
        sec_buffer_t local = nullptr;
        ASSERT_EQ(sec_create_host_token("mgmt", sizeof key, key, SEC_KEYTYPE_RSA1024, &local), 0);
        ASSERT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, local), 0);
        sec_release_host_token(&local);
        std::string secret, why;
        ASSERT_EQ(WEX_COMMON::FrameKeyStore().add("8233-E8B*1000ABC", &secret, &why), 0) << why;
        frameKey_ = fromHex(secret);
        ASSERT_EQ(px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &session_), PX_OK);
    }
    void TearDown() override {
        if (session_ != nullptr) {
            px_end_session(session_);
        }
    }
    // The reply's first entry, or null; `error` gets the action's error text.
    zn::SdPtr enroll(const WEX_COMMON::NodeRequestSpec& spec, std::string* error) {
        zn::SdPtr rq = WEX_COMMON::makeNodeRequest(spec);
        px_resources_rsp_t* rsp = nullptr;
        int rc = px_invoke_class_action(session_, "Kor.NodeAuthenticate", "RequestNodeManagement",
                                        rq.get(), &rsp);
        EXPECT_EQ(rc, PX_OK);
        zn::SdPtr out;
        if (rsp != nullptr) {
            const cu_error_t* e = rsp->hdr.pr_error;
            if (e == nullptr && rsp->resource_count > 0) {
                e = rsp->resources[0].error;
                if (e == nullptr && rsp->resources[0].data_count > 0) {
                    out = zn::copySd(rsp->resources[0].data[0]);
                }
            }
            if (e != nullptr && error != nullptr) {
                *error = cu_error_text(e);
            }
        }
        px_free_response(rsp);
        return out;
    }
    std::string modeOf(const std::string& host) {
        daemonstest::CliRun r =
            cli({"list", "Kor.ManagedNode", "-s", "Hostname==\"" + host + "\"", "-a", "Mode"});
        return r.out;
    }

    std::vector<uint8_t> frameKey_;
    px_session_t session_ = nullptr;
};

TEST_F(Enrollment, TheClassOpensItselfToEveryCallerInTheServicesList) {
    std::string acl = daemonstest::readFile(root_.path() + zn::paths::kAclFile);
    size_t stanza = acl.find("\nKor.NodeAuthenticate\n");
    ASSERT_NE(stanza, std::string::npos) << acl;
    EXPECT_NE(acl.find("UNAUTHENT\tC rw", stanza), std::string::npos) << acl;
    EXPECT_NE(acl.find("*\tC rw # Everyone has access to the class", stanza), std::string::npos)
        << acl;
}

TEST_F(Enrollment, SignedRequestThroughTheServiceGivesAManagedNode) {
    WEX_COMMON::NodeRequestSpec spec;
    spec.protocol = 512;
    spec.hostname = "node1.example";
    spec.universalId = 0x51;
    spec.mtms = "8233-E8B*1000ABC";
    spec.token = std::vector<uint8_t>(72, 7);
    spec.token[0] = 0xC5;
    spec.token[1] = 0xEC;
    spec.token[2] = 0x00;
    spec.token[3] = 0x01;
    spec.token[4] = 0;
    spec.token[5] = 0;
    spec.token[6] = 0x20;
    spec.token[7] = 0x02;
    spec.frameKey = frameKey_;

    WEX_COMMON::NodeRequestSpec forged = spec;
    forged.hostname = "node2.example";
    forged.universalId = 0x52;
    forged.frameKey = std::vector<uint8_t>(32, 1);
    std::string error;
    EXPECT_FALSE(enroll(forged, &error));
    EXPECT_NE(error.find("2655-043 The management server is not authorized to accept the manage "
                         "request from node node2.example."),
              std::string::npos)
        << error;

    error.clear();
    zn::SdPtr reply = enroll(spec, &error);
    ASSERT_TRUE(reply) << error;
    EXPECT_EQ(reply->element_count, 7u);
    EXPECT_TRUE(WEX_COMMON::verifyNodeReply(reply.get(), frameKey_));
    ASSERT_TRUE(daemonstest::waitFor([&] {
        return modeOf("node1.example").find("Managed") != std::string::npos;
    })) << modeOf("node1.example");
    EXPECT_EQ(modeOf("node1.example").find("PreManaged"), std::string::npos);
    EXPECT_EQ(modeOf("node2.example").find("node2"), std::string::npos) << "not defined";

    // The administrator removes the frame's key: the daemon follows at once.
    std::string why;
    ASSERT_EQ(WEX_COMMON::FrameKeyStore().remove("8233-E8B*1000ABC", &why), 0) << why;
    error.clear();
    EXPECT_FALSE(enroll(spec, &error));
    EXPECT_NE(error.find("2655-038 An error occurred when verifying the validity of the request"),
              std::string::npos)
        << error;
}

}  // namespace
