// Validity checks of names and addresses given by nodes, value comparisons
// over arrays, and strtolower: accepted and refused inputs in one table each.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/HostChecks.h"
#include "common/ValueCompare.h"
#include "tests/common/WexTraceCapture.h"

namespace {

TEST(HostChecks, MachineNameTable) {
    struct Row {
        const char* name;
        int valid;
    };
    const std::vector<Row> rows = {
        {"node1", 1},     {"localhost.", 1}, {"localhost4", 1}, {"ip6-localhost", 1},
        {"LOCALHOST", 0}, {"localhost", 0},  {"Loopback", 0},   {"localhost.localDomain", 0},
        {"", 0},
    };
    for (const Row& r : rows) {
        std::string n = r.name;
        EXPECT_EQ(WEX_COMMON::isValidNonLocalMachineName(n.data()), r.valid) << r.name;
    }
    EXPECT_EQ(WEX_COMMON::isValidNonLocalMachineName(nullptr), 0);
}

TEST(HostChecks, AddressTable) {
    struct Row {
        const char* text;
        int valid;
    };
    const std::vector<Row> rows = {
        {"10.1.2.3", 1},    {"0.0.0.0", 1},   {"169.254.1.1", 1},     {"128.0.0.1", 1},
        {"126.255.0.1", 1}, {"127.0.0.1", 0}, {"127.255.255.254", 0}, {"127.1", 0},
        {"1270.0.0.1", 0},  {"16777217", 0},  // valid, but no dot
        {"node1", 0},       {"", 0},          {"1.2.3.4.5", 0},
    };
    for (const Row& r : rows) {
        std::string t = r.text;
        EXPECT_EQ(WEX_COMMON::isValidNonLoopbackIPAddress(t.data()), r.valid) << r.text;
    }
    EXPECT_EQ(WEX_COMMON::isValidNonLoopbackIPAddress(nullptr), 0);
}

TEST(HostChecks, TraceLines) {
    testsupport::WexTraceCapture trace;
    char local[] = "LocalHost";
    char remote[] = "node7";
    char loop[] = "127.0.0.1";
    char bad[] = "1270.0.0.1";
    WEX_COMMON::isValidNonLocalMachineName(local);
    WEX_COMMON::isValidNonLocalMachineName(remote);
    WEX_COMMON::isValidNonLocalMachineName(nullptr);
    WEX_COMMON::isValidNonLoopbackIPAddress(loop);
    WEX_COMMON::isValidNonLoopbackIPAddress(bad);
    const std::vector<std::string> expected = {
        "isValidNonLocalMachineName(LocalHost) called\n",
        "hname is 'localhost', returning false",
        "isValidNonLocalMachineName(node7) called\n",
        "hname is not a local hostname, returning true",
        "isValidNonLocalMachineName(<null>) called\n",
        "isValidNonLoopbackIPAddress(127.0.0.1) called\n",
        "127.0.0.1 is a local loopback address",
        "isValidNonLoopbackIPAddress(1270.0.0.1) called\n",
        "inet_aton(1270.0.0.1) returned an error",
    };
    EXPECT_EQ(trace.lines(), expected);
}

TEST(HostChecks, StrToLower) {
    for (auto [in, out] : std::vector<std::pair<std::string, std::string>>{
             {"Node1.Cluster.TEST", "node1.cluster.test"}, {"", ""}, {"already", "already"}}) {
        std::string s = in;
        strtolower(s.data());
        EXPECT_EQ(s, out);
    }
    strtolower(nullptr);  // left alone
}

// Arrays of up to four values of one type, built for the comparisons.
struct Arr {
    explicit Arr(std::vector<zn_value_t> v) : a(zn_array_new(static_cast<uint32_t>(v.size()))) {
        for (size_t i = 0; i < v.size(); ++i) {
            a->elements[i] = v[i];
        }
    }
    ~Arr() { std::free(a); }
    Arr(const Arr&) = delete;
    Arr& operator=(const Arr&) = delete;
    zn_array* a;
};

zn_value_t u(uint64_t x) {
    zn_value_t v{};
    v.val_uint64 = x;
    return v;
}
zn_value_t s(const char* x) {
    zn_value_t v{};
    v.ptr_char = const_cast<char*>(x);
    return v;
}
zn_value_t d(double x) {
    zn_value_t v{};
    v.val_float64 = x;
    return v;
}

TEST(ValueCompare, IsElementOfTable) {
    Arr nums({u(1), u(2), u(0x100000003ull)});
    Arr texts({s("node1"), s("Node2")});
    Arr floats({d(1.5), d(-0.0)});
    Arr empty({});
    struct Row {
        const char* name;
        zn_value_t value;
        zn_array* array;
        int type;
        unsigned long long flags;
        int found;
    };
    const std::vector<Row> rows = {
        {"int32 by 32 bits", u(3), nums.a, ZN_INT32, 0, 1},
        {"int64 by 64 bits", u(3), nums.a, ZN_INT64, 0, 0},
        {"uint64 found", u(0x100000003ull), nums.a, ZN_UINT64, 0, 1},
        {"uint32 missing", u(7), nums.a, ZN_UINT32, 0, 0},
        {"text exact", s("node1"), texts.a, ZN_CHAR_PTR, 0, 1},
        {"text case differs", s("Node1"), texts.a, ZN_CHAR_PTR, 0, 0},
        {"text ignoring case", s("Node1"), texts.a, ZN_CHAR_PTR, 4, 1},
        {"text ignoring case 2", s("NODE2"), texts.a, ZN_CHAR_PTR, 4, 1},
        {"null text", s(nullptr), texts.a, ZN_CHAR_PTR, 4, 0},
        {"float equality", d(0.0), floats.a, ZN_FLOAT64, 0, 1},
        {"float missing", d(2.5), floats.a, ZN_FLOAT64, 0, 0},
        {"other types never match", u(1), nums.a, ZN_BINARY_PTR, 0, 0},
        {"empty array", u(1), empty.a, ZN_UINT64, 0, 0},
        {"null array", u(1), nullptr, ZN_UINT64, 0, 0},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(WEX_COMMON::isElementOf(r.value, r.array, r.type, r.flags), r.found) << r.name;
    }
}

TEST(ValueCompare, AreEqualTable) {
    Arr a12({u(1), u(2)}), a213({u(2), u(1), u(3)}), a123({u(1), u(2), u(3)}), a21({u(2), u(1)});
    Arr a11({u(1), u(1)}), empty({});
    Arr up({s("A"), s("b")}), low({s("a"), s("B")});
    struct Row {
        const char* name;
        zn_array* first;
        zn_array* second;
        int type;
        unsigned long long flags;
        int equal;
    };
    const std::vector<Row> rows = {
        {"subset", a12.a, a213.a, ZN_UINT32, 0, 1},
        {"superset", a123.a, a21.a, ZN_UINT32, 0, 0},
        {"repeats", a11.a, a12.a, ZN_UINT32, 0, 1},
        {"empty first", empty.a, a12.a, ZN_UINT32, 0, 1},
        {"null first", nullptr, a12.a, ZN_UINT32, 0, 1},
        {"empty second", a12.a, empty.a, ZN_UINT32, 0, 0},
        {"null second", a12.a, nullptr, ZN_UINT32, 0, 0},
        {"texts exact", up.a, low.a, ZN_CHAR_PTR, 0, 0},
        {"texts ignoring case", up.a, low.a, ZN_CHAR_PTR, 4, 1},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(WEX_COMMON::areEqual(r.first, r.second, r.type, r.flags), r.equal) << r.name;
    }
}

TEST(ValueCompare, TraceLines) {
    Arr texts({s("node1")});
    testsupport::WexTraceCapture trace;
    EXPECT_EQ(WEX_COMMON::isElementOf(s("Node1"), texts.a, ZN_CHAR_PTR, 4), 1);
    const std::vector<std::string> expected = {
        "isElementOf called",
        "comparing [Node1] to [node1], case insensitively",
        "isElementOf exiting, returning 1",
    };
    EXPECT_EQ(trace.lines(), expected);
}

}  // namespace
