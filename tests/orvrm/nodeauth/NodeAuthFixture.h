// The daemon's classes in-process with what node authentication needs under
// the test's state root: this host's public key file, a frame key store
// holding one frame's secret, and a resolver that knows the test's nodes.
// Helpers build a node's request (signed with any key) and invoke the
// class's actions.
#pragma once

#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <functional>
#include <string>
#include <vector>

#include "common/FrameKeyStore.h"
#include "common/NodeRequest.h"
#include "common/SignSD.h"
#include "orvrm/ClassList.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "platform/paths.h"
#include "tests/common/FakeResolver.h"
#include "tests/orvrm/ClassHarness.h"
#include "tests/support/Subprocess.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"

namespace nodeauthtest {

using classtest::RMReply;
using classtest::RMRequest;
using classtest::RMRequestOp;

inline constexpr char kMtms[] = "8233-E8B*1000ABC";
inline constexpr char kNode[] = "node1.example";

inline std::vector<uint8_t> bytesOf(const std::string& s) {
    return std::vector<uint8_t>(s.begin(), s.end());
}

// A node's host token (type rsa1024) around the given key bytes.
inline std::vector<uint8_t> tokenOf(const std::string& keyBytes) {
    sec_buffer_t t = nullptr;
    EXPECT_EQ(sec_create_host_token("node", static_cast<int>(keyBytes.size()),
                                    reinterpret_cast<const unsigned char*>(keyBytes.data()),
                                    SEC_KEYTYPE_RSA1024, &t),
              0);
    std::vector<uint8_t> out(static_cast<uint8_t*>(t->value),
                             static_cast<uint8_t*>(t->value) + t->length);
    sec_release_host_token(&t);
    return out;
}

// The token the trusted host list holds for a name (empty: none).
inline std::vector<uint8_t> storedToken(const std::string& name) {
    sec_buffer_t t = nullptr;
    if (sec_get_host_token(name.c_str(), &t) != 0 || t == nullptr) {
        return {};
    }
    std::vector<uint8_t> out(static_cast<uint8_t*>(t->value),
                             static_cast<uint8_t*>(t->value) + t->length);
    sec_release_host_token(&t);
    return out;
}

class NodeAuthTest : public classtest::ClassHarness {
public:
    void SetUp() override {
        // This host's public key, read into every reply.
        localToken_ = tokenOf(std::string(64, 'S'));
        sec_buffer_s local{static_cast<uint32_t>(localToken_.size()), localToken_.data()};
        std::string pub = zn::paths::resolve(zn::paths::kPublicKeyFile);
        ASSERT_EQ(zn::paths::ensureParentDir(pub), 0);
        ASSERT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, &local), 0);
        std::string secret;
        std::string why;
        ASSERT_EQ(WEX_COMMON::FrameKeyStore().add(kMtms, &secret, &why), 0) << why;
        for (size_t i = 0; i < secret.size(); i += 2) {
            frameKey_.push_back(static_cast<uint8_t>(std::stoi(secret.substr(i, 2), nullptr, 16)));
        }
        // The service's shipped list, which the class's edits start from.
        std::string acl = zn::paths::resolve(zn::paths::kAclDefaultFile);
        ASSERT_EQ(zn::paths::ensureParentDir(acl), 0);
        std::ifstream shipped(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
        std::string text(std::istreambuf_iterator<char>(shipped), {});
        std::ofstream(acl) << text;
        // The list in place as the service keeps it, and the editors' lock folder.
        std::string list = zn::paths::resolve(zn::paths::kAclFile);
        ASSERT_EQ(zn::paths::ensureParentDir(list), 0);
        std::ofstream(list) << text;
        ASSERT_EQ(zn::paths::ensureParentDir(zn::paths::resolve(zn::paths::kAclLockFile)), 0);
        resolver_.name(kNode, kNode, {"127.0.0.2"});
        resolver_.addr("127.0.0.1", "mgmt.example");
        startClasses();
    }

    // A request of node `host` / `id`, signed with the frame's key.
    WEX_COMMON::NodeRequestSpec spec(uint32_t protocol = 512, const std::string& host = kNode,
                                     uint64_t id = 0x11) {
        WEX_COMMON::NodeRequestSpec s;
        s.protocol = protocol;
        s.hostname = host;
        s.universalId = id;
        s.mtms = kMtms;
        s.token = tokenOf("key of " + host);
        s.frameKey = frameKey_;
        return s;
    }

    RMReply invoke(int action, zn::SdPtr input) {
        RMRequest r;
        r.op = RMRequestOp::InvokeClassAction;
        r.className = orvrm::kNodeAuthenticateClass;
        r.actionId = action;
        r.input = std::move(input);
        return dispatch(r);
    }
    // The input of SetACL / ClearACL for a node, signed with `key`.
    zn::SdPtr aclInput(const std::string& node, uint64_t id, const std::vector<uint8_t>& key,
                       const std::vector<std::string>& names = {}) {
        zn::SdPtr in(zn_sd_new(names.empty() ? 4 : 5));
        in->elements[1].data_type = ZN_UINT64;
        in->elements[1].value.val_uint64 = id;
        in->elements[2].data_type = ZN_CHAR_PTR;
        in->elements[2].value.ptr_char = strdup(kMtms);
        in->elements[3].data_type = ZN_CHAR_PTR;
        in->elements[3].value.ptr_char = strdup(node.c_str());
        if (!names.empty()) {
            in->elements[4].data_type = ZN_CHAR_PTR_ARRAY;
            in->elements[4].value.ptr_array = zn_array_new(static_cast<uint32_t>(names.size()));
            for (size_t i = 0; i < names.size(); ++i) {
                in->elements[4].value.ptr_array->elements[i].ptr_char = strdup(names[i].c_str());
            }
        }
        std::vector<uint8_t> k = key;
        sec_buffer_s kb{static_cast<uint32_t>(k.size()), k.data()};
        sec_buffer_s sig{};
        EXPECT_EQ(WEX_COMMON::signSD(&in->elements[1], 3, &kb, &sig), 0);
        zn_binary* b = nullptr;
        WEX_COMMON::sec2binary(&sig, b);
        sec_release_buffer(&sig);
        in->elements[0].data_type = ZN_BINARY_PTR;
        in->elements[0].value.ptr_binary = b;
        return in;
    }
    std::string aclText() { return testsupport::readFile(zn::paths::resolve(zn::paths::kAclFile)); }

    RMReply request(const WEX_COMMON::NodeRequestSpec& s) {
        zn::SdPtr rq = WEX_COMMON::makeNodeRequest(s);
        EXPECT_TRUE(rq);
        return invoke(orvrm::kNaRequestNodeManagement, std::move(rq));
    }

    orvrm::ManagedNodeRccp* nodes() {
        return rccp<orvrm::ManagedNodeRccp>(orvrm::kManagedNodeClass);
    }
    orvrm::NodeAuthenticateRccp* auth() {
        return rccp<orvrm::NodeAuthenticateRccp>(orvrm::kNodeAuthenticateClass);
    }
    size_t nodeCount() { return enumerate(orvrm::kManagedNodeClass).handles.size(); }
    // The node's mode, or "" when it is not defined.
    std::string modeOf(const std::string& host) {
        orvrm::ManagedNodeRcp* n = nodes()->getRcpByHostname(host.c_str());
        if (n == nullptr) {
            return "";
        }
        char* m = n->getMode();
        std::string out = m != nullptr ? m : "";
        std::free(m);
        n->unreserve();
        return out;
    }

    std::vector<uint8_t> localToken_;
    std::vector<uint8_t> frameKey_;
    testsupport::FakeResolver resolver_;
    zn::resolver::ScopedResolver useResolver_{resolver_};
};

}  // namespace nodeauthtest
