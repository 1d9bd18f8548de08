// The network interface class through the framework's dispatch and its own
// entry points: the define walk and its messages (the wrong-type quirk
// included), batched undefine, removal by selection, every case of
// updateResources with its peer messages, heartbeat status by address, the
// work list past 32 addresses, and the rebuild at start with the node-id
// filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "orvrm/ClassList.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "platform/paths.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/ClassHarness.h"

namespace classtest {
namespace {

using namespace orvrm;
constexpr const char* kCls = kNetworkInterfaceClass;

// A string array; null for "not given".
class Addresses {
public:
    Addresses(std::initializer_list<std::string> list) : texts_(list) { build(); }
    explicit Addresses(std::vector<std::string> list) : texts_(std::move(list)) { build(); }
    ~Addresses() { std::free(array_); }
    Addresses(const Addresses&) = delete;
    Addresses& operator=(const Addresses&) = delete;
    const zn_array* get() const { return array_; }

private:
    void build() {
        array_ = zn_array_new(static_cast<uint32_t>(texts_.size()));
        for (size_t i = 0; i < texts_.size(); ++i) {
            array_->elements[i].ptr_char = texts_[i].data();
        }
    }
    std::vector<std::string> texts_;
    zn_array* array_ = nullptr;
};

struct Iface {
    std::string name;
    uint64_t id;
    std::string address;
    bool operator<(const Iface& o) const {
        return std::tie(name, id, address) < std::tie(o.name, o.id, o.address);
    }
    bool operator==(const Iface& o) const {
        return name == o.name && id == o.id && address == o.address;
    }
};

class NetifTest : public ClassHarness {
protected:
    void SetUp() override {
        startClasses();
        out_.clear();
    }
    MNNetworkInterfaceRccp* netif() { return rccp<MNNetworkInterfaceRccp>(kCls); }
    std::multiset<Iface> all() {
        std::multiset<Iface> out;
        for (const zn_resource_handle& h : enumerate(kCls).handles) {
            RMReply r = get(kCls, h, {kNiName, kNiUniversalId, kNiIPAddress});
            out.insert(Iface{valueOf(r, kNiName)->value.value().ptr_char,
                             valueOf(r, kNiUniversalId)->value.value().val_uint64,
                             valueOf(r, kNiIPAddress)->value.value().ptr_char});
        }
        return out;
    }
    RMReply defineOne(const char* name, uint64_t id, const char* address) {
        std::vector<RMReplyAttr> v;
        v.push_back(str(kNiName, name));
        v.push_back(u64(kNiUniversalId, id));
        v.push_back(str(kNiIPAddress, address));
        return define(kCls, std::move(v));
    }
    size_t peerMessages() { return out_.peerMessages().size(); }
};

TEST_F(NetifTest, TheDefineWalkRefusesWithItsMessagesAndKeepsTheWrongTypeQuirk) {
    struct Case {
        const char* what;
        std::function<std::vector<RMReplyAttr>()> values;
        int error;
        const char* text;  // null: any
    };
    const Case cases[] = {
        {"an id past the table",
         [] {
             std::vector<RMReplyAttr> v;
             v.push_back(u32(6, 1));
             return v;
         },
         tarn_rmf::RM_EINVALIDATTRID, nullptr},
        {"a repeated attribute",
         [] {
             std::vector<RMReplyAttr> v;
             v.push_back(str(kNiName, "a"));
             v.push_back(str(kNiName, "b"));
             return v;
         },
         0x18004, "2655-002 Attribute Name appears in request more than once.\n"},
        {"an attribute the daemon keeps",
         [] {
             std::vector<RMReplyAttr> v;
             v.push_back(u32(kNiVariety, 1));
             return v;
         },
         0x10006,
         "2655-001 Attribute \"Variety\" cannot be specified when defining a new resource.\n"},
        {"a required attribute missing",
         [] {
             std::vector<RMReplyAttr> v;
             v.push_back(str(kNiName, "n"));
             return v;
         },
         0x18006,
         "2655-005 Attribute \"IPAddress\" must be specified when defining a new resource.\n"},
        {"a wrong type ends the walk: what follows is not seen",
         [] {
             std::vector<RMReplyAttr> v;
             v.push_back(str(kNiName, "n"));
             v.push_back(u32(kNiIPAddress, 7));
             v.push_back(str(kNiIPAddress, "10.0.0.1"));
             return v;
         },
         0x18006,
         "2655-005 Attribute \"IPAddress\" must be specified when defining a new "
         "resource.\n"},
    };
    for (const Case& c : cases) {
        RMReply r = define(kCls, c.values());
        EXPECT_EQ(errorId(r.error), c.error) << c.what;
        if (c.text != nullptr) {
            EXPECT_EQ(errorText(r.error), c.text) << c.what;
        }
        EXPECT_FALSE(r.hasNewHandle) << c.what;
    }
    EXPECT_TRUE(all().empty()) << "a refused define leaves nothing";

    // After a wrong type, even a value that would be refused is not looked at.
    std::vector<RMReplyAttr> v;
    v.push_back(str(kNiName, "n"));
    v.push_back(str(kNiIPAddress, "10.0.0.1"));
    v.push_back(str(kNiUniversalId, "not a number"));
    v.push_back(u32(kNiVariety, 5));
    RMReply ok = define(kCls, std::move(v));
    ASSERT_FALSE(ok.error) << errorText(ok.error);
    ASSERT_TRUE(ok.hasNewHandle);
    RMReply got = get(kCls, ok.newHandle, {kNiVariety, kNiNodeIDs});
    EXPECT_EQ(valueOf(got, kNiVariety)->value.value().val_uint32, 1u);
    const zn_array* ids = valueOf(got, kNiNodeIDs)->value.value().ptr_array;
    ASSERT_EQ(ids->array_cnt, 1u);
    EXPECT_EQ(ids->elements[0].val_uint64, rmcp().getNodeId());
}

TEST_F(NetifTest, DefinedAndUndefinedAreReportedWhileMonitoredAndUndefineBatches) {
    startMonitoring(kCls, nullptr, {0, 1});
    std::vector<zn_resource_handle> handles;
    for (int i = 0; i < 5; ++i) {
        std::string a = "10.0.0." + std::to_string(i);
        RMReply r = defineOne("node", 1, a.c_str());
        ASSERT_TRUE(r.hasNewHandle);
        handles.push_back(r.newHandle);
    }
    EXPECT_EQ(out_.notices().size(), 5u) << "one ResourceDefined per define";
    zn_resource_handle unknown{};
    unknown.bytes[0] = 0x5a;
    RMReply u = undefine(kCls, {handles[0], unknown, handles[1], handles[2], handles[3]});
    ASSERT_EQ(u.items.size(), 5u);
    EXPECT_EQ(errorId(u.items[1].error), tarn_rmf::RM_EINVALIDHANDLE);
    for (size_t i : {0u, 2u, 3u, 4u}) {
        EXPECT_FALSE(u.items[i].error) << i;
    }
    auto batches = out_.undefinedBatches();
    ASSERT_EQ(batches.size(), 1u) << "more than 3 asked: one batch that size";
    EXPECT_EQ(batches[0].size(), 4u);
    auto notes = out_.notices();
    EXPECT_EQ(notes.size(), 6u) << "ResourceUndefined once for the request";
    EXPECT_EQ(all().size(), 1u);
    // A handle that is gone is gone.
    EXPECT_EQ(errorId(get(kCls, handles[0], {kNiName}).error), tarn_rmf::RM_EINVALIDHANDLE);
}

// The property word decides a set: 0x20 (read-only) refuses it, whatever
// else the word holds; a value that was given at define may change.
TEST_F(NetifTest, ReadOnlyAttributesRefuseASetAndOthersMayChange) {
    RMReply d = defineOne("node", 1, "10.0.0.1");
    ASSERT_TRUE(d.hasNewHandle);
    zn_array* ids = zn_array_new(1);
    ids->elements[0].val_uint64 = 7;
    zn_value_t idsValue{};
    idsValue.ptr_array = ids;
    RMReplyAttr nodeIds{kNiNodeIDs, zn::OwnedValue(ZN_UINT64_ARRAY, idsValue)};
    RMReply s = set(kCls, d.newHandle,
                    attrs(std::move(nodeIds), str(kNiIPAddress, "10.0.0.2"), u32(kNiVariety, 3)));
    std::map<int, int> result;  // attribute id -> error id
    for (const RMReplyItem& item : s.items) {
        result[item.id] = errorId(item.error);
    }
    EXPECT_EQ((std::map<int, int>{{kNiVariety, tarn_rmf::RM_EREADONLYATTR},  // 0x32
                                  {kNiIPAddress, 0},                          // 0x07
                                  {kNiNodeIDs, tarn_rmf::RM_EREADONLYATTR}}),  // 0x2A
              result);
    EXPECT_EQ((std::multiset<Iface>{{"node", 1, "10.0.0.2"}}), all());
}

TEST_F(NetifTest, UpdateResourcesFollowsEachKindOfNodeChange) {
    auto* c = netif();
    Addresses ab{"10.0.0.1", "10.0.0.2"};
    Addresses bc{"10.0.0.2", "10.0.0.3"};
    Addresses none{};
    c->updateResources("n1", nullptr, 0, 7, nullptr, ab.get());  // new list, no old one
    EXPECT_EQ(all(), (std::multiset<Iface>{{"n1", 7, "10.0.0.1"}, {"n1", 7, "10.0.0.2"}}));
    EXPECT_EQ(peerMessages(), 2u) << "a peer message after each creation";

    out_.clear();
    c->updateResources("n1", "n1", 7, 7, ab.get(), ab.get());
    EXPECT_EQ(all().size(), 2u);
    EXPECT_EQ(peerMessages(), 0u) << "an equal list changes nothing";

    RMReply before = enumerate(kCls, "IPAddress==\"10.0.0.2\"");
    c->updateResources("n1", "n1", 7, 7, ab.get(), bc.get());
    EXPECT_EQ(all(), (std::multiset<Iface>{{"n1", 7, "10.0.0.2"}, {"n1", 7, "10.0.0.3"}}));
    EXPECT_TRUE(enumerate(kCls, "IPAddress==\"10.0.0.2\"").handles[0] == before.handles[0])
        << "an address in both lists keeps its interface";
    EXPECT_EQ(peerMessages(), 1u);

    // The name and the id at once: a name change, with the new id.
    c->updateResources("n1", "n2", 7, 8, bc.get(), nullptr);
    EXPECT_EQ(all(), (std::multiset<Iface>{{"n2", 8, "10.0.0.2"}, {"n2", 8, "10.0.0.3"}}));
    // Only the id: removed by the old id, made again.
    c->updateResources("n2", "n2", 8, 9, bc.get(), ab.get());
    EXPECT_EQ(all(), (std::multiset<Iface>{{"n2", 9, "10.0.0.1"}, {"n2", 9, "10.0.0.2"}}));
    // An empty new list removes them all; no old name does nothing.
    c->updateResources("n2", "n2", 9, 9, ab.get(), none.get());
    EXPECT_TRUE(all().empty());
    c->updateResources(nullptr, "n3", 0, 1, nullptr, ab.get());
    EXPECT_TRUE(all().empty());
}

TEST_F(NetifTest, MoreThanThirtyTwoAddressesGiveTheSameFirstThirtyTwo) {
    std::vector<std::string> many;
    for (int i = 0; i < 40; ++i) {
        many.push_back("10.1.0." + std::to_string(i));
    }
    Addresses forty(many);
    Addresses thirtyTwo(std::vector<std::string>(many.begin(), many.begin() + 32));
    netif()->updateResources("small", nullptr, 0, 1, nullptr, thirtyTwo.get());
    netif()->updateResources("big", nullptr, 0, 1, nullptr, forty.get());
    std::set<std::string> small, big;
    for (const Iface& i : all()) {
        (i.name == "small" ? small : big).insert(i.address);
    }
    EXPECT_EQ(small.size(), 32u);
    EXPECT_EQ(big.size(), 40u);
    EXPECT_TRUE(std::includes(big.begin(), big.end(), small.begin(), small.end()));
}

TEST_F(NetifTest, HeartbeatsSetStatusByAddressAndOnlyChangesAreReported) {
    RMReply a = defineOne("n1", 1, "10.0.0.9");
    RMReply b = defineOne("n2", 2, "10.0.0.9");
    RMReply c = defineOne("n3", 3, "10.0.0.10");
    for (const RMReply* r : {&a, &b, &c}) {
        RMReply s =
            resourceOp(RMRequestOp::ReportDynAttributeValues, kCls, r->newHandle, {kNiStatus});
        EXPECT_EQ(valueOf(s, kNiStatus)->value.value().val_uint32, kStatusUnknown);
    }
    startMonitoring(kCls, &a.newHandle, {kNiStatus});
    out_.clear();
    char address[] = "10.0.0.9";
    netif()->setHeartbeat(address, 1);
    for (const RMReply* r : {&a, &b}) {
        RMReply s =
            resourceOp(RMRequestOp::ReportDynAttributeValues, kCls, r->newHandle, {kNiStatus});
        EXPECT_EQ(valueOf(s, kNiStatus)->value.value().val_uint32, 1u);
    }
    auto notes = out_.notices();
    ASSERT_EQ(notes.size(), 1u) << "only the monitored interface is reported";
    EXPECT_TRUE(notes[0].handle == a.newHandle);
    netif()->setHeartbeat(address, 1);
    EXPECT_EQ(out_.notices().size(), 1u) << "an unchanged status is no event";
    char nobody[] = "10.9.9.9";
    netif()->setHeartbeat(nobody, 0);
}

TEST_F(NetifTest, RemovalBySelectionAndTheRebuildAtStart) {
    defineOne("n1", 1, "10.0.0.1");
    defineOne("n1", 1, "10.0.0.2");
    defineOne("n2", 2, "10.0.0.3");
    out_.clear();
    netif()->removeResource("Name==\"nobody\"");
    EXPECT_TRUE(out_.undefinedBatches().empty()) << "nothing matched, nothing reported";
    netif()->removeResource("Name==\"n1\"");
    EXPECT_EQ(out_.undefinedBatches().size(), 2u) << "one report per interface";
    EXPECT_EQ(all(), (std::multiset<Iface>{{"n2", 2, "10.0.0.3"}}));

    char address[] = "10.0.0.3";
    netif()->setHeartbeat(address, 1);
    restart();
    ASSERT_EQ(all().size(), 1u);
    zn_resource_handle h = enumerate(kCls).handles[0];
    RMReply s = resourceOp(RMRequestOp::ReportDynAttributeValues, kCls, h, {kNiStatus});
    EXPECT_EQ(valueOf(s, kNiStatus)->value.value().val_uint32, kStatusUnknown)
        << "the status starts unknown at every start";
}

TEST_F(NetifTest, InANamedDomainEachServerLoadsOnlyTheInterfacesItOwns) {
    defineOne("mine", 1, "10.0.0.1");
    std::vector<RMReplyAttr> v;
    v.push_back(str(kNiName, "theirs"));
    v.push_back(str(kNiIPAddress, "10.0.0.2"));
    zn_value_t ids{};
    ids.ptr_array = zn_array_new(1);
    ids.ptr_array->elements[0].val_uint64 = rmcp().getNodeId() + 1;
    v.push_back(RMReplyAttr{kNiNodeIDs, zn::OwnedValue(ZN_UINT64_ARRAY, ids)});
    ASSERT_FALSE(define(kCls, std::move(v)).error);
    EXPECT_EQ(all().size(), 2u) << "in the default domain every row is loaded";

    std::string domain = zn::paths::resolve(zn::paths::kDomainNameFile);
    std::filesystem::create_directories(std::filesystem::path(domain).parent_path());
    std::ofstream(domain) << "dom1\n";
    restart();
    EXPECT_EQ(all(), (std::multiset<Iface>{{"mine", 1, "10.0.0.1"}}));
}

}  // namespace
}  // namespace classtest
