// The domain settings class through the framework's dispatch: the one
// resource made with its defaults on an empty registry (once), every range
// check at its bounds with its message, per-attribute refusal with the rest
// applied, the heartbeat tuning at start and on change, the getters and
// their fallbacks, and change notification.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "orvrm/ClassList.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "orvrm/orvctrl/OrvCtrlSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/orvrm/ClassHarness.h"

namespace classtest {
namespace {

using namespace orvrm;
constexpr const char* kCls = kOrvCtrlClass;

class OrvCtrlTest : public ClassHarness {
protected:
    void SetUp() override { startClasses(); }
    zn_resource_handle theResource() {
        RMReply all = enumerate(kCls);
        EXPECT_EQ(all.handles.size(), 1u);
        return all.handles.empty() ? zn_resource_handle{} : all.handles[0];
    }
    uint32_t number(int id) {
        RMReply r = get(kCls, theResource(), {id});
        const RMReplyAttr* v = valueOf(r, id);
        return v != nullptr ? v->value.value().val_uint32 : 0xFFFFFFFFu;
    }
};

TEST_F(OrvCtrlTest, AnEmptyRegistryGetsTheOneResourceWithItsDefaultsOnce) {
    zn_resource_handle h = theResource();
    RMReply r = get(kCls, h,
                    {kOcAddUnrecognizedNodes, kOcRemoteShell, kOcClusterTM, kOcSetupRemoteShell,
                     kOcRegSyncDelay, kOcFrequency, kOcSensitivity, kOcRemoteCopyCmd,
                     kOcDeviceStatusFrequency, kOcDeviceStatusSensitivity, kOcVariety});
    ASSERT_EQ(r.values.size(), 11u);
    EXPECT_EQ(valueOf(r, kOcAddUnrecognizedNodes)->value.value().val_uint32, 0u);
    EXPECT_STREQ(valueOf(r, kOcRemoteShell)->value.value().ptr_char, "/usr/bin/ssh");
    EXPECT_STREQ(valueOf(r, kOcClusterTM)->value.value().ptr_char, kDefaultClusterTM);
    EXPECT_EQ(valueOf(r, kOcSetupRemoteShell)->value.value().val_uint32, 1u);
    EXPECT_EQ(valueOf(r, kOcRegSyncDelay)->value.value().val_uint32, 1u);
    EXPECT_EQ(valueOf(r, kOcFrequency)->value.value().val_uint32, 12u);
    EXPECT_EQ(valueOf(r, kOcSensitivity)->value.value().val_uint32, 8u);
    EXPECT_STREQ(valueOf(r, kOcRemoteCopyCmd)->value.value().ptr_char, "/usr/bin/scp");
    EXPECT_EQ(valueOf(r, kOcDeviceStatusFrequency)->value.value().val_uint32, 12u);
    EXPECT_EQ(valueOf(r, kOcDeviceStatusSensitivity)->value.value().val_uint32, 8u);
    EXPECT_EQ(valueOf(r, kOcVariety)->value.value().val_uint32, 1u);
    EXPECT_EQ(tunings(), (std::vector<std::pair<unsigned, unsigned>>{{12, 8}}));
    // The class has no define.
    EXPECT_EQ(errorId(define(kCls, {}).error), tarn_rmf::RM_ENOTSUPPORTED);

    restart();
    EXPECT_TRUE(theResource() == h) << "a restart keeps the one resource";
    EXPECT_EQ(tunings().size(), 2u) << "and applies the tuning again";
}

TEST_F(OrvCtrlTest, EveryRangeIsCheckedAtItsBoundsWithItsMessage) {
    struct Case {
        int id;
        uint32_t accepted[2];
        uint32_t refused[2];
        const char* message;
    };
    const Case cases[] = {
        {kOcAddUnrecognizedNodes,
         {0, 1},
         {2, 7},
         "2655-054 AddUnrecognizedNode attribute value "
         "should be 1 or 0.\n"},
        {kOcSetupRemoteShell,
         {0, 1},
         {2, 9},
         "2655-059 SetupRemoteShell attribute value should "
         "be 1 or 0.\n"},
        {kOcRegSyncDelay,
         {1, 60},
         {0, 61},
         "2655-065 Registry Synchronization Delay value "
         "should be greater than 0 and less than 60.\n"},
        {kOcFrequency,
         {1, 900},
         {0, 901},
         "2655-066 Heartbeat frequency value should be greater "
         "than 0 and less than 900.\n"},
        {kOcSensitivity,
         {2, 100},
         {1, 101},
         "2655-067 Heartbeat sensitivity value should be "
         "greater than 1 and less than 100.\n"},
        {kOcPowerStatusMode,
         {0, 3},
         {4, 100},
         "2655-068 The valid values for the power status "
         "mode attribute are 0, 1, 2 or 3.\n"},
        {kOcHAMode,
         {0, 3},
         {4, 5},
         "2655-069 The valid values for the highly available mode "
         "attribute are 0, 1, 2 or 3.\n"},
        {kOcDeviceStatusFrequency,
         {1, 900},
         {0, 901},
         "2655-073 Device status frequency value "
         "should be greater than 0 and less than "
         "900.\n"},
        {kOcDeviceStatusSensitivity,
         {2, 100},
         {1, 101},
         "2655-074 Device status sensitivity "
         "value should be greater than 1 and "
         "less than 100.\n"},
    };
    zn_resource_handle h = theResource();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        for (uint32_t bad : c.refused) {
            uint32_t before = number(c.id);
            RMReply r = set(kCls, h, attrs(u32(c.id, bad)));
            ASSERT_EQ(r.items.size(), 1u);
            EXPECT_EQ(errorText(r.items[0].error), c.message) << bad;
            EXPECT_EQ(number(c.id), before) << bad;
        }
        for (uint32_t good : c.accepted) {
            RMReply r = set(kCls, h, attrs(u32(c.id, good)));
            ASSERT_EQ(r.items.size(), 1u);
            EXPECT_FALSE(r.items[0].error) << good << ": " << errorText(r.items[0].error);
            EXPECT_EQ(number(c.id), good);
        }
    }
    for (auto [id, message] : {std::pair{kOcRemoteShell,
                                         "2655-058 The value provided to the "
                                         "RemoteShell attribute is not valid. "
                                         "Please provide a string that is not "
                                         "empty.\n"},
                               std::pair{kOcRemoteCopyCmd,
                                         "2655-072 The value provided to the "
                                         "RemoteCopyCmd attribute is not valid. "
                                         "Please provide a string that is not "
                                         "empty.\n"}}) {
        RMReply r = set(kCls, h, attrs(str(id, "")));
        EXPECT_EQ(errorText(r.items[0].error), message);
        EXPECT_FALSE(set(kCls, h, attrs(str(id, "/usr/local/bin/rsh"))).items[0].error);
    }
}

TEST_F(OrvCtrlTest, ARefusedAttributeIsSkippedAndTheRestApplied) {
    zn_resource_handle h = theResource();
    RMReply r = set(kCls, h, attrs(u32(kOcFrequency, 901), u32(kOcSensitivity, 20)));
    ASSERT_EQ(r.items.size(), 2u);
    EXPECT_FALSE(r.error);
    EXPECT_EQ(number(kOcFrequency), 12u);
    EXPECT_EQ(number(kOcSensitivity), 20u);
    // Setting only the sensitivity re-applies the current frequency with it.
    EXPECT_EQ(tunings().back(), (std::pair<unsigned, unsigned>{12, 20}));
    auto* rccp = this->rccp<OrvCtrlRccp>(kCls);
    EXPECT_EQ(rccp->getHbFrequency(), 12);
    EXPECT_EQ(rccp->getHbSensitivity(), 20);

    // The same attribute twice: the first applied, the second refused.
    r = set(kCls, h, attrs(u32(kOcFrequency, 30), u32(kOcFrequency, 40)));
    ASSERT_EQ(r.items.size(), 2u);
    int refused = 0;
    for (const auto& item : r.items) {
        refused += errorId(item.error) == tarn_rmf::RM_EREPEATEDATTR ? 1 : 0;
    }
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(number(kOcFrequency), 30u);
    EXPECT_EQ(tunings().back(), (std::pair<unsigned, unsigned>{30, 20}));

    r = set(kCls, h, attrs(u32(kOcAddUnrecognizedNodes, 1)));
    EXPECT_EQ(rccp->getAddUnrecognizedNodes(), 1u);
}

TEST_F(OrvCtrlTest, UnknownReadOnlyAndMistypedAttributesAreRefusedWithCommonErrors) {
    zn_resource_handle h = theResource();
    struct Case {
        RMReplyAttr value;
        int error;
    };
    std::vector<Case> cases;
    cases.push_back({u32(20, 1), tarn_rmf::RM_EINVALIDATTRID});
    cases.push_back({u32(-1, 1), tarn_rmf::RM_EINVALIDATTRID});
    cases.push_back({u32(4, 1), tarn_rmf::RM_EINVALIDATTRID});  // ids 4 and 9 are not offered
    cases.push_back({u32(9, 1), tarn_rmf::RM_EINVALIDATTRID});
    cases.push_back({u32(kOcVariety, 2), tarn_rmf::RM_EREADONLYATTR});
    cases.push_back({str(kOcFrequency, "12"), tarn_rmf::RM_EDATATYPE});
    for (Case& c : cases) {
        int id = c.value.id;
        std::vector<RMReplyAttr> one;
        one.push_back(std::move(c.value));
        RMReply r = set(kCls, h, std::move(one));
        ASSERT_EQ(r.items.size(), 1u) << id;
        EXPECT_EQ(errorId(r.items[0].error), c.error) << id;
    }
    RMReply g = get(kCls, h, {kOcFrequency, 20, kOcFrequency});
    EXPECT_EQ(g.values.size(), 1u);
    EXPECT_EQ(g.items.size(), 2u) << "the unknown and the repeated id";
}

TEST_F(OrvCtrlTest, SettingsSurviveARestartAndAreAppliedAtStart) {
    zn_resource_handle h = theResource();
    ASSERT_FALSE(
        set(kCls, h, attrs(u32(kOcFrequency, 45), str(kOcClusterTM, "1234-567"))).items[0].error);
    restart();
    EXPECT_EQ(tunings().back(), (std::pair<unsigned, unsigned>{45, 8}));
    auto* rccp = this->rccp<OrvCtrlRccp>(kCls);
    char* tm = rccp->getClusterTM();
    EXPECT_STREQ(tm, "1234-567");
    std::free(tm);
    EXPECT_EQ(rccp->getRegSyncDelay(), 1u);
    EXPECT_EQ(rccp->isRemoteShellSetupRequired(), 1);
}

TEST_F(OrvCtrlTest, GettersFallBackWhenTheResourceCannotBeRead) {
    auto* rccp = this->rccp<OrvCtrlRccp>(kCls);
    ASSERT_FALSE(set(kCls, theResource(), attrs(u32(kOcRegSyncDelay, 7))).items[0].error);
    EXPECT_EQ(rccp->getRegSyncDelay(), 7u);
    rccp->resourceTable()->deleteRows(nullptr);
    EXPECT_EQ(rccp->getRegSyncDelay(), 1u);
    EXPECT_EQ(rccp->isRemoteShellSetupRequired(), -1);
    EXPECT_EQ(rccp->getClusterTM(), nullptr);
    EXPECT_EQ(rccp->getClusterSNum(), nullptr);
}

TEST_F(OrvCtrlTest, ChangesAreAnnouncedOnlyWhileNotificationIsOn) {
    zn_resource_handle h = theResource();
    set(kCls, h, attrs(u32(kOcRegSyncDelay, 2)));
    EXPECT_TRUE(out_.notices().empty());
    RMReply on =
        resourceOp(RMRequestOp::EnablePersResourceAttrsNotification, kCls, h, {kOcRegSyncDelay});
    EXPECT_EQ(on.values.size(), 1u) << "enabling answers the current value";
    set(kCls, h, attrs(u32(kOcRegSyncDelay, 3), u32(kOcHAMode, 1)));
    auto notes = out_.notices();
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_TRUE(notes[0].persistent);
    ASSERT_EQ(notes[0].values.size(), 1u) << "only the attribute with notification on";
    EXPECT_EQ(notes[0].values[0].id, kOcRegSyncDelay);
    EXPECT_EQ(notes[0].values[0].value.value().val_uint32, 3u);
}

TEST_F(OrvCtrlTest, ClassAttributesAndRefresh) {
    RMReply r = classOp(RMRequestOp::GetClassAttributeValues, kCls, {0, 0, 1});
    ASSERT_EQ(r.values.size(), 1u);
    EXPECT_EQ(r.values[0].value.value().val_uint32, 1u);
    ASSERT_EQ(r.items.size(), 2u);
    EXPECT_EQ(errorText(r.items[0].error),
              "2655-002 Attribute Variety appears in request more than once.\n");
    EXPECT_EQ(errorId(r.items[1].error), tarn_rmf::RM_EINVALIDATTRID);
    RMReply refresh = classOp(RMRequestOp::RefreshConfig, kCls);
    EXPECT_FALSE(refresh.error);
    auto notes = out_.notices();
    ASSERT_EQ(notes.size(), 1u) << "a refresh reports the class attributes";
    EXPECT_FALSE(notes[0].hasHandle);
    EXPECT_EQ(notes[0].values.size(), 1u);
}

TEST(OrvCtrlXcu, TheConsoleToolDecides) {
    testsupport::TempDir root(/*asRoot=*/true);
    EXPECT_FALSE(OrvCtrlRccp::isOnAnXCU());
    std::filesystem::create_directories(root / "opt/ysu/bin");
    std::ofstream(root / "opt/ysu/bin/lsysu") << "";
    EXPECT_TRUE(OrvCtrlRccp::isOnAnXCU());
}

}  // namespace
}  // namespace classtest
