// Event watches end to end: the real service (znpexd) under a temporary state
// root, the test's own resource manager connected to it, and the client
// library's px_reg_event_select / px_dispatch. Covers expressions with
// previous values, re-arm, monitoring that follows the watches, the error
// event when the manager goes and the resumption when it is back, watches on
// the class's own attributes, and how px_dispatch ends.
#include <fcntl.h>

#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "tests/znpex_watch/PowerManager.h"
#include "znpex/client/px_event.h"

namespace {

using testsupport::binPath;
using testsupport::readFile;
using testsupport::Subprocess;
using testsupport::TempDir;
using watchtest::kClass;
using watchtest::PowerManager;

struct Got {
    uint64_t registration = 0;
    uint32_t flags = 0;
    int32_t errnum = 0;
    bool hasHandle = false;
    std::string host;
    int64_t power = -1;  // -1: not sent
    std::string site;
    int64_t poweredOn = -1;  // -1: not sent
};

// Keeps every event its callback receives.
class Collector {
public:
    static void callback(void*, px_event_2_t* e, void* arg) {
        auto* self = static_cast<Collector*>(arg);
        Got g;
        g.registration = e->pe_registration;
        g.flags = e->pe_flags;
        g.errnum = e->pe_errnum;
        g.hasHandle = e->pe_has_handle != 0;
        for (uint32_t i = 0; i < e->pe_attr_count; ++i) {
            std::string name = e->pe_attrs[i].pe_name;
            if (name == "Hostname" && e->pe_attrs[i].pe_type == ZN_CHAR_PTR) {
                g.host = e->pe_attrs[i].pe_value.ptr_char;
            } else if (name == "PowerStatus" && e->pe_attrs[i].pe_type == ZN_UINT32) {
                g.power = e->pe_attrs[i].pe_value.val_uint32;
            } else if (name == "Site" && e->pe_attrs[i].pe_type == ZN_CHAR_PTR) {
                g.site = e->pe_attrs[i].pe_value.ptr_char;
            } else if (name == "PoweredOn" && e->pe_attrs[i].pe_type == ZN_UINT32) {
                g.poweredOn = e->pe_attrs[i].pe_value.val_uint32;
            }
        }
        px_free_response(e);
        std::lock_guard<std::mutex> lk(self->mu_);
        self->got_.push_back(g);
        self->cv_.notify_all();
    }
    // Waits until at least n events arrived.
    bool waitCount(size_t n, int ms = 10000) {
        std::unique_lock<std::mutex> lk(mu_);
        return cv_.wait_for(lk, std::chrono::milliseconds(ms), [&] { return got_.size() >= n; });
    }
    std::vector<Got> all() {
        std::lock_guard<std::mutex> lk(mu_);
        return got_;
    }
    size_t size() {
        std::lock_guard<std::mutex> lk(mu_);
        return got_.size();
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Got> got_;
};

// px_dispatch(session, 1) on a thread of its own, keeping what it returned.
// The session must end (or fail) before it is destroyed.
class Dispatcher {
public:
    explicit Dispatcher(px_session_t s) : thread_([this, s] { rc_ = px_dispatch(s, 1); }) {}
    ~Dispatcher() { join(); }
    int join() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return rc_.load();
    }
    bool done() const { return rc_.load() != -1; }

private:
    std::atomic<int> rc_{-1};
    std::thread thread_;
};

// A service and a manager of `Resources` resources.
template <int Resources>
class WatchOf : public ::testing::Test {
protected:
    void SetUp() override {
        std::string dst = zn::paths::resolve(zn::paths::kAclDefaultFile);
        std::filesystem::create_directories(std::filesystem::path(dst).parent_path());
        std::filesystem::copy_file(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls", dst);
        service_ = std::make_unique<Subprocess>(binPath("znpex/server/znpexd"),
                                                std::vector<std::string>{"--no-tcp"},
                                                std::vector<std::string>{}, root_ / "znpexd.err");
        manager_.connect();
        ASSERT_TRUE(
            testsupport::waitFor([this] { return classConnected(); }, std::chrono::seconds(20)))
            << readFile(root_ / "znpexd.err");
        ASSERT_EQ(px_start_session(nullptr, 0, 0x401, &session_), PX_OK);
    }
    void TearDown() override {
        if (session_ != nullptr) {
            px_end_session(session_);
        }
        dispatcher_.reset();
    }
    Dispatcher& dispatch() {
        dispatcher_ = std::make_unique<Dispatcher>(session_);
        return *dispatcher_;
    }
    bool classConnected() {
        px_session_t s = nullptr;
        if (px_start_session(nullptr, 0, 0x401, &s) != PX_OK) {
            return false;
        }
        px_class_list_t* list = nullptr;
        bool ok = false;
        if (px_list_classes(s, &list) == PX_OK) {
            for (uint32_t i = 0; i < list->class_count; ++i) {
                ok = ok || (std::string(list->classes[i].name) == kClass &&
                            list->classes[i].connected != 0);
            }
        }
        px_free_response(list);
        px_end_session(s);
        return ok;
    }
    // Registers a watch sending Hostname and PowerStatus; 0 on failure.
    uint64_t watch(px_session_t s, const char* expr, const char* rearm, Collector& c,
                   const char* selection = nullptr) {
        const char* names[] = {"Hostname", "PowerStatus"};
        px_reg_event_rsp_t* rsp = nullptr;
        int rc = px_reg_event_select(s, 2, kClass, selection, names, 2, expr, rearm,
                                     &Collector::callback, &c, &rsp);
        EXPECT_EQ(rc, PX_OK);
        uint64_t id = rc == PX_OK ? rsp->registration : 0;
        px_free_response(rsp);
        return id;
    }
    bool waitMonitored(int n) {
        return testsupport::waitFor([&] { return manager_.monitored() == n; },
                                    std::chrono::seconds(10));
    }
    // No further event arrives in a short while.
    static bool quiet(Collector& c, size_t have) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return c.size() == have;
    }

    TempDir root_{true};
    std::unique_ptr<Subprocess> service_;
    PowerManager manager_{Resources};
    px_session_t session_ = nullptr;
    std::unique_ptr<Dispatcher> dispatcher_;
};

using Watch = WatchOf<2>;
// More resources than the service asks their manager about at once.
using WatchMany = WatchOf<75>;

TEST_F(Watch, PreviousValueFiresOnChangeOnly) {
    Collector c;
    uint64_t id = watch(session_, "PowerStatus!=PowerStatus@P", nullptr, c);
    ASSERT_NE(id, 0u);
    Dispatcher& d = dispatch();
    ASSERT_TRUE(waitMonitored(2));
    manager_.setPower(0, 1);
    ASSERT_TRUE(c.waitCount(1));
    manager_.setPower(0, 1);  // same value: no change
    manager_.setPower(1, 0);  // same as its seeded value
    EXPECT_TRUE(quiet(c, 1));
    manager_.setPower(0, 0);
    ASSERT_TRUE(c.waitCount(2));
    auto got = c.all();
    EXPECT_EQ(got[0].registration, id);
    EXPECT_EQ(got[0].flags, 0u);
    EXPECT_EQ(got[0].host, manager_.hostname(0));
    EXPECT_EQ(got[0].power, 1);
    EXPECT_EQ(got[1].host, manager_.hostname(0));
    EXPECT_EQ(got[1].power, 0);
    EXPECT_EQ(px_end_session(session_), PX_OK);
    session_ = nullptr;
    EXPECT_EQ(d.join(), PX_DISPATCH_ENDED);
}

TEST_F(Watch, RearmLetsItFireAgain) {
    Collector c;
    ASSERT_NE(watch(session_, "PowerStatus==1", "PowerStatus==0", c, "Hostname==\"node2\""), 0u);
    dispatch();
    ASSERT_TRUE(
        testsupport::waitFor([&] { return manager_.monitored() >= 1; }, std::chrono::seconds(10)));
    manager_.setPower(1, 1);
    ASSERT_TRUE(c.waitCount(1));
    manager_.setPower(1, 1);  // still 1, not re-armed
    manager_.setPower(0, 1);  // not selected
    EXPECT_TRUE(quiet(c, 1));
    manager_.setPower(1, 0);  // re-arms, fires nothing
    EXPECT_TRUE(quiet(c, 1));
    manager_.setPower(1, 1);
    ASSERT_TRUE(c.waitCount(2));
    for (const Got& g : c.all()) {
        EXPECT_EQ(g.host, manager_.hostname(1));
        EXPECT_EQ(g.power, 1);
    }
}

TEST_F(Watch, EventsWaitForDispatch) {
    Collector c;
    ASSERT_NE(watch(session_, "PowerStatus!=PowerStatus@P", nullptr, c), 0u);
    ASSERT_TRUE(waitMonitored(2));
    manager_.setPower(0, 1);
    manager_.setPower(1, 1);
    // Another call on the session reads the events off the connection first.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    px_enumerate_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_enumerate_select(session_, kClass, nullptr, &rsp), PX_OK);
    EXPECT_EQ(rsp->handle_count, 2u);
    px_free_response(rsp);
    EXPECT_EQ(c.size(), 0u);
    EXPECT_EQ(px_dispatch(session_, 0), PX_OK);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(px_events_dropped(session_), 0u);
}

TEST_F(Watch, MonitoringFollowsTheWatches) {
    Collector c1, c2;
    uint64_t a = watch(session_, "PowerStatus==1", nullptr, c1);
    ASSERT_TRUE(waitMonitored(2));
    uint64_t b = watch(session_, "PowerStatus!=PowerStatus@P", nullptr, c2);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(manager_.monitoringCalls().size(), 2u);  // started once per resource
    ASSERT_EQ(px_unreg_event(session_, a), PX_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(manager_.monitored(), 2);             // the other watch still needs it
    EXPECT_NE(px_unreg_event(session_, a), PX_OK);  // already gone
    ASSERT_EQ(px_unreg_event(session_, b), PX_OK);
    ASSERT_TRUE(waitMonitored(0));
    auto calls = manager_.monitoringCalls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2].substr(0, 5), "stop:");
    EXPECT_EQ(calls[3].substr(0, 5), "stop:");

    // A session that ends takes its watches' monitoring with it.
    px_session_t other = nullptr;
    ASSERT_EQ(px_start_session(nullptr, 0, 0x401, &other), PX_OK);
    ASSERT_NE(watch(other, "PowerStatus==1", nullptr, c1), 0u);
    ASSERT_TRUE(waitMonitored(2));
    EXPECT_EQ(px_end_session(other), PX_OK);
    ASSERT_TRUE(waitMonitored(0));
    EXPECT_EQ(manager_.monitoringCalls().size(), 8u);
}

TEST_F(Watch, ManagerGoneGivesErrorEventsAndWatchesResume) {
    Collector c;
    uint64_t id = watch(session_, "PowerStatus!=PowerStatus@P", nullptr, c);
    dispatch();
    ASSERT_TRUE(waitMonitored(2));
    int queried = manager_.dynamicQueries();
    manager_.disconnect();
    ASSERT_TRUE(c.waitCount(1));
    Got gone = c.all()[0];
    EXPECT_EQ(gone.registration, id);
    EXPECT_EQ(gone.flags & PX_EVENT_ERROR, PX_EVENT_ERROR);
    EXPECT_EQ(gone.errnum, 0x4000a);

    manager_.connect();
    // Back: current values read again and monitoring started again.
    ASSERT_TRUE(testsupport::waitFor([&] { return manager_.monitoringCalls().size() >= 4u; },
                                     std::chrono::seconds(10)));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(manager_.monitoringCalls().size(), 4u) << "started once per resource";
    EXPECT_GT(manager_.dynamicQueries(), queried);
    manager_.setPower(1, 1);
    ASSERT_TRUE(c.waitCount(2));
    Got back = c.all()[1];
    EXPECT_EQ(back.flags, 0u);
    EXPECT_EQ(back.host, manager_.hostname(1));
    EXPECT_EQ(back.power, 1);
}

TEST_F(Watch, ClassLevelWatchReadsTheClassAndMonitorsItWhileNeeded) {
    Collector c;
    const char* names[] = {"Site", "PoweredOn"};
    px_reg_event_rsp_t* rsp = nullptr;
    ASSERT_EQ(
        px_reg_event_select(session_, 2 | PX_EVENT_OPT_CLASS, kClass, nullptr, names, 2,
                            "PoweredOn!=PoweredOn@P", nullptr, &Collector::callback, &c, &rsp),
        PX_OK);
    uint64_t id = rsp->registration;
    px_free_response(rsp);
    dispatch();
    ASSERT_TRUE(
        testsupport::waitFor([&] { return manager_.classMonitored(); }, std::chrono::seconds(10)));
    EXPECT_EQ(manager_.classStarts(), 1);
    EXPECT_GE(manager_.classQueries(), 2) << "Site and PoweredOn read when it was set up";
    EXPECT_EQ(manager_.monitored(), 0) << "the resources' attributes are not the class's";

    manager_.setPoweredOn(0);  // what it was when read: no change
    manager_.setPower(0, 1);   // a resource's report is not the class's
    EXPECT_TRUE(quiet(c, 0));
    manager_.setPoweredOn(2);
    ASSERT_TRUE(c.waitCount(1));
    manager_.setSite("hall");  // not named by the expression, but sent from now on
    EXPECT_TRUE(quiet(c, 1));
    manager_.setPoweredOn(3);
    ASSERT_TRUE(c.waitCount(2));
    auto got = c.all();
    ASSERT_EQ(got.size(), 2u);
    for (const Got& g : got) {
        EXPECT_EQ(g.registration, id);
        EXPECT_EQ(g.flags, PX_EVENT_CLASS);
        EXPECT_FALSE(g.hasHandle);
    }
    EXPECT_EQ(got[0].site, "lab");
    EXPECT_EQ(got[0].poweredOn, 2);
    EXPECT_EQ(got[1].site, "hall");
    EXPECT_EQ(got[1].poweredOn, 3);

    // A second class watch shares the monitoring; it stops with the last one.
    Collector c2;
    const char* one[] = {"PoweredOn"};
    ASSERT_EQ(px_reg_event_select(session_, 2 | PX_EVENT_OPT_CLASS, kClass, nullptr, one, 1,
                                  "PoweredOn==4", nullptr, &Collector::callback, &c2, &rsp),
              PX_OK);
    uint64_t id2 = rsp->registration;
    px_free_response(rsp);
    ASSERT_TRUE(testsupport::waitFor([&] { return manager_.classQueries() >= 4; },
                                     std::chrono::seconds(10)));
    // The resource's report above was handled before this watch was read.
    EXPECT_EQ(manager_.monitored(), 0) << "a class attribute's id is not a resource's";
    manager_.setPoweredOn(4);
    ASSERT_TRUE(c2.waitCount(1));
    ASSERT_TRUE(c.waitCount(3));
    EXPECT_EQ(c2.all()[0].poweredOn, 4);
    ASSERT_EQ(px_unreg_event(session_, id), PX_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(manager_.classMonitored());
    ASSERT_EQ(px_unreg_event(session_, id2), PX_OK);
    ASSERT_TRUE(
        testsupport::waitFor([&] { return !manager_.classMonitored(); }, std::chrono::seconds(10)));
    EXPECT_EQ(manager_.classStarts(), 1);
    EXPECT_EQ(manager_.monitored(), 0);
}

TEST_F(Watch, DispatchEndsWhenTheSessionEndsOrTheServiceGoes) {
    {
        Dispatcher& d = dispatch();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_FALSE(d.done());
        EXPECT_EQ(px_end_session(session_), PX_OK);
        session_ = nullptr;
        EXPECT_EQ(d.join(), PX_DISPATCH_ENDED);
    }
    ASSERT_EQ(px_start_session(nullptr, 0, 0x401, &session_), PX_OK);
    Collector c;
    ASSERT_NE(watch(session_, "PowerStatus==1", nullptr, c), 0u);
    Dispatcher& d = dispatch();
    service_->signal(SIGTERM);
    EXPECT_NE(service_->wait(), -1);
    int rc = d.join();
    EXPECT_NE(rc, PX_DISPATCH_ENDED);
    EXPECT_NE(rc, PX_OK);
    // Its watch was told before the connection went.
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c.all()[0].errnum, 0x40010);
    EXPECT_EQ(c.all()[0].flags & PX_EVENT_ERROR, PX_EVENT_ERROR);
}

TEST_F(Watch, BadRegistrationsAreRefused) {
    Collector c;
    const char* names[] = {"Hostname"};
    px_reg_event_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_reg_event_select(session_, 1, kClass, nullptr, names, 1, "PowerStatus==1", nullptr,
                                  &Collector::callback, &c, &rsp),
              PX_ENOTSUPPORTED);
    EXPECT_EQ(px_reg_event_select(session_, 2, kClass, nullptr, names, 1, "PowerStatus >", nullptr,
                                  &Collector::callback, &c, &rsp),
              PX_EINVAL);
    EXPECT_EQ(rsp, nullptr);
    const char* unknown[] = {"NoSuch"};
    EXPECT_EQ(px_reg_event_select(session_, 2, kClass, nullptr, unknown, 1, "PowerStatus==1",
                                  nullptr, &Collector::callback, &c, &rsp),
              PX_EINVAL);
    EXPECT_NE(px_reg_event_select(session_, 2, "No.Class", nullptr, names, 1, "PowerStatus==1",
                                  nullptr, &Collector::callback, &c, &rsp),
              PX_OK);
    EXPECT_EQ(px_dispatch(session_, 7), PX_EINVAL);
    // The session still works.
    EXPECT_NE(watch(session_, "PowerStatus==1", nullptr, c), 0u);
}

TEST_F(WatchMany, EveryResourceIsReadAndMonitoredBeforeItsFirstChange) {
    // Values that tell the resources apart, set before anyone watches.
    auto power = [](int i, int round) { return static_cast<uint32_t>((i + round) % 2); };
    for (int i = 0; i < 75; ++i) {
        manager_.setPower(i, power(i, 0));
    }
    Collector c;
    ASSERT_NE(watch(session_, "PowerStatus!=PowerStatus@P", nullptr, c), 0u);
    dispatch();
    ASSERT_TRUE(waitMonitored(75));
    // Each resource's own value was read: reporting it again is no change.
    for (int i = 0; i < 75; ++i) {
        manager_.setPower(i, power(i, 0));
    }
    EXPECT_TRUE(quiet(c, 0));
    for (int i = 0; i < 75; ++i) {
        manager_.setPower(i, power(i, 1));
    }
    ASSERT_TRUE(c.waitCount(75));
    std::map<std::string, int64_t> byHost;
    for (const Got& g : c.all()) {
        byHost[g.host] = g.power;
    }
    ASSERT_EQ(byHost.size(), 75u);
    for (int i = 0; i < 75; ++i) {
        EXPECT_EQ(byHost[manager_.hostname(i)], power(i, 1)) << manager_.hostname(i);
    }
    EXPECT_TRUE(quiet(c, 75));
}

}  // namespace
