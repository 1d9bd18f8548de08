// Host-name helpers against the test's own resolver and loopback addresses
// only: connectivity names, the primary host name, address/name conversion
// and the layout of the name lists handed out.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/HostNames.h"
#include "common/NameList.h"
#include "tests/common/FakeResolver.h"
#include "tests/common/WexTraceCapture.h"
#include "tests/support/Subprocess.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FakeResolver;

std::vector<std::string> names(const zn_array* a) {
    std::vector<std::string> v;
    for (uint32_t i = 0; i < a->array_cnt; ++i) {
        v.emplace_back(a->elements[i].ptr_char);
    }
    return v;
}

// A null-terminated list of targets that owns its texts.
struct Targets {
    explicit Targets(std::vector<std::string> t) : texts(std::move(t)) {
        for (auto& s : texts) {
            ptrs.push_back(s.data());
        }
        ptrs.push_back(nullptr);
    }
    char** get() { return ptrs.data(); }
    std::vector<std::string> texts;
    std::vector<char*> ptrs;
};

class HostNames : public ::testing::Test {
protected:
    FakeResolver fake;
    zn::resolver::ScopedResolver use{fake};
};

TEST_F(HostNames, ConnectivityNamesTable) {
    fake.name("nodeA", "nodeA.test", {"127.0.0.3"});
    fake.name("nodeB", "nodeB.test", {"127.0.0.4", "127.0.0.5"});
    fake.addr("127.0.0.1", "mgmt.test");
    struct Row {
        const char* name;
        std::vector<std::string> targets;
        unsigned long long flags;
        int rc;
        std::vector<std::string> result;
    };
    const std::vector<Row> rows = {
        {"one dotted target", {"127.0.0.1"}, 0, 0, {"127.0.0.1"}},
        {"same interface gives one element",
         {"127.0.0.1", "127.0.0.2", "127.9.8.7"},
         0,
         0,
         {"127.0.0.1"}},
        {"resolved names", {"nodeA", "nodeB"}, 0, 0, {"127.0.0.1"}},
        {"host names asked for", {"nodeA", "127.0.0.2"}, 1, 0, {"mgmt.test"}},
        {"highest accepted flags", {"127.0.0.1"}, 15, 0, {"mgmt.test"}},
        {"no targets", {}, 0, 0, {}},
        {"flags 16", {"127.0.0.1"}, 16, 1, {}},
        {"flag in the upper half", {"127.0.0.1"}, 1ull << 40, 1, {}},
        {"no entry for a name", {"127.0.0.1", "ghost"}, 0, 3, {}},
    };
    for (const Row& r : rows) {
        Targets t(r.targets);
        zn_array* out = reinterpret_cast<zn_array*>(&fake);  // must stay untouched on failure
        int rc = WEX_COMMON::fetchConnectivityNames(t.get(), &out, r.flags);
        ASSERT_EQ(rc, r.rc) << r.name;
        if (rc != 0) {
            EXPECT_EQ(out, reinterpret_cast<zn_array*>(&fake)) << r.name;
            continue;
        }
        EXPECT_EQ(names(out), r.result) << r.name;
        std::free(out);
    }
}

TEST_F(HostNames, ConnectivityNameFallsBackToTheAddressWithoutAName) {
    zn_array* out = nullptr;
    char target[] = "127.0.0.1";
    ASSERT_EQ(WEX_COMMON::fetchConnectivityNames(target, &out, 1), 0);
    EXPECT_EQ(names(out), std::vector<std::string>{"127.0.0.1"});
    EXPECT_EQ(fake.addrQuestions(), std::vector<std::string>{"127.0.0.1"});
    std::free(out);
}

TEST_F(HostNames, UnresolvableTargetIsTriedTenTimes) {
    fake.nameFails("flaky", 2);
    struct Row {
        const char* target;
        int rc;
    };
    for (Row r : {Row{"flaky", 2}, Row{"ghost", 3}}) {
        zn_array* out = nullptr;
        char* targets[] = {const_cast<char*>("127.0.0.1"), const_cast<char*>(r.target), nullptr};
        EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(targets, &out, 0), r.rc) << r.target;
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(fake.nameCalls(r.target), WEX_COMMON::kResolveAttempts) << r.target;
    }
}

TEST_F(HostNames, ConnectivityNullArgumentsAreRefused) {
    zn_array* out = nullptr;
    EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(static_cast<char**>(nullptr), &out, 0), 1);
    EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(static_cast<char*>(nullptr), &out, 0), 1);
    char target[] = "127.0.0.1";
    EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(target, nullptr, 0), 1);
    EXPECT_EQ(out, nullptr);
}

TEST_F(HostNames, ConnectivityTrace) {
    testsupport::WexTraceCapture trace;
    fake.nameFails("flaky", 2);
    zn_array* out = nullptr;
    char* targets[] = {const_cast<char*>("127.0.0.1"), const_cast<char*>("127.0.0.2"), nullptr};
    ASSERT_EQ(WEX_COMMON::fetchConnectivityNames(targets, &out, 0), 0);
    std::free(out);
    const std::vector<std::string> expected = {
        "fetchConnectivityNames called",
        "computing source IP for target [127.0.0.1]",
        "  adding [127.0.0.1] to result",
        "  added [127.0.0.1] to result",
        "computing source IP for target [127.0.0.2]",
        "  [127.0.0.1] was already added to result, skipping it this time",
        "fetchConnectivityNames exiting, returning 0",
    };
    EXPECT_EQ(trace.lines(), expected);
    trace.clear();
    char flaky[] = "flaky";
    EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(flaky, &out, 0), 2);
    EXPECT_TRUE(trace.has("  cu_gethostbyname(flaky) failed with code 2"));
    EXPECT_TRUE(trace.has("fetchConnectivityNames exiting, returning 2"));
}

TEST_F(HostNames, SlowResolverHoldsUpNoOtherCaller) {
    fake.name("slow", "slow.test", {"127.0.0.7"}, 1500ms);
    fake.name("fast", "fast.test", {"127.0.0.8"});
    std::atomic<bool> slowDone{false};
    std::thread slowCaller([&] {
        zn_array* out = nullptr;
        char t[] = "slow";
        EXPECT_EQ(WEX_COMMON::fetchConnectivityNames(t, &out, 0), 0);
        std::free(out);
        slowDone = true;
    });
    EXPECT_TRUE(testsupport::waitFor([&] { return fake.nameCalls("slow") > 0; }));
    for (int i = 0; i < 20; ++i) {
        zn_array* out = nullptr;
        char t[] = "fast";
        ASSERT_EQ(WEX_COMMON::fetchConnectivityNames(t, &out, 1), 0);
        std::free(out);
    }
    EXPECT_FALSE(slowDone) << "fast lookups waited for the slow one";
    slowCaller.join();
    EXPECT_TRUE(slowDone);
}

TEST_F(HostNames, PrimaryHostNameTable) {
    char self[101] = {};
    ASSERT_EQ(gethostname(self, 100), 0);
    struct Row {
        const char* name;
        int setup;  // 0 resolves, 1 fails, 2 no entry
        unsigned long long flags;
        int rc;
    };
    const std::vector<Row> rows = {
        {"resolves", 0, 0, 0},       {"other flags are ignored", 0, 1, 0},
        {"flag 2", 0, 2, 666},       {"flag 2 with others", 0, 3, 666},
        {"resolver error", 1, 0, 2}, {"no entry", 2, 0, 2},
    };
    for (const Row& r : rows) {
        FakeResolver local;
        if (r.setup == 0) {
            local.name(self, "primary.cluster.test", {"127.0.0.1"});
        } else if (r.setup == 1) {
            local.nameFails(self, 3);
        }
        zn::resolver::ScopedResolver inner(local);
        zn_array* out = nullptr;
        ASSERT_EQ(WEX_COMMON::fetchLocalHostPrimaryHostnames(&out, r.flags), r.rc) << r.name;
        if (r.rc == 0) {
            EXPECT_EQ(names(out), std::vector<std::string>{"primary.cluster.test"}) << r.name;
            std::free(out);
        } else {
            EXPECT_EQ(out, nullptr) << r.name;
        }
    }
}

TEST_F(HostNames, AddressAndNameConversionTable) {
    fake.addr("127.0.0.9", "nine.test");
    fake.addrFails("127.0.0.10", 2);
    fake.name("nine", "nine.test", {"127.0.0.9", "127.0.0.99"});
    fake.name("empty", "empty.test", {});
    fake.nameFails("broken", 3);
    struct Row {
        const char* text;
        int rc;
        const char* name;  // ip2hostname's result when rc is 0
    };
    for (Row r : {Row{"127.0.0.9", 0, "nine.test"}, Row{"127.0.0.10", 1, nullptr},
                  Row{"127.0.0.11", 1, nullptr}}) {
        std::string ip = r.text;
        char* dup = nullptr;
        EXPECT_EQ(WEX_COMMON::ip2hostname(ip.data(), &dup), r.rc) << r.text;
        char buf[64] = "untouched";
        EXPECT_EQ(WEX_COMMON::ip2hostname(ip.data(), buf, sizeof buf), r.rc) << r.text;
        if (r.rc == 0) {
            EXPECT_STREQ(dup, r.name);
            EXPECT_STREQ(buf, r.name);
            std::free(dup);
        } else {
            EXPECT_EQ(dup, nullptr);
            EXPECT_STREQ(buf, "untouched");
        }
    }
    struct NameRow {
        const char* host;
        const char* ip;  // null: the out pointer stays null
    };
    for (NameRow r : {NameRow{"nine", "127.0.0.9"}, NameRow{"empty", nullptr},
                      NameRow{"broken", nullptr}, NameRow{"ghost", nullptr}}) {
        std::string host = r.host;
        char* ip = nullptr;
        EXPECT_EQ(WEX_COMMON::hostname2ip(host.data(), &ip), 0) << r.host;
        if (r.ip == nullptr) {
            EXPECT_EQ(ip, nullptr) << r.host;
        } else {
            EXPECT_STREQ(ip, r.ip);
            std::free(ip);
        }
    }
}

TEST_F(HostNames, BoundedCopiesAndUnfinishedVariant) {
    fake.addr("127.0.0.9", "a-rather-long-host-name.test");
    char ip[] = "127.0.0.9";
    char small[8];
    ASSERT_EQ(WEX_COMMON::ip2hostname(ip, small, sizeof small), 0);
    EXPECT_STREQ(small, "a-rathe");
    EXPECT_EQ(WEX_COMMON::ip2hostname(ip, small, 0), 1);
    EXPECT_EQ(WEX_COMMON::ip2hostname(nullptr, small, sizeof small), 1);
    // Unparsable text is looked up as the conversion left it.
    char junk[] = "not-an-address";
    EXPECT_EQ(WEX_COMMON::ip2hostname(junk, small, sizeof small), 1);
    EXPECT_EQ(fake.addrQuestions().back(), "0.0.0.0");
    char host[] = "nine";
    char buf[16] = "same";
    EXPECT_EQ(WEX_COMMON::hostname2ip(host, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "same");
}

TEST_F(HostNames, ConversionTrace) {
    fake.addr("127.0.0.9", "nine.test");
    testsupport::WexTraceCapture trace;
    char ip[] = "127.0.0.9";
    char* name = nullptr;
    ASSERT_EQ(WEX_COMMON::ip2hostname(ip, &name), 0);
    std::free(name);
    char other[] = "127.0.0.8";
    EXPECT_EQ(WEX_COMMON::ip2hostname(other, &name), 1);
    const std::vector<std::string> expected = {
        "ip2hostname called",
        "  returning [nine.test] for hostname of [127.0.0.9]",
        "ip2hostname exiting, returning 0",
        "ip2hostname called",
        "  cu_gethostbyaddr() returned 0, but did not set host_p",
        "ip2hostname exiting, returning 1",
    };
    EXPECT_EQ(trace.lines(), expected);
}

TEST(NameList, ClassicLayoutWhileTheNamesFitAndGrownBeyond) {
    struct Row {
        const char* name;
        std::vector<std::string> names;
        size_t size;
    };
    const std::vector<Row> rows = {
        {"none", {}, 1106},
        {"three", {"a", "bb", "ccc"}, 1106},
        {"eleven", std::vector<std::string>(11, "n"), 1106},
        {"twelve slots", std::vector<std::string>(12, "n"), 8 + 12 * 8 + 1010},
        {"text of 1010", std::vector<std::string>(10, std::string(100, 'x')), 1106},
        {"text of 1011", {std::string(1010, 'x')}, 8 + 88 + 1011},
        {"both grown", std::vector<std::string>(40, std::string(100, 'y')), 8 + 40 * 8 + 40 * 101},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(WEX_COMMON::nameListSize(r.names), r.size) << r.name;
        zn_array* list = WEX_COMMON::newNameList(r.names);
        ASSERT_NE(list, nullptr) << r.name;
        EXPECT_EQ(names(list), r.names) << r.name;
        const char* base = reinterpret_cast<const char*>(list);
        size_t slots = r.names.size() > 11 ? r.names.size() : 11;
        const char* text = base + 8 + slots * 8;
        for (uint32_t i = 0; i < list->array_cnt; ++i) {
            EXPECT_EQ(list->elements[i].ptr_char, text) << r.name << " element " << i;
            text += r.names[i].size() + 1;
        }
        EXPECT_LE(static_cast<size_t>(text - base), r.size) << r.name;
        std::free(list);
    }
}

}  // namespace
