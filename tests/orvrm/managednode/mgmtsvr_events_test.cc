// The management-server records' events: the handler table-driven with
// events made by hand (which node a record belongs to, whether it names this
// server, what each error means), then end to end with a real service and a
// scripted "Kor.ManagementServer" manager: the watch registered on a domain
// session 20 s after start ("InitDPEXInfo") and again 20 s after the
// service was lost, on the fake clock.
#include <chrono>
#include <cstring>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMRmcp.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tests/orvrm/managednode/ServiceFixture.h"
#include "znpex/client/px_event.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;
using testsupport::waitFor;

std::string primaryHostname() {
    NodePEXIface pex;
    char* p = pex.getPrimaryHostname(nullptr);
    std::string out = p;
    std::free(p);
    return out;
}

zn_resource_handle recordOf(uint64_t nodeId) {
    zn_resource_handle h{};
    h.bytes[0] = 0x5A;
    for (int k = 0; k < 8; ++k) {
        h.bytes[4 + k] = static_cast<unsigned char>(nodeId >> (56 - 8 * k));
    }
    return h;
}

// A "ConfigChanged" event (or an error event) of a record naming `server`.
px_event_2_t* recordEvent(const zn_resource_handle* record, const char* server, int32_t errnum) {
    auto* e = static_cast<px_event_2_t*>(std::calloc(1, sizeof(px_event_2_t)));
    e->hdr.pr_type = static_cast<px_response_type_t>(PX_RSP_EVENT);
    e->pe_class = strdup("Kor.ManagementServer");
    e->pe_flags = errnum != 0 ? PX_EVENT_ERROR : 0;
    e->pe_errnum = errnum;
    if (record != nullptr) {
        e->pe_has_handle = 1;
        e->pe_handle = *record;
    }
    if (server != nullptr) {
        e->pe_attrs = static_cast<px_event_attr_t*>(std::calloc(1, sizeof(px_event_attr_t)));
        e->pe_attrs[0].pe_name = strdup("Hostname");
        e->pe_attrs[0].pe_type = ZN_CHAR_PTR;
        e->pe_attrs[0].pe_value.ptr_char = strdup(server);
        e->pe_attr_count = 1;
    }
    return e;
}

class MgmtSvrEventTest : public NodeTest {};

TEST_F(MgmtSvrEventTest, ARecordOfThisServerShowsItsNodeAliveAndItsLossSilent) {
    const std::string me = primaryHostname();
    std::string shouted = me;
    for (char& c : shouted) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    zn_resource_handle m =
        defineNode("m", attrs(u64(kMnUniversalId, 77), str(kMnMode, kModeManaged))).newHandle;
    zn_resource_handle ofM = recordOf(77);
    zn_resource_handle ofNobody = recordOf(78);
    struct Case {
        const char* what;
        const zn_resource_handle* record;
        const char* server;
        int32_t errnum;
        uint32_t before;
        uint32_t after;
    };
    const Case cases[] = {
        {"a change on the node's record", &ofM, me.c_str(), 0, 0, 1},
        {"the server's name in any letter case", &ofM, shouted.c_str(), 0, 0, 1},
        {"a record of another server", &ofM, "elsewhere.example", 0, 0, 0},
        {"a record without a server name", &ofM, nullptr, 0, 0, 0},
        {"a record of no node of ours", &ofNobody, me.c_str(), 0, 0, 0},
        {"an event without a record", nullptr, me.c_str(), 0, 0, 0},
        {"the record went", &ofM, me.c_str(), 0x40004, 1, 0},
        {"its host cannot be reached", &ofM, me.c_str(), 0x4000c, 1, 0},
        {"its manager went: nothing known", &ofM, me.c_str(), 0x4000a, 1, 1},
        {"another server's record went", &ofM, "elsewhere.example", 0x40004, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        {
            tarn_rmf2v::lockRccp guard(nodes());
            nodes()->setHeartbeat("m", c.before);
        }
        ManagedNodeRccp::mgmtSvrCfgChngEvntCB(nullptr, recordEvent(c.record, c.server, c.errnum),
                                              nodes());
        EXPECT_EQ(node(m)->getStatus(), c.after);
    }
}

class MgmtSvrWatchTest : public NodeServiceTest {
protected:
    void TearDown() override {
        records_.reset();
        NodeServiceTest::TearDown();
    }
    bool registered() { return nodes()->mgmtSvrEventsRegistered(); }
    std::unique_ptr<hwctrltest::ScriptedHwCtrl> records_;
};

TEST_F(MgmtSvrWatchTest, TheWatchIsMade20SecondsAfterStartAndAgainAfterTheServiceIsLost) {
    const std::string me = primaryHostname();
    // The record is made by this host's manager: its handle carries this
    // host's node id, the node's universal id here.
    zn_resource_handle m =
        defineNode("m", attrs(u64(kMnUniversalId, rmcp().getNodeId()), str(kMnMode, kModeManaged)))
            .newHandle;
    records_ = std::make_unique<hwctrltest::ScriptedHwCtrl>(
        socket(), "/records", hwctrltest::ScriptedHwCtrl::Kind::ManagementServer);
    records_->addHost(me, 0);
    ASSERT_TRUE(records_->start());
    advance(19s);
    EXPECT_FALSE(registered());
    advance(1s);
    ASSERT_TRUE(registered());
    ASSERT_TRUE(waitFor([&] { return records_->monitored(me); }));
    records_->setPower(me, 1);
    ASSERT_TRUE(waitFor([&] { return node(m)->getStatus() == 1; }));
    records_->removeHost(me);
    ASSERT_TRUE(waitFor([&] { return node(m)->getStatus() == 0; }));

    stopService();
    ASSERT_TRUE(waitFor([&] { return !registered(); }));
    startService();
    ASSERT_TRUE(waitFor([&] { return records_->connected(); }));
    records_->addHost(me, 0);
    advance(20s);
    ASSERT_TRUE(registered());
    ASSERT_TRUE(waitFor([&] { return records_->monitored(me); }));
    records_->setPower(me, 1);
    ASSERT_TRUE(waitFor([&] { return node(m)->getStatus() == 1; }));
}

}  // namespace
}  // namespace classtest
