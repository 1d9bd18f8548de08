// Changing managed nodes: the checks (all or nothing), values equal to the
// stored ones writing nothing, renames and id and address changes carried to
// the interfaces and the poller, and the reports clients asked for
// (persistent notification, ConfigChanged, ChangedAttributes, InstallStatus).
#include <fstream>
#include <iterator>

#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/managednode/NodeFixture.h"

namespace classtest {
namespace {

int itemError(const RMReply& r, int id) {
    for (const RMReplyItem& item : r.items) {
        if (item.id == id) {
            return errorId(item.error);
        }
    }
    return -1;
}

TEST_F(NodeTest, ARefusedChangeWritesNothingAndEveryAttributeHearsWhy) {
    zn_resource_handle a = nodeWithInterfaces("a", 1, {"10.0.0.1"});
    ASSERT_TRUE(defineNode("b", attrs(u64(kMnUniversalId, 2))).hasNewHandle);
    struct Case {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        int error;
        const char* text;
    };
    const Case cases[] = {
        {"another node's host name",
         [] { return attrs(str(kMnUserComment, "x"), str(kMnHostname, "b")); }, 0x18000,
         "2655-006 A node with the hostname b already exists."},
        {"another node's id", [] { return attrs(u64(kMnUniversalId, 2)); }, 0x18000, "2655-032"},
        {"AllowManageRequest 3", [] { return attrs(u32(kMnAllowManageRequest, 3)); }, 267,
         "2655-055"},
        {"ConsoleSerialSpeed 0", [] { return attrs(u32(kMnConsoleSerialSpeed, 0)); }, 267,
         "2655-070"},
        {"Name is read-only", [] { return attrs(str(kMnUserComment, "x"), str(kMnName, "y")); },
         tarn_rmf::RM_EREADONLYATTR, nullptr},
        {"NodeIDs is read-only", [] { return attrs(u32(kMnControlFlag, 1), strs(kMnNodeIDs, {})); },
         tarn_rmf::RM_EREADONLYATTR, nullptr},
        {"a wrong type", [] { return attrs(str(kMnUserComment, "x"), u32(kMnHWModel, 1)); },
         tarn_rmf::RM_EDATATYPE, nullptr},
        {"id 47", [] { return attrs(u32(47, 0)); }, tarn_rmf::RM_EINVALIDATTRID, nullptr},
        {"twice", [] { return attrs(str(kMnUserComment, "x"), str(kMnUserComment, "y")); }, 0x18004,
         "2655-002 Attribute UserComment appears"},
    };
    for (const Case& c : cases) {
        std::vector<RMReplyAttr> values = c.values();
        std::vector<int> ids;
        for (const RMReplyAttr& v : values) {
            ids.push_back(v.id);
        }
        RMReply r = set(kNodes, a, std::move(values));
        for (int id : ids) {
            EXPECT_EQ(itemError(r, id), c.error) << c.what << " id " << id;
        }
        if (c.text != nullptr && !r.items.empty()) {
            EXPECT_EQ(errorText(r.items[0].error).rfind(c.text, 0), 0u)
                << c.what << ": " << errorText(r.items[0].error);
        }
    }
    EXPECT_EQ(text(a, kMnHostname), "a");
    EXPECT_EQ(text(a, kMnUserComment), "") << "nothing of a refused change is written";
    EXPECT_EQ(number(a, kMnUniversalId), 1u);
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"a", 1, "10.0.0.1"}}));
}

TEST_F(NodeTest, ValuesEqualToTheStoredOnesWriteAndReportNothing) {
    zn_resource_handle a = nodeWithInterfaces("a", 1, {"10.0.0.1"});
    startMonitoring(kNodes, &a, {kMnChangedAttributes, kMnConfigChanged});
    out_.clear();
    RMReply r = set(kNodes, a, attrs(str(kMnHostname, "a"), str(kMnMode, kModePreManaged)));
    EXPECT_EQ(itemError(r, kMnHostname), 0);
    EXPECT_TRUE(out_.notices().empty()) << "nothing changed, nothing reported";
    EXPECT_TRUE(out_.peerMessages().empty()) << "no interface was made again";
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"a", 1, "10.0.0.1"}}));
}

TEST_F(NodeTest, ARenameMovesTheInterfacesTheNameAndThePollerEntry) {
    zn_resource_handle a = nodeWithInterfaces("old", 1, {"10.0.0.1", "10.0.0.2"});
    ASSERT_EQ(itemError(set(kNodes, a, attrs(str(kMnMode, "MinManaged"))), kMnMode), 0);
    EXPECT_TRUE(polled("old"));
    RMReply r = set(kNodes, a, attrs(str(kMnHostname, "new"), u64(kMnUniversalId, 9)));
    ASSERT_EQ(itemError(r, kMnHostname), 0) << errorText(r.items[0].error);
    EXPECT_EQ(text(a, kMnName), "new");
    EXPECT_FALSE(polled("old"));
    EXPECT_TRUE(polled("new"));
    // A new name and a new id at once is a rename: by the old name out, the
    // new name with the new id in.
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"new", 9, "10.0.0.1"}, {"new", 9, "10.0.0.2"}}));
    EXPECT_EQ(nodes()->hostnameExists("old", nullptr), 0);
    EXPECT_EQ(nodes()->hostnameExists("new", nullptr), 1);
}

TEST_F(NodeTest, IdAndAddressChangesReachTheInterfaces) {
    zn_resource_handle a = nodeWithInterfaces("a", 1, {"10.0.0.1", "10.0.0.2"});
    set(kNodes, a, attrs(u64(kMnUniversalId, 5)));
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"a", 5, "10.0.0.1"}, {"a", 5, "10.0.0.2"}}));
    out_.clear();
    set(kNodes, a, attrs(strs(kMnConnectivityIPAddrs, {"10.0.0.2", "10.0.0.3"})));
    EXPECT_EQ(interfaces(), (std::multiset<Iface>{{"a", 5, "10.0.0.2"}, {"a", 5, "10.0.0.3"}}));
    EXPECT_EQ(out_.peerMessages().size(), 1u) << "one peer message per interface made";
    set(kNodes, a, attrs(strs(kMnConnectivityIPAddrs, {})));
    EXPECT_TRUE(interfaces().empty());
}

TEST_F(NodeTest, ModeChangesMoveTheNodeInAndOutOfThePoller) {
    zn_resource_handle a = defineNode("a").newHandle;
    set(kNodes, a, attrs(str(kMnMode, "MinManaged")));
    EXPECT_TRUE(polled("a"));
    set(kNodes, a, attrs(str(kMnUserComment, "still minimal")));
    std::ifstream list(nodes()->poller().listFileName());
    std::string all((std::istreambuf_iterator<char>(list)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all, "a\n") << "listed once, not twice";
    nodes()->poller().removeHost("a");
    set(kNodes, a, attrs(str(kMnUserComment, "listed again")));
    EXPECT_TRUE(polled("a")) << "a change of a minimal node puts it back on the list";
    set(kNodes, a, attrs(str(kMnMode, kModeManaged)));
    EXPECT_FALSE(polled("a"));
}

TEST_F(NodeTest, ChangesAreReportedAsClientsAskedForThem) {
    zn_resource_handle a = defineNode("a").newHandle;
    RMRequest enable;
    enable.op = RMRequestOp::EnablePersResourceAttrsNotification;
    enable.className = kNodes;
    enable.handle = a;
    enable.ids = {kMnHostname, kMnName};
    dispatch(enable);
    startMonitoring(kNodes, &a, {kMnConfigChanged, kMnChangedAttributes, kMnInstallStatus});
    out_.clear();
    set(kNodes, a,
        attrs(str(kMnHostname, "b"), str(kMnUserComment, "c"), str(kMnMode, kModeManaged)));
    auto persistent = reports(kMnHostname, true);
    ASSERT_EQ(persistent.size(), 1u);
    EXPECT_EQ(persistent[0]->values.size(), 2u) << "Hostname and Name, the enabled ones";
    auto config = reports(kMnConfigChanged, false);
    ASSERT_EQ(config.size(), 1u);
    EXPECT_EQ(config[0]->values[0].value.value().val_uint32, 1u);
    auto changed = reports(kMnChangedAttributes, false);
    ASSERT_EQ(changed.size(), 1u);
    const zn_array* names = changed[0]->values[0].value.value().ptr_array;
    std::vector<std::string> list;
    for (uint32_t i = 0; i < names->array_cnt; ++i) {
        list.emplace_back(names->elements[i].ptr_char);
    }
    EXPECT_EQ(list, (std::vector<std::string>{"Hostname", "Name", "UserComment", "Mode"}));
    auto install = reports(kMnInstallStatus, false);
    ASSERT_EQ(install.size(), 1u) << "a mode change reports InstallStatus";
    EXPECT_STREQ(install[0]->values[0].value.value().ptr_char, kModeManaged);
    // ChangedAttributes is emptied after its report.
    RMRequest now;
    now.op = RMRequestOp::ReportDynAttributeValues;
    now.className = kNodes;
    now.handle = a;
    now.ids = {kMnChangedAttributes, kMnConfigChanged};
    RMReply cur = dispatch(now);
    EXPECT_EQ(valueOf(cur, kMnChangedAttributes)->value.value().ptr_array->array_cnt, 0u);
    EXPECT_EQ(valueOf(cur, kMnConfigChanged)->value.value().val_uint32, 0u);
    // Without a mode change, InstallStatus stays silent.
    out_.clear();
    set(kNodes, a, attrs(str(kMnUserComment, "d")));
    EXPECT_TRUE(reports(kMnInstallStatus, false).empty());
}

TEST_F(NodeTest, ASingleColumnChangeIsAnnouncedByAttrValChngNotification) {
    zn_resource_handle a = defineNode("a").newHandle;
    startMonitoring(kNodes, &a, {kMnChangedAttributes, kMnInstallStatus});
    out_.clear();
    zn_value_t v{};
    v.ptr_char = const_cast<char*>("x");
    node(a)->attrValChngNotification(v, kMnUserComment);
    auto changed = reports(kMnChangedAttributes, false);
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_STREQ(changed[0]->values[0].value.value().ptr_array->elements[0].ptr_char,
                 "UserComment");
    EXPECT_TRUE(reports(kMnInstallStatus, false).empty()) << "only Mode reports it";
}

TEST_F(NodeTest, OnlyActionZeroIsKnownAndItsInputIsChecked) {
    zn_resource_handle a = defineNode("a").newHandle;
    RMRequest act;
    act.op = RMRequestOp::InvokeAction;
    act.className = kNodes;
    act.handle = a;
    act.actionId = 1;
    EXPECT_EQ(errorId(dispatch(act).error), tarn_rmf::RM_ENOTSUPPORTED);
    act.actionId = kMnSyncData;
    RMReply none = dispatch(act);
    EXPECT_EQ(errorText(none.error), "2655-050 Invalid input to action.\n");
    act.input.reset(zn_sd_new(2));
    EXPECT_EQ(errorText(dispatch(act).error), "2655-050 Invalid input to action.\n");
}

}  // namespace
}  // namespace classtest
