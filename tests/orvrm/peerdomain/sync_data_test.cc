// The node's action syncData end to end: the daemon asks the management-
// server record on the node's host (through a domain-scoped session) for the
// node's data, applies what it may change, and answers with what it
// applied; plus removing a record and watching the records' configuration.
#include "common/HostNames.h"
#include "orvrm/NodePEXIface.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "tests/orvrm/peerdomain/PeerSetupFixture.h"
#include "znpex/client/px_event.h"

namespace peerdomaintest {
namespace {

using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

std::string serverName() {
    zn_array* own = nullptr;
    EXPECT_EQ(WEX_COMMON::fetchLocalHostPrimaryHostnames(&own, 0), 0);
    std::string name = own != nullptr ? own->elements[0].ptr_char : "";
    std::free(own);
    return name;
}

std::string primaryOf(const char* host) {
    char* p = NodePEXIface().getPrimaryHostname(host);
    std::string out = p;
    std::free(p);
    return out;
}

// Structured data from (type, value) elements; texts are copied.
zn::SdPtr sdOf(std::vector<std::pair<zn_data_type_t, zn_value_t>> elements) {
    zn::SdPtr sd(zn_sd_new(static_cast<uint32_t>(elements.size())));
    for (size_t i = 0; i < elements.size(); ++i) {
        sd->elements[i].data_type = elements[i].first;
        zn_value_dup(elements[i].first, elements[i].second, sd->elements[i].value);
    }
    return sd;
}
zn_value_t num(uint32_t n) {
    zn_value_t v{};
    v.val_uint32 = n;
    return v;
}
zn_value_t id(int32_t n) {
    zn_value_t v{};
    v.val_int32 = n;
    return v;
}
zn_value_t txt(const char* s) {
    zn_value_t v{};
    v.ptr_char = const_cast<char*>(s);
    return v;
}

class SyncDataTest : public PeerSetupTest {
protected:
    zn_resource_handle handleOf(uint64_t universalId) {
        orvrm::ManagedNodeRcp* n = nodes()->getRcpByUniversalId(universalId);
        zn_resource_handle h = *n->getResourceHandle();
        n->unreserve();
        return h;
    }
    RMReply syncData(uint64_t universalId, uint32_t elements = 1) {
        RMRequest r;
        r.op = RMRequestOp::InvokeAction;
        r.className = orvrm::kManagedNodeClass;
        r.handle = handleOf(universalId);
        r.actionId = orvrm::kMnSyncData;
        r.input.reset(zn_sd_new(elements));
        for (uint32_t i = 0; i < elements; ++i) {
            r.input->elements[i].data_type = ZN_UINT32;
        }
        return rmcp_->dispatchSync(r);
    }
};

TEST_F(SyncDataTest, TheRecordOnTheNodesHostGivesTheNodeItsData) {
    const int kUserComment = orvrm::kMnUserComment, kSpeed = orvrm::kMnConsoleSerialSpeed;
    scripted_[1]->addRecord(serverName(), {primaryOf("127.0.0.2")},
                            sdOf({{ZN_UINT32, num(0)},
                                  {ZN_INT32, id(kUserComment)},
                                  {ZN_CHAR_PTR, txt("from the node")},
                                  {ZN_INT32, id(kSpeed)},
                                  {ZN_UINT32, num(19200)},
                                  {ZN_INT32, id(orvrm::kMnName)},
                                  {ZN_CHAR_PTR, txt("kept")},
                                  {ZN_INT32, id(47)},
                                  {ZN_CHAR_PTR, txt("no such column")},
                                  {ZN_INT32, id(orvrm::kMnHWType)},
                                  {ZN_UINT32, num(5)}}));
    RMReply r = syncData(1);
    ASSERT_FALSE(r.error) << cu_error_text(r.error.get());
    EXPECT_TRUE(scripted_[1]->called("ManagementServer.SyncData"));
    ASSERT_EQ(r.actionData.size(), 1u);
    const zn_structured_data* out = r.actionData[0].get();
    ASSERT_EQ(out->element_count, 5u) << "a count and two applied pairs";
    EXPECT_EQ(out->elements[0].value.val_uint32, 2u);
    EXPECT_EQ(out->elements[1].value.val_int32, kUserComment);
    EXPECT_STREQ(out->elements[2].value.ptr_char, "from the node");
    EXPECT_EQ(out->elements[3].value.val_int32, kSpeed);
    EXPECT_EQ(out->elements[4].value.val_uint32, 19200u);
    orvrm::ManagedNodeRcp* n = nodes()->getRcpByUniversalId(1);
    zn::OwnedValue comment = n->getAttrValue(kUserComment);
    zn::OwnedValue speed = n->getAttrValue(kSpeed);
    zn::OwnedValue name = n->getAttrValue(orvrm::kMnName);
    n->unreserve();
    EXPECT_STREQ(comment.value().ptr_char, "from the node");
    EXPECT_EQ(speed.value().val_uint32, 19200u);
    EXPECT_STREQ(name.value().ptr_char, "127.0.0.2") << "what the daemon keeps stays";

    // Input of another size; and a node that has no record.
    EXPECT_EQ(cu_error_text(syncData(1, 2).error.get()), "2655-050 Invalid input to action.\n");
    RMReply none = syncData(2);
    ASSERT_TRUE(none.error);
    EXPECT_EQ(cu_error_text(none.error.get())
                  .rfind("2655-057 Could not find a resource corresponding to this management "
                         "server on the node.",
                         0),
              0u)
        << cu_error_text(none.error.get());
}

TEST_F(SyncDataTest, RecordsAreRemovedAndWatched) {
    NodePEXIface iface;
    EXPECT_EQ(iface.removeMgmtSvrInfo("", "ms"), -1) << "no node name: nothing asked";
    EXPECT_EQ(iface.removeMgmtSvrInfo("127.0.0.9", "ms"), 0) << "nothing found is no failure";
    scripted_[2]->addRecord("ms", {"a", "b"}, nullptr);
    scripted_[2]->addRecord("ms", {"b"}, nullptr);
    EXPECT_EQ(iface.removeMgmtSvrInfo("b", "ms"), 0);
    EXPECT_EQ(scripted_[2]->calls(), (std::vector<std::string>{"ManagementServer.undefine"}))
        << "the first that matches, only";

    px_session_t s = nullptr;
    ASSERT_EQ(iface.startLocalSession(nullptr, &s), PX_OK);
    uint64_t reg = 0;
    EXPECT_EQ(iface.regForMgmtSvrConfigChngEvnt(
                  s, [](void*, px_event_2_t* e, void*) { px_free_response(e); }, nullptr, &reg),
              PX_OK);
    EXPECT_NE(reg, 0u);
    iface.endSession(s);
}

}  // namespace
}  // namespace peerdomaintest
