// Defining and undefining managed nodes through the framework's dispatch:
// the define walk with each of its refusals and its wrong-type quirk, what a
// node is given when it is defined (handle, Name, NodeIDs, Mode), the mode
// that decides the reachability poller, the interfaces made per address, and
// undefine with its cascade.
#include <functional>

#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/managednode/NodeFixture.h"

namespace classtest {
namespace {

TEST_F(NodeTest, TheDefineWalkRefusesWithItsMessagesAndLeavesNothingBehind) {
    ASSERT_TRUE(defineNode("taken", attrs(u64(kMnUniversalId, 77))).hasNewHandle);
    struct Case {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        int error;
        const char* text;  // start of the message; null: a common error
    };
    const Case cases[] = {
        {"Name given", [] { return attrs(str(kMnHostname, "n1"), str(kMnName, "x")); }, 0x10006,
         "2655-001 Attribute \"Name\" cannot be specified when defining a new resource."},
        {"Variety given", [] { return attrs(u32(kMnVariety, 1), str(kMnHostname, "n1")); }, 0x10006,
         "2655-001 Attribute \"Variety\" cannot"},
        {"no Hostname", [] { return attrs(str(kMnUserComment, "c")); }, 0x18006,
         "2655-005 Attribute \"Hostname\" must be specified when defining a new resource."},
        {"Hostname twice",
         [] { return attrs(str(kMnHostname, "n1"), str(kMnHWType, "t"), str(kMnHostname, "n2")); },
         0x18004, "2655-002 Attribute Hostname appears in request more than once."},
        {"a taken Hostname", [] { return attrs(str(kMnHostname, "taken")); }, 0x18000,
         "2655-006 A node with the hostname taken already exists."},
        {"a taken UniversalId",
         [] { return attrs(str(kMnHostname, "n1"), u64(kMnUniversalId, 77)); }, 0x18000,
         "2655-032 A node with the specified node identifier exists"},
        {"AllowManageRequest 2",
         [] { return attrs(str(kMnHostname, "n1"), u32(kMnAllowManageRequest, 2)); }, 267,
         "2655-055 The valid values for AllowManageRequest attribute are 0 or 1."},
        {"ConsoleSerialSpeed 0",
         [] { return attrs(str(kMnHostname, "n1"), u32(kMnConsoleSerialSpeed, 0)); }, 267,
         "2655-070 ConsoleSerialSpeed attribute must be set to a value between 1 and 230400"},
        {"ConsoleSerialSpeed 230401",
         [] { return attrs(str(kMnHostname, "n1"), u32(kMnConsoleSerialSpeed, 230401)); }, 267,
         "2655-070"},
        {"an empty Hostname", [] { return attrs(str(kMnHostname, "")); }, 0x18006, "2655-005"},
        {"id 47", [] { return attrs(str(kMnHostname, "n1"), u32(47, 1)); },
         tarn_rmf::RM_EINVALIDATTRID, nullptr},
    };
    for (const Case& c : cases) {
        RMReply r = define(kNodes, c.values());
        EXPECT_FALSE(r.hasNewHandle) << c.what;
        EXPECT_EQ(errorId(r.error), c.error) << c.what << ": " << errorText(r.error);
        if (c.text != nullptr) {
            EXPECT_EQ(errorText(r.error).rfind(c.text, 0), 0u)
                << c.what << ": " << errorText(r.error);
        }
    }
    EXPECT_EQ(nodeCount(), 1u) << "no refused define leaves a row";
    EXPECT_EQ(nodes()->resourceTable()->getRowCount(), 1u);
    // The bounds themselves pass.
    EXPECT_TRUE(defineNode("slow", attrs(u32(kMnConsoleSerialSpeed, 1))).hasNewHandle);
    EXPECT_TRUE(defineNode("fast", attrs(u32(kMnConsoleSerialSpeed, 230400))).hasNewHandle);
    // Nodes without a universal id (0) do not clash with one another.
    EXPECT_TRUE(defineNode("noid1", attrs(u64(kMnUniversalId, 0))).hasNewHandle);
    EXPECT_TRUE(defineNode("noid2", attrs(u64(kMnUniversalId, 0))).hasNewHandle);
}

TEST_F(NodeTest, AValueOfTheWrongTypeEndsTheWalkAndTheNodeIsDefinedWithWhatCameBefore) {
    RMReply r = define(kNodes, attrs(str(kMnHostname, "n1"), str(kMnUserComment, "kept"),
                                     u32(kMnHWType, 5),  // a text column
                                     str(kMnName, "never read"), u32(kMnAllowManageRequest, 9)));
    ASSERT_TRUE(r.hasNewHandle) << errorText(r.error);
    EXPECT_EQ(text(r.newHandle, kMnUserComment), "kept");
    EXPECT_EQ(text(r.newHandle, kMnHWType), "");
    EXPECT_EQ(number(r.newHandle, kMnAllowManageRequest), 0u);
    // Without the required attribute before it, the walk's stop still ends in message 5.
    RMReply missing = define(kNodes, attrs(u32(kMnHostname, 1), str(kMnHostname, "n2")));
    EXPECT_EQ(errorId(missing.error), 0x18006);
}

TEST_F(NodeTest, ANewNodeGetsItsHandleNameNodeIdsAndThePreManagedMode) {
    RMReply r = defineNode("node1.example");
    ASSERT_TRUE(r.hasNewHandle);
    const zn_resource_handle& h = r.newHandle;
    EXPECT_EQ(text(h, kMnName), "node1.example");
    EXPECT_EQ(text(h, kMnMode), kModePreManaged);
    EXPECT_EQ(number(h, kMnVariety), 1u);
    EXPECT_EQ(number(h, kMnConsoleSerialSpeed), 9600u);
    RMReply ids = get(kNodes, h, {kMnNodeIDs, kMnResourceHandle});
    const zn_array* list = valueOf(ids, kMnNodeIDs)->value.value().ptr_array;
    ASSERT_EQ(list->array_cnt, 1u);
    EXPECT_EQ(list->elements[0].val_uint64, rmcp().getNodeId());
    EXPECT_EQ(std::memcmp(valueOf(ids, kMnResourceHandle)->value.value().ptr_rsrc_handle->bytes,
                          h.bytes, sizeof h.bytes),
              0);
    EXPECT_TRUE(interfaces().empty()) << "no universal id, no addresses: no interfaces";
    EXPECT_FALSE(polled("node1.example")) << "only minimally managed nodes are polled";
}

TEST_F(NodeTest, TheLastOfTheSevenModeAttributesDecidesTheReachabilityPoller) {
    struct Case {
        const char* host;
        std::function<std::vector<RMReplyAttr>()> values;
        bool polled;
    };
    const Case cases[] = {
        {"caps", [] { return attrs(str(kMnMode, "MINMANAGED")); }, true},
        {"longer", [] { return attrs(str(kMnMode, "minmanagedX")); }, true},
        {"managed", [] { return attrs(str(kMnMode, "Managed")); }, false},
        {"short", [] { return attrs(str(kMnMode, "MinManage")); }, false},
        // A later one of ManagementServer..Mode is the one examined, whichever it is.
        {"later-wins",
         [] { return attrs(str(kMnMode, "Managed"), str(kMnInstallAdapterDuplex, "MinManaged")); },
         true},
        {"later-loses",
         [] { return attrs(str(kMnMode, "MinManaged"), str(kMnManagementServer, "ms")); }, false},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(defineNode(c.host, c.values()).hasNewHandle) << c.host;
        EXPECT_EQ(polled(c.host), c.polled) << c.host;
    }
}

TEST_F(NodeTest, InterfacesAreMadePerAddressWithAPeerMessageEach) {
    nodeWithInterfaces("n1", 11, {"10.0.0.1", "10.0.0.2"});
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"n1", 11, "10.0.0.1"}, {"n1", 11, "10.0.0.2"}}));
    auto peer = out_.peerMessages();
    ASSERT_EQ(peer.size(), 2u);
    EXPECT_EQ(peer[0], (std::pair<int, int>{2, 0}));
    // Without a universal id, the addresses wait.
    ASSERT_TRUE(defineNode("n2", attrs(strs(kMnConnectivityIPAddrs, {"10.0.0.3"}))).hasNewHandle);
    EXPECT_EQ(interfaces().size(), 2u);
}

TEST_F(NodeTest, UndefineRemovesTheNodeWithItsInterfacesAndPollerEntry) {
    zn_resource_handle a = nodeWithInterfaces("a", 1, {"10.0.0.1", "10.0.0.2"});
    zn_resource_handle b = nodeWithInterfaces("b", 2, {"10.0.0.3"});
    ASSERT_TRUE(defineNode("m", attrs(str(kMnMode, "MinManaged"))).hasNewHandle);
    zn_resource_handle m = enumerate(kNodes, "Hostname==\"m\"").handles.at(0);
    startMonitoring(kNodes, nullptr, {kMnResourceUndefined});
    out_.clear();
    zn_resource_handle unknown{};
    unknown.bytes[0] = 0x42;
    RMReply u = undefine(kNodes, {a, unknown, m});
    ASSERT_EQ(u.items.size(), 3u);
    EXPECT_FALSE(u.items[0].error);
    EXPECT_EQ(errorId(u.items[1].error), tarn_rmf::RM_EINVALIDHANDLE);
    EXPECT_FALSE(u.items[2].error);
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"b", 2, "10.0.0.3"}}));
    EXPECT_FALSE(polled("m"));
    EXPECT_EQ(nodeCount(), 1u);
    size_t undefinedNodes = 0;
    for (const auto& batch : out_.undefinedBatches()) {
        undefinedNodes += batch.size();
    }
    EXPECT_EQ(undefinedNodes, 4u) << "two interfaces and two nodes";
    size_t events = 0;
    for (const Notice& n : out_.notices()) {
        events += n.className == kNodes && !n.hasHandle ? 1 : 0;
    }
    EXPECT_EQ(events, 2u) << "ResourceUndefined for each node that went";
    // The class's own entry point does the same.
    EXPECT_EQ(nodes()->removeResource(b, 0), nullptr);
    EXPECT_TRUE(interfaces().empty());
    zn::ErrorPtr again(nodes()->removeResource(b, 0));
    EXPECT_EQ(errorId(again), tarn_rmf::RM_EINVALIDHANDLE);
}

}  // namespace
}  // namespace classtest
