// The nodes' power status from the hardware-control manager: the event
// handler table-driven with events made by hand, then end to end with a real
// service (znpexd under the test root) and a scripted "Kor.NodeHwCtrl"
// manager: the watch registered 15 s after start and every 30 s after a
// failure or a lost service, on the fake clock.
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/paths.h"
#include "tests/orvrm/managednode/ServiceFixture.h"
#include "znpex/client/px_event.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;
using testsupport::waitFor;

struct EventAttr {
    const char* name;
    zn_data_type_t type;
    zn_value_t value;
};

zn_value_t u32v(uint32_t v) {
    zn_value_t x{};
    x.val_uint32 = v;
    return x;
}
zn_value_t i32v(int32_t v) {
    zn_value_t x{};
    x.val_int32 = v;
    return x;
}
zn_value_t strv(const char* s) {
    zn_value_t x{};
    x.ptr_char = const_cast<char*>(s);
    return x;
}

// An event as the client library hands it over (released by the handler).
px_event_2_t* makeEvent(uint32_t flags, int32_t errnum, std::vector<EventAttr> attrs) {
    auto* e = static_cast<px_event_2_t*>(std::calloc(1, sizeof(px_event_2_t)));
    e->hdr.pr_type = static_cast<px_response_type_t>(PX_RSP_EVENT);
    e->pe_class = strdup("Kor.NodeHwCtrl");
    e->pe_flags = flags;
    e->pe_errnum = errnum;
    e->pe_attrs =
        static_cast<px_event_attr_t*>(std::calloc(attrs.size() + 1, sizeof(px_event_attr_t)));
    for (const EventAttr& a : attrs) {
        px_event_attr_t& out = e->pe_attrs[e->pe_attr_count++];
        out.pe_name = strdup(a.name);
        out.pe_type = a.type;
        out.pe_value = zn::OwnedValue::copyOf(a.type, a.value).release();
    }
    return e;
}

class PowerEventTest : public NodeTest {};

TEST_F(PowerEventTest, EventsSetThePowerStatusOfTheNodeTheyName) {
    zn_resource_handle a =
        defineNode("a", attrs(u64(kMnUniversalId, 7), str(kMnMode, kModeManaged))).newHandle;
    startMonitoring(kNodes, &a, {kMnPowerStatus});
    struct Case {
        const char* what;
        uint32_t flags;
        int32_t errnum;
        std::vector<EventAttr> attrs;
        uint32_t before;
        uint32_t after;
    };
    const Case cases[] = {
        {"a change",
         0,
         0,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_UINT32, u32v(1)}},
         127,
         1},
        {"attributes in any order",
         0,
         0,
         {{"PowerStatus", ZN_UINT32, u32v(0)}, {"Hostname", ZN_CHAR_PTR, strv("a")}},
         1,
         0},
        {"no PowerStatus", 0, 0, {{"Hostname", ZN_CHAR_PTR, strv("a")}}, 1, 1},
        {"no Hostname", 0, 0, {{"PowerStatus", ZN_UINT32, u32v(0)}}, 1, 1},
        {"names compare exactly",
         0,
         0,
         {{"hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_UINT32, u32v(0)}},
         1,
         1},
        {"a node nobody manages",
         0,
         0,
         {{"Hostname", ZN_CHAR_PTR, strv("zz")}, {"PowerStatus", ZN_UINT32, u32v(0)}},
         1,
         1},
        {"a power status that is no number",
         0,
         0,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_CHAR_PTR, strv("0")}},
         1,
         1},
        {"a negative power status",
         0,
         0,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_INT32, i32v(-1)}},
         1,
         1},
        {"a signed one",
         0,
         0,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_INT32, i32v(0)}},
         1,
         0},
        {"error 0x4000b makes it unknown",
         PX_EVENT_ERROR,
         0x4000b,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}},
         0,
         127},
        {"error 0x40005 is ignored",
         PX_EVENT_ERROR,
         0x40005,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}},
         1,
         1},
        {"error 0x40004", PX_EVENT_ERROR, 0x40004, {{"Hostname", ZN_CHAR_PTR, strv("a")}}, 1, 127},
        {"error 0x4000a", PX_EVENT_ERROR, 0x4000a, {{"Hostname", ZN_CHAR_PTR, strv("a")}}, 1, 127},
        {"error 0x4000c", PX_EVENT_ERROR, 0x4000c, {{"Hostname", ZN_CHAR_PTR, strv("a")}}, 1, 127},
        {"error 0x40010", PX_EVENT_ERROR, 0x40010, {{"Hostname", ZN_CHAR_PTR, strv("a")}}, 1, 127},
        {"an error event without Hostname", PX_EVENT_ERROR, 0x40004, {}, 1, 1},
        {"an error event's PowerStatus is not read",
         PX_EVENT_ERROR,
         0x40005,
         {{"Hostname", ZN_CHAR_PTR, strv("a")}, {"PowerStatus", ZN_UINT32, u32v(0)}},
         1,
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        nodes()->setPowerStatus("a", c.before);
        out_.clear();
        ManagedNodeRccp::powerStatusEventCB(nullptr, makeEvent(c.flags, c.errnum, c.attrs),
                                            nodes());
        EXPECT_EQ(node(a)->getPowerStatus(), c.after);
        EXPECT_EQ(reports(kMnPowerStatus, false).size(), c.before != c.after ? 1u : 0u);
    }
}

// The daemon's classes in this process with a real service under the test
// root and the hardware-control manager beside them.
// The hardware-control manager beside the classes and the service.
class PowerStatusTest : public NodeServiceTest {
protected:
    void SetUp() override {
        NodeServiceTest::SetUp();
        a_ = defineNode("a", attrs(str(kMnMode, kModeManaged))).newHandle;
        b_ = defineNode("b", attrs(str(kMnMode, kModeManaged))).newHandle;
        startMonitoring(kNodes, &a_, {kMnPowerStatus});
        startMonitoring(kNodes, &b_, {kMnPowerStatus});
        hw_ = std::make_unique<hwctrltest::ScriptedHwCtrl>(socket(), "/hwctrl");
    }
    void TearDown() override {
        hw_.reset();
        NodeServiceTest::TearDown();
    }
    bool registered() { return nodes()->powerEventsRegistered(); }
    uint32_t power(const zn_resource_handle& h) { return node(h)->getPowerStatus(); }

    zn_resource_handle a_{}, b_{};
    std::unique_ptr<hwctrltest::ScriptedHwCtrl> hw_;
};

TEST_F(PowerStatusTest, TheHardwareManagersChangesReachTheNodes) {
    hw_->addHost("a", 1);
    hw_->addHost("b", 1);
    hw_->addHost("c", 1);  // a host this server does not manage
    ASSERT_TRUE(hw_->start());
    advance(14s);
    EXPECT_FALSE(registered()) << "the first registration is 15 s after start";
    advance(1s);
    ASSERT_TRUE(registered());
    ASSERT_TRUE(waitFor([&] { return hw_->monitored("a") && hw_->monitored("b"); }));
    EXPECT_EQ(power(a_), 127u) << "nothing is known before a change";

    out_.clear();
    hw_->setPower("a", 0);
    hw_->setPower("c", 0);
    hw_->setPower("b", 0);
    ASSERT_TRUE(waitFor([&] { return power(b_) == 0; }));
    EXPECT_EQ(power(a_), 0u);
    EXPECT_EQ(reports(kMnPowerStatus, false).size(), 2u);
    hw_->setPower("a", 1);
    ASSERT_TRUE(waitFor([&] { return power(a_) == 1; }));

    // The host's resource goes: its power status is no longer known.
    hw_->removeHost("b");
    ASSERT_TRUE(waitFor([&] { return power(b_) == 127; }));
    // The manager goes: the class-wide error names no host, nothing changes,
    // and the watch stays.
    hw_->stop();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(power(a_), 1u);
    EXPECT_TRUE(registered());
}

TEST_F(PowerStatusTest, RegistrationIsTriedEvery30SecondsUntilItHoldsAndAfterTheServiceIsLost) {
    advance(15s);
    EXPECT_FALSE(registered()) << "no manager serves the class yet";
    hw_->addHost("a", 1);
    ASSERT_TRUE(hw_->start());
    advance(29s);
    EXPECT_FALSE(registered());
    advance(1s);
    ASSERT_TRUE(registered());

    // The service stops: the session is lost and the registration is made
    // again 30 s later, once there is a service again.
    stopService();
    ASSERT_TRUE(waitFor([&] { return !registered(); }));
    advance(30s);
    EXPECT_FALSE(registered()) << "no service to register with";
    startService();
    ASSERT_TRUE(waitFor([&] { return hw_->connected(); }));
    advance(30s);
    ASSERT_TRUE(registered());
    ASSERT_TRUE(waitFor([&] { return hw_->monitored("a"); }));
    hw_->setPower("a", 0);
    ASSERT_TRUE(waitFor([&] { return power(a_) == 0; }));
}

}  // namespace
}  // namespace classtest
