#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <stdexcept>

#include "tarn_base/CException.h"
#include "znpex/events/EventErrors.h"
#include "znpex/events/WatchEngine.h"

namespace {

using namespace znpex::events;

// A node-hardware-like class: persistent Hostname (0), dynamic PowerStatus
// (0), Status (1), ConfigChanged (2).
tarn_rmf2v::RMClassDef hwClass() {
    tarn_rmf2v::RMClassDef d;
    d.name = "Kor.NodeHwCtrl";
    d.persistent = {{"Hostname", 0, ZN_CHAR_PTR, 0}};
    d.dynamic = {{"PowerStatus", 0, ZN_UINT32, 0},
                 {"Status", 1, ZN_UINT32, 0},
                 {"ConfigChanged", 2, ZN_UINT32, 0}};
    d.classDynamic = {{"ResourceDefined", 0, ZN_UINT32, 0}};
    return d;
}

zn_resource_handle handle(unsigned char tag) {
    zn_resource_handle h{};
    h.bytes[19] = tag;
    return h;
}

class Engine : public ::testing::Test {
protected:
    Engine() : engine_([this](std::vector<Event>&& batch) { keep(std::move(batch)); }) {}

    // Events that share another's body get that body filled in, so every
    // case below reads complete events; sharing itself is checked on `shared_`.
    void keep(std::vector<Event>&& batch) {
        size_t base = events_.size();
        for (Event& e : batch) {
            if (e.sameAs >= 0) {
                ++shared_;
                const Event& src = events_.at(base + static_cast<size_t>(e.sameAs));
                EXPECT_LT(src.sameAs, 0) << "a body comes from an event that has one";
                EXPECT_TRUE(e.attrs.empty());
                e.className = src.className;
                e.hasHandle = src.hasHandle;
                e.handle = src.handle;
                e.flags = src.flags;
                e.error = src.error;
                for (const EventAttr& a : src.attrs) {
                    e.attrs.push_back({a.name, a.id, a.persistent,
                                       zn::OwnedValue::copyOf(a.value.type(), a.value.value())});
                }
            }
            events_.push_back(std::move(e));
        }
    }

    void hostname(const zn_resource_handle& h, const char* name) {
        rm_attribute_value v{0, ZN_CHAR_PTR, {}};
        v.rm_value.ptr_char = const_cast<char*>(name);
        engine_.seed("Kor.NodeHwCtrl", &h, true, &v, 1);
    }
    void dyn(const zn_resource_handle& h, int id, uint32_t value) {
        rm_attribute_value v{id, ZN_UINT32, {}};
        v.rm_value.val_uint32 = value;
        engine_.report("Kor.NodeHwCtrl", &h, false, &v, 1);
    }
    uint64_t watch(const char* expr, const char* rearm = "", const char* sel = "",
                   std::vector<std::string> attrs = {"Hostname", "PowerStatus"}) {
        WatchSpec s;
        s.className = "Kor.NodeHwCtrl";
        s.selection = sel;
        s.attributes = std::move(attrs);
        s.expression = expr;
        s.rearm = rearm;
        return engine_.addWatch(s, hwClass());
    }
    size_t take() {
        size_t n = events_.size();
        fired_.insert(fired_.end(), std::make_move_iterator(events_.begin()),
                      std::make_move_iterator(events_.end()));
        events_.clear();
        return n;
    }

    std::vector<Event> events_;
    std::vector<Event> fired_;
    size_t shared_ = 0;
    WatchEngine engine_;
};

TEST_F(Engine, PreviousValueExpressionFiresOnEveryChangeOnly) {
    auto h = handle(1);
    hostname(h, "node1");
    watch("PowerStatus!=PowerStatus@P");
    dyn(h, 0, 1);  // no previous value yet: the comparison is false
    EXPECT_EQ(take(), 0u);
    dyn(h, 0, 0);
    dyn(h, 0, 0);
    dyn(h, 0, 1);
    EXPECT_EQ(take(), 2u);
    ASSERT_EQ(fired_.size(), 2u);
    const Event& last = fired_[1];
    EXPECT_EQ(last.flags, 0u);
    ASSERT_EQ(last.attrs.size(), 2u);
    EXPECT_EQ(last.attrs[0].name, "Hostname");
    EXPECT_STREQ(last.attrs[0].value.value().ptr_char, "node1");
    EXPECT_EQ(last.attrs[1].name, "PowerStatus");
    EXPECT_FALSE(last.attrs[1].persistent);
    EXPECT_EQ(last.attrs[1].value.value().val_uint32, 1u);
    EXPECT_TRUE(last.hasHandle && last.handle == h);
}

// The manager's answer to "start monitoring" and its first change race on
// the wire: whichever comes first, the change fires once, and an answer that
// differs from what the watch was seeded with is a change of its own.
TEST_F(Engine, TheStartOfMonitoringNeverSwallowsAChange) {
    auto h = handle(9);
    hostname(h, "node9");
    watch("PowerStatus!=PowerStatus@P");
    auto answer = [&](uint32_t value) {
        rm_attribute_value v{0, ZN_UINT32, {}};
        v.rm_value.val_uint32 = value;
        engine_.refresh("Kor.NodeHwCtrl", &h, false, &v, 1);
    };
    auto seeded = [&](uint32_t value) {
        rm_attribute_value v{0, ZN_UINT32, {}};
        v.rm_value.val_uint32 = value;
        engine_.seed("Kor.NodeHwCtrl", &h, false, &v, 1);
    };
    seeded(1);
    answer(0);     // the answer already holds the change...
    dyn(h, 0, 0);  // ...and the change's report comes after it
    EXPECT_EQ(take(), 1u);
    dyn(h, 0, 1);  // the change's report first...
    answer(1);     // ...then an answer holding the same value
    EXPECT_EQ(take(), 1u);
    answer(1);  // nothing new
    EXPECT_EQ(take(), 0u);

    auto fresh = handle(10);  // never seen: the answer only seeds it
    hostname(fresh, "node10");
    rm_attribute_value v{0, ZN_UINT32, {}};
    v.rm_value.val_uint32 = 1;
    engine_.refresh("Kor.NodeHwCtrl", &fresh, false, &v, 1);
    EXPECT_EQ(take(), 0u);
    dyn(fresh, 0, 0);
    EXPECT_EQ(take(), 1u);
}

TEST_F(Engine, EventsCarryTheExpressionsAttributesAfterTheListedOnes) {
    auto h = handle(2);
    hostname(h, "node2");
    watch("PowerStatus!=PowerStatus@P", "", "", {"Hostname"});
    watch("PowerStatus!=PowerStatus@P && Hostname==\"node2\"", "", "", {"PowerStatus"});
    dyn(h, 0, 0);
    dyn(h, 0, 1);
    ASSERT_EQ(take(), 2u);
    std::vector<std::vector<std::string>> names;
    for (const Event& e : fired_) {
        names.emplace_back();
        for (const EventAttr& a : e.attrs) {
            names.back().push_back(a.name);
        }
    }
    EXPECT_EQ(names[0], (std::vector<std::string>{"Hostname", "PowerStatus"}));
    EXPECT_EQ(names[1], (std::vector<std::string>{"PowerStatus", "Hostname"}))
        << "listed first, each name once";
    EXPECT_EQ(fired_[0].attrs[1].value.value().val_uint32, 1u);
}

TEST_F(Engine, WatchesSendingTheSameAttributesShareOneBodyPerReport) {
    auto h = handle(10);
    hostname(h, "node10");
    uint64_t a = watch("PowerStatus==1");
    uint64_t b = watch("PowerStatus!=PowerStatus@P", "", "", {"PowerStatus"});
    uint64_t c = watch("PowerStatus>0");
    dyn(h, 0, 0);
    dyn(h, 0, 1);
    ASSERT_EQ(take(), 3u);
    EXPECT_EQ(shared_, 1u) << "c sends what a sends; b sends less";
    std::set<uint64_t> watches;
    for (const Event& e : fired_) {
        watches.insert(e.watch);
        EXPECT_TRUE(e.hasHandle && e.handle == h);
        ASSERT_FALSE(e.attrs.empty());
        EXPECT_EQ(e.attrs.back().value.value().val_uint32, 1u);
    }
    EXPECT_EQ(watches, (std::set<uint64_t>{a, b, c}));
    EXPECT_EQ(fired_[2].attrs.size(), 2u);
    EXPECT_STREQ(fired_[2].attrs[0].value.value().ptr_char, "node10");
}

TEST_F(Engine, BareAttributeFiresForEachReportOfThatAttribute) {
    auto h = handle(2);
    watch("ConfigChanged");
    dyn(h, 2, 1);
    dyn(h, 0, 5);  // another attribute: not evaluated
    dyn(h, 2, 1);
    EXPECT_EQ(take(), 2u);
}

TEST_F(Engine, RearmExpressionGatesTheNextEventPerResource) {
    auto a = handle(3), b = handle(4);
    watch("Status==0", "Status==1");
    // a: fires, stays quiet until re-armed, fires again.
    for (uint32_t v : {0u, 0u, 1u, 0u}) {
        dyn(a, 1, v);
    }
    EXPECT_EQ(take(), 2u);
    // b has its own armed state.
    dyn(b, 1, 0);
    EXPECT_EQ(take(), 1u);
    dyn(a, 1, 0);
    EXPECT_EQ(take(), 0u) << "a is still waiting for its re-arm";
}

TEST_F(Engine, SelectionLimitsTheResourcesWatched) {
    auto n1 = handle(5), n2 = handle(6);
    hostname(n1, "node1");
    hostname(n2, "node2");
    watch("Status==1", "", "Hostname==\"node2\"");
    dyn(n1, 1, 1);
    dyn(n2, 1, 1);
    ASSERT_EQ(take(), 1u);
    EXPECT_TRUE(fired_[0].handle == n2);
}

TEST_F(Engine, ErrorEventsForUndefinedResourcesGoneManagersAndShutdown) {
    auto h = handle(7);
    hostname(h, "node7");
    uint64_t w1 = watch("Status==1", "", "Hostname==\"node7\"");
    uint64_t w2 = watch("Status==2", "", "Hostname==\"other\"");
    engine_.resourceUndefined("Kor.NodeHwCtrl", h);
    ASSERT_EQ(take(), 1u) << "only the watch that selected the resource";
    EXPECT_EQ(fired_[0].watch, w1);
    EXPECT_EQ(fired_[0].flags & kEventFlagError, kEventFlagError);
    EXPECT_EQ(fired_[0].error, kErrResourceUndefined);
    EXPECT_STREQ(fired_[0].attrs[0].value.value().ptr_char, "node7");

    engine_.managerGone("Kor.NodeHwCtrl");
    engine_.managerGone("Kor.Other");
    ASSERT_EQ(take(), 2u);
    EXPECT_EQ(fired_[1].error, kErrManagerGone);
    EXPECT_EQ(fired_[2].watch, w2);
    EXPECT_EQ(engine_.watchCount(), 2u) << "watches survive a manager restart";

    engine_.stopping();
    EXPECT_EQ(take(), 2u);
    EXPECT_EQ(fired_[3].error, kErrServiceStopping);
    EXPECT_EQ(engine_.watchCount(), 0u);
}

TEST_F(Engine, BadWatchesAreRefusedWithClearErrors) {
    EXPECT_THROW(watch("NoSuchAttr==1"), tarn_base::CErrorException);
    EXPECT_THROW(watch("Status=="), tarn_base::CErrorException);
    EXPECT_THROW(watch("Status==1", "Status=="), tarn_base::CErrorException);
    EXPECT_THROW(watch("Status==1", "", "", {"Bogus"}), std::invalid_argument);
    EXPECT_EQ(engine_.watchCount(), 0u);
}

TEST_F(Engine, MonitoringNeedsFollowTheWatches) {
    EXPECT_TRUE(engine_.neededDynamic("Kor.NodeHwCtrl").empty());
    uint64_t a = watch("PowerStatus!=PowerStatus@P", "", "", {"Hostname"});
    uint64_t b = watch("Status==0", "ConfigChanged", "", {"Hostname"});
    EXPECT_EQ(engine_.neededDynamic("Kor.NodeHwCtrl"), (std::set<int>{0, 1, 2}));
    engine_.removeWatch(b);
    EXPECT_EQ(engine_.neededDynamic("Kor.NodeHwCtrl"), (std::set<int>{0}));
    engine_.removeWatch(a);
    EXPECT_TRUE(engine_.neededDynamic("Kor.NodeHwCtrl").empty());
    EXPECT_FALSE(engine_.removeWatch(a));
}

TEST_F(Engine, ClassLevelWatchesSeeOnlyClassReports) {
    WatchSpec s;
    s.className = "Kor.NodeHwCtrl";
    s.classLevel = true;
    s.attributes = {"ResourceDefined"};
    s.expression = "ResourceDefined";
    engine_.addWatch(s, hwClass());
    // Its id 0 is the class's ResourceDefined, not the resources' PowerStatus.
    EXPECT_EQ(engine_.neededDynamic("Kor.NodeHwCtrl", true), (std::set<int>{0}));
    EXPECT_TRUE(engine_.neededDynamic("Kor.NodeHwCtrl").empty());
    rm_attribute_value v{0, ZN_UINT32, {}};
    v.rm_value.val_uint32 = 1;
    engine_.report("Kor.NodeHwCtrl", nullptr, false, &v, 1);
    dyn(handle(9), 0, 1);
    ASSERT_EQ(take(), 1u);
    EXPECT_FALSE(fired_[0].hasHandle);
    EXPECT_EQ(fired_[0].flags & kEventFlagClass, kEventFlagClass);
}

}  // namespace
