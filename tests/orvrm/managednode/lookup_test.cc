// What the other classes ask of the managed-node class: existence by host
// name and universal id, the node a request names (hostExists, all four
// outcomes), define-or-update for node authentication, the management and
// status-log flags, and the host names a selection picks.
#include "tarn_rmf/registry/RMTableError.h"
#include "tests/orvrm/managednode/NodeFixture.h"

namespace classtest {
namespace {

// The host name of a reserved node; the reservation ends here.
std::string nameOf(ManagedNodeRcp* rcp) {
    if (rcp == nullptr) {
        return "<none>";
    }
    char* s = rcp->getHostName();
    std::string out = s != nullptr ? s : "";
    std::free(s);
    rcp->unreserve();
    return out;
}

TEST_F(NodeTest, LookupsByNameAndId) {
    defineNode("a", attrs(u64(kMnUniversalId, 1), str(kMnUserComment, "x")));
    defineNode("b", attrs(u64(kMnUniversalId, 2)));
    EXPECT_EQ(nodes()->hostnameExists("a", nullptr), 1);
    EXPECT_EQ(nodes()->hostnameExists("A", nullptr), 0) << "host names compare exactly";
    EXPECT_EQ(nodes()->hostnameExists(nullptr, nullptr), 0);
    EXPECT_EQ(nodes()->universalIdExists(2, nullptr), 1);
    EXPECT_EQ(nodes()->universalIdExists(3, nullptr), 0);
    EXPECT_EQ(nodes()->mNodeExists("b", nullptr), 1);
    EXPECT_EQ(nameOf(nodes()->getRcpByHostname("b")), "b");
    EXPECT_EQ(nameOf(nodes()->getRcpByUniversalId(1)), "a");
    EXPECT_EQ(nameOf(nodes()->getFirstRcpMatchSlctStr("UserComment==\"x\"")), "a");
    EXPECT_EQ(nameOf(nodes()->getFirstRcpMatchSlctStr("UserComment==\"y\"")), "<none>");
    EXPECT_EQ(nodes()->selectStrMembers("UniversalId>0"), (std::vector<std::string>{"a", "b"}));
    EXPECT_THROW(nodes()->selectStrMembers("Hostname=="), tarn_rmf::RMTableError);
    // A host name that quotes or selects cannot escape its parameter.
    EXPECT_EQ(nodes()->hostnameExists("a\" || Hostname==\"b", nullptr), 0);
}

TEST_F(NodeTest, HostExistsHasFourOutcomes) {
    defineNode("a", attrs(u64(kMnUniversalId, 1)));
    defineNode("b", attrs(u64(kMnUniversalId, 2)));
    cu_error_t* err = nullptr;
    EXPECT_EQ(nameOf(nodes()->hostExists("a", 9, &err)), "a") << "no node with the id: by name";
    EXPECT_EQ(nameOf(nodes()->hostExists("c", 9, &err)), "<none>");
    EXPECT_EQ(nameOf(nodes()->hostExists("a", 1, &err)), "a") << "the id's node has the name";
    EXPECT_EQ(nameOf(nodes()->hostExists("c", 1, &err)), "a") << "the id's node, to be renamed";
    EXPECT_EQ(err, nullptr);
    EXPECT_EQ(nodes()->hostExists("b", 1, &err), nullptr) << "id and name name two nodes";
    zn::ErrorPtr owned(err);
    EXPECT_EQ(errorId(owned), 268);
    EXPECT_EQ(errorText(owned).rfind("2655-033 Unable to select the node resource", 0), 0u);
    // No reservation is left behind: both nodes can go.
    RMReply all = enumerate(kNodes);
    RMReply u = undefine(kNodes, all.handles);
    EXPECT_EQ(nodeCount(), 0u);
}

TEST_F(NodeTest, CreateOrUpdateDefinesNewNodesAndChangesKnownOnes) {
    std::vector<rm_attribute_value> values(2);
    values[0] = {kMnHostname, ZN_CHAR_PTR, {}};
    values[0].rm_value.ptr_char = const_cast<char*>("n1");
    values[1] = {kMnUniversalId, ZN_UINT64, {}};
    values[1].rm_value.val_uint64 = 5;
    cu_error_t* err = nullptr;
    EXPECT_EQ(nodes()->createOrUpdateResourceRetNodeId("n1", 5, values.data(), 2, &err),
              rmcp().getNodeId());
    ASSERT_EQ(err, nullptr);
    // The node with id 5 comes back under a new name: renamed, not doubled.
    values[0].rm_value.ptr_char = const_cast<char*>("n1-new");
    EXPECT_EQ(nodes()->createOrUpdateResource("n1-new", 5, values.data(), 2, &err), 0);
    EXPECT_EQ(nodeCount(), 1u);
    EXPECT_EQ(nodes()->hostnameExists("n1-new", nullptr), 1);
    // Two nodes named by one request: refused, nothing changes.
    defineNode("other", attrs(u64(kMnUniversalId, 6)));
    EXPECT_EQ(nodes()->createOrUpdateResource("other", 5, values.data(), 2, &err), -1);
    zn::ErrorPtr owned(err);
    EXPECT_EQ(errorId(owned), 268);
    EXPECT_EQ(nodeCount(), 2u);
}

TEST_F(NodeTest, ManagementAndStatusLogFlags) {
    zn_resource_handle a =
        defineNode("a", attrs(u64(kMnUniversalId, 1), u32(kMnAllowManageRequest, 1),
                              u32(kMnControlFlag, ManagedNodeRccp::kControlStatusLogs | 0x4)))
            .newHandle;
    defineNode("b", attrs(u64(kMnUniversalId, 2)));
    EXPECT_EQ(nodes()->isAllowMngReq("a", 1, nullptr), 2);
    EXPECT_EQ(nodes()->isAllowMngReq("b", 2, nullptr), 1);
    EXPECT_EQ(nodes()->isAllowMngReq("c", 3, nullptr), 0);
    cu_error_t* err = nullptr;
    EXPECT_EQ(nodes()->isAllowMngReq("b", 1, &err), 127);
    zn::ErrorPtr owned(err);
    EXPECT_EQ(errorId(owned), 268);
    EXPECT_EQ(nodes()->isAllowStatusLogs("a"), 1);
    EXPECT_EQ(nodes()->isAllowStatusLogs("b"), 0);
    EXPECT_EQ(nodes()->isAllowStatusLogs("c"), 0);
    nodes()->resetAllowManageReqAttr("a");
    nodes()->stopStatusLogging("a");
    EXPECT_EQ(number(a, kMnAllowManageRequest), 0u);
    EXPECT_EQ(number(a, kMnControlFlag), 0x4u) << "only the status-log bit is cleared";
    EXPECT_EQ(nodes()->isAllowMngReq("a", 1, nullptr), 1);
    EXPECT_EQ(nodes()->isAllowStatusLogs("a"), 0);
}

}  // namespace
}  // namespace classtest
