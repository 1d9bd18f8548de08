#include <gtest/gtest.h>

#include "znpex/di/di_table.h"

namespace {

using namespace znpex::di;

class DiCalls : public ::testing::Test {
protected:
    void TearDown() override {
        setRefresher(nullptr);
        setHeartbeatTuner(nullptr);
    }
};

TEST_F(DiCalls, TableBuildsTheTransactionTheServiceReceives) {
    di_table_t t = nullptr;
    ASSERT_EQ(di_init_table_1(DI_TABLE_ADD, &t), DI_OK);
    char n1[] = "n1", n2[] = "node-one", a1[] = "10.0.0.1";
    char* names[] = {n1, nullptr, n2};
    char* addrs[] = {a1};
    ASSERT_EQ(di_mn_table_entry_1(t, 0xABCDEFull, "n1.example", names, 3, addrs, 1), DI_OK);
    ASSERT_EQ(di_ngn_null_table_1(t), DI_OK);
    char m[] = "n1.example";
    char* members[] = {m};
    ASSERT_EQ(di_ngn_table_entry_1(t, "grp", members, 1), DI_OK);
    Transaction seen;
    setRefresher([&](const Transaction& tr) {
        seen = tr;
        return DI_EPARTIAL;
    });
    EXPECT_EQ(di_refresh_table_1(t), DI_EPARTIAL);
    di_free_table_1(t);
    EXPECT_EQ(seen.op, DI_TABLE_ADD);
    ASSERT_EQ(seen.nodes.size(), 1u);
    EXPECT_EQ(seen.nodes[0].nodeId, 0xABCDEFull);
    EXPECT_EQ(seen.nodes[0].names, (std::vector<std::string>{"n1", "node-one"}));
    EXPECT_FALSE(seen.clearNodes);
    EXPECT_TRUE(seen.clearGroups);
    ASSERT_EQ(seen.groups.size(), 1u);
    EXPECT_EQ(seen.groups[0].members[0], "n1.example");
}

TEST_F(DiCalls, BadCallsAndNoServiceGiveCodes) {
    di_table_t t = nullptr;
    EXPECT_EQ(di_init_table_1(static_cast<di_table_op_t>(0), &t), DI_EINVAL);
    EXPECT_EQ(di_init_table_1(DI_TABLE_ADD, nullptr), DI_EINVAL);
    ASSERT_EQ(di_init_table_1(DI_TABLE_REMOVE, &t), DI_OK);
    EXPECT_EQ(di_mn_table_entry_1(t, 1, nullptr, nullptr, 0, nullptr, 0), DI_EINVAL);
    EXPECT_EQ(di_mn_table_entry_1(t, 1, "", nullptr, 0, nullptr, 0), DI_EINVAL);
    EXPECT_EQ(di_ngn_table_entry_1(t, nullptr, nullptr, 0), DI_EINVAL);
    EXPECT_EQ(di_refresh_table_1(t), DI_ENOSERVICE);
    EXPECT_EQ(di_refresh_table_1(nullptr), DI_EINVAL);
    di_free_table_1(t);
    di_free_table_1(nullptr);
    EXPECT_EQ(di_tune_heartbeat(4, 8), DI_ENOSERVICE);
    unsigned got[2] = {};
    setHeartbeatTuner([&](unsigned f, unsigned s) {
        got[0] = f;
        got[1] = s;
        return DI_OK;
    });
    EXPECT_EQ(di_tune_heartbeat(4, 8), DI_OK);
    EXPECT_EQ(got[0], 4u);
    EXPECT_EQ(got[1], 8u);
}

}  // namespace
