// The exposition text: families, labels escaped, numbers as the format has them.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/metrics/MetricsText.h"

namespace {

using zn::metrics::MetricsText;

TEST(MetricsText, FamiliesAndSamplesInTheExpositionFormat) {
    MetricsText t;
    t.family("orvrm_nodes", "Nodes by status\nand mode \\ here", "gauge");
    t.sample("orvrm_nodes", uint64_t{3}, {{"status", "1"}, {"mode", "Managed"}});
    t.sample("orvrm_nodes", uint64_t{0}, {{"status", "0"}, {"mode", "a\"b\\c\nd"}});
    t.family("poll_seconds", "Last poll", "gauge");
    t.sample("poll_seconds", 0.25);
    EXPECT_EQ(t.text(),
              "# HELP orvrm_nodes Nodes by status\\nand mode \\\\ here\n"
              "# TYPE orvrm_nodes gauge\n"
              "orvrm_nodes{status=\"1\",mode=\"Managed\"} 3\n"
              "orvrm_nodes{status=\"0\",mode=\"a\\\"b\\\\c\\nd\"} 0\n"
              "# HELP poll_seconds Last poll\n"
              "# TYPE poll_seconds gauge\n"
              "poll_seconds 0.25\n");
}

TEST(MetricsText, ValuesWithoutADecimalForm) {
    struct Case {
        double v;
        const char* want;
    };
    for (const Case& c : {Case{std::numeric_limits<double>::quiet_NaN(), "x NaN\n"},
                          Case{std::numeric_limits<double>::infinity(), "x +Inf\n"},
                          Case{-std::numeric_limits<double>::infinity(), "x -Inf\n"},
                          Case{1e-9, "x 1.0000000000000001e-09\n"}}) {
        MetricsText t;
        t.sample("x", c.v);
        EXPECT_EQ(t.text(), c.want);
    }
}

}  // namespace
