#include <gtest/gtest.h>

#include <cstring>

#include "znpex/proto/HeartbeatReport.h"

namespace {

using znpex::proto::HeartbeatReport;

std::vector<unsigned char> report(uint32_t n, std::vector<std::pair<uint32_t, uint32_t>> entries,
                                  const std::string& tail) {
    std::vector<unsigned char> b(16 + 8 * entries.size(), 0);
    uint64_t node = 0x1122334455667788ull;
    std::memcpy(b.data(), &node, 8);
    std::memcpy(b.data() + 8, &n, 4);
    for (size_t i = 0; i < entries.size(); ++i) {
        std::memcpy(b.data() + 16 + 8 * i, &entries[i].first, 4);
        std::memcpy(b.data() + 20 + 8 * i, &entries[i].second, 4);
    }
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
}

TEST(HeartbeatReport, RoundTripsEveryEntryAndTheEmptyReport) {
    HeartbeatReport in;
    in.nodeId = 42;
    in.entries = {{1, "10.0.0.1"}, {0, "fe80::1"}, {7, std::string(255, 'a')}};
    auto bytes = znpex::proto::buildHeartbeatReport(in);
    HeartbeatReport out;
    std::string why;
    ASSERT_TRUE(znpex::proto::parseHeartbeatReport(bytes.data(), bytes.size(), out, why)) << why;
    EXPECT_EQ(out.nodeId, 42u);
    ASSERT_EQ(out.entries.size(), 3u);
    EXPECT_EQ(out.entries[1].address, "fe80::1");
    EXPECT_EQ(out.entries[2].address.size(), 255u);
    EXPECT_EQ(out.entries[2].state, 7u);
    // A report with no entries is valid too; the node id is in host order.
    auto empty = report(0, {}, "");
    ASSERT_TRUE(znpex::proto::parseHeartbeatReport(empty.data(), empty.size(), out, why)) << why;
    EXPECT_EQ(out.nodeId, 0x1122334455667788ull);
    EXPECT_TRUE(out.entries.empty());
}

// Each hostile shape is refused as a whole, with a reason.
TEST(HeartbeatReport, HostileMessagesAreRefused) {
    struct Case {
        const char* what;
        std::vector<unsigned char> bytes;
        const char* reason;
    } cases[] = {
        {"short header", std::vector<unsigned char>(15, 0), "shorter than its header"},
        {"count past the end", report(3, {{1, 24}}, "a\0"), "does not fit"},
        {"huge count", report(0xFFFFFFFFu, {}, std::string(64, 'x')), "does not fit"},
        {"offset in header", report(1, {{1, 4}}, std::string("abc\0", 4)), "outside"},
        {"offset in entry table", report(2, {{1, 20}, {1, 32}}, std::string("abc\0", 4)),
         "outside"},
        {"offset past end", report(1, {{1, 1000}}, std::string("abc\0", 4)), "outside"},
        {"offset at end", report(1, {{1, 28}}, std::string("abcd", 4)), "outside"},
        {"no NUL", report(1, {{1, 24}}, "10.0.0.1"), "no terminating NUL"},
        {"256 characters", report(1, {{1, 24}}, std::string(256, 'b') + '\0'), "longer than 255"},
    };
    for (const auto& c : cases) {
        HeartbeatReport out;
        out.nodeId = 99;
        std::string why;
        EXPECT_FALSE(znpex::proto::parseHeartbeatReport(c.bytes.data(), c.bytes.size(), out, why))
            << c.what;
        EXPECT_NE(why.find(c.reason), std::string::npos) << c.what << ": " << why;
        EXPECT_EQ(out.nodeId, 99u) << c.what << " changed the output";
    }
    HeartbeatReport out;
    std::string why;
    EXPECT_FALSE(znpex::proto::parseHeartbeatReport(nullptr, 100, out, why));
}

}  // namespace
