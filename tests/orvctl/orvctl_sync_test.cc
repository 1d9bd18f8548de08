// orvctl node sync in a management domain of three hosts' services: the
// daemon's classes serve host 1's service (linked to it as the daemon is),
// and a node's host keeps a record of this server whose data the node
// takes; orvctl shows what that changed.
#include <nlohmann/json.hpp>

#include "common/HostNames.h"
#include "orvrm/NodePEXIface.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"
#include "tests/orvctl/OrvctlRun.h"
#include "tests/orvrm/peerdomain/PeerSetupFixture.h"
#include "tests/support/Subprocess.h"

namespace {

using nlohmann::json;
using orvctltest::orvctl;
using orvctltest::Outcome;

// The name this server goes by, as the node's record names it.
std::string serverName() {
    zn_array* own = nullptr;
    EXPECT_EQ(WEX_COMMON::fetchLocalHostPrimaryHostnames(&own, 0), 0);
    std::string name = own != nullptr ? own->elements[0].ptr_char : "";
    std::free(own);
    return name;
}

std::string primaryOf(const char* host) {
    char* p = NodePEXIface().getPrimaryHostname(host);
    std::string out = p != nullptr ? p : "";
    std::free(p);
    return out;
}

// The data a record gives: a leading element, then (attribute id, value)
// pairs, here a comment and a console speed.
zn::SdPtr recordData(const char* comment, uint32_t speed) {
    zn::SdPtr sd(zn_sd_new(5));
    sd->elements[0].data_type = ZN_UINT32;
    sd->elements[0].value.val_uint32 = 0;
    sd->elements[1].data_type = ZN_INT32;
    sd->elements[1].value.val_int32 = orvrm::kMnUserComment;
    sd->elements[2].data_type = ZN_CHAR_PTR;
    sd->elements[2].value.ptr_char = strdup(comment);
    sd->elements[3].data_type = ZN_INT32;
    sd->elements[3].value.val_int32 = orvrm::kMnConsoleSerialSpeed;
    sd->elements[4].data_type = ZN_UINT32;
    sd->elements[4].value.val_uint32 = speed;
    return sd;
}

class OrvctlSync : public peerdomaintest::PeerSetupTest {
protected:
    void SetUp() override {
        PeerSetupTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        for (int i = 0; i < 2; ++i) {
            unsigned long id = 0;
            rmcp_->start(&id);
        }
        tarn_rmf2v::RMServiceConnectionOptions o;
        o.socketPath = hosts_[0].socketPath();
        o.maxBackoff = std::chrono::milliseconds(200);
        link_ = std::make_unique<tarn_rmf2v::RMServiceConnection>(*rmcp_, o);
        link_->start();
        ASSERT_TRUE(testsupport::waitFor([&] { return link_->connected(); }));
        keepPublicationsOut();
    }
    void TearDown() override {
        // The link outlives the control point, whose threads may still use it.
        if (link_) {
            link_->stop();
        }
        PeerSetupTest::TearDown();
        link_.reset();
    }

    std::unique_ptr<tarn_rmf2v::RMServiceConnection> link_;
};

TEST_F(OrvctlSync, TheAttributesTheNodesDataChangedAreShown) {
    scripted_[1]->addRecord(serverName(), {primaryOf("127.0.0.2")},
                            recordData("from the node", 19200));
    Outcome sync = orvctl({"node", "sync", "127.0.0.2"});
    ASSERT_EQ(sync.status, 0) << sync.err;
    EXPECT_EQ(sync.out,
              "ConsoleSerialSpeed: 9600 -> 19200\n"
              "UserComment: \"\" -> from the node\n");
    EXPECT_EQ(sync.err, "");
    EXPECT_TRUE(scripted_[1]->called("ManagementServer.SyncData"));

    Outcome again = orvctl({"node", "sync", "127.0.0.2"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, "no change\n");
    Outcome asJson = orvctl({"-o", "json", "node", "sync", "127.0.0.2"});
    EXPECT_EQ(asJson.status, 0) << asJson.err;
    EXPECT_EQ(json::parse(asJson.out), json({{"changed", json::object()}}));
}

TEST_F(OrvctlSync, ChangesAreGivenAsJsonWithRawValues) {
    scripted_[2]->addRecord(serverName(), {primaryOf("127.0.0.3")}, recordData("rack 3", 115200));
    Outcome sync = orvctl({"-o", "json", "node", "sync", "127.0.0.3"});
    ASSERT_EQ(sync.status, 0) << sync.err;
    EXPECT_EQ(json::parse(sync.out),
              json({{"changed",
                     {{"ConsoleSerialSpeed", {{"old", 9600}, {"new", 115200}}},
                      {"UserComment", {{"old", ""}, {"new", "rack 3"}}}}}}));
}

TEST_F(OrvctlSync, ANodeWhoseHostKeepsNoRecordIsLeftAsItWas) {
    Outcome sync = orvctl({"node", "sync", "127.0.0.2"});
    EXPECT_EQ(sync.status, 1);
    EXPECT_EQ(sync.out, "");
    EXPECT_EQ(sync.err.rfind("orvctl: 2655-057 Could not find a resource corresponding to this "
                             "management server on the node.",
                             0),
              0u)
        << sync.err;
}

}  // namespace
