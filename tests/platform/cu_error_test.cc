#include "platform/cu_error.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace {

TEST(CuError, PackagedErrorKeepsIdsAndRendersItsText) {
    cu_error_t* e = nullptr;
    ASSERT_EQ(cu_pkg_error_1(&e, 0x10007, nullptr, "Kor.ORVRM.cat", 1, 3,
                             "2655-003 Class name %1$s is not recognized by this resource manager.\n",
                             "Kor.Nope"),
              0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->cu_error_id, 0x10007);
    EXPECT_EQ(e->cu_msg_num, 3);
    EXPECT_EQ(cu_error_text(e),
              "2655-003 Class name Kor.Nope is not recognized by this resource manager.\n");
    cu_error_t* copy = cu_dup_error_1(e);
    cu_rel_error_1(e);
    char* msg = nullptr;
    ASSERT_EQ(cu_get_errmsg_1(copy, &msg), 0);
    EXPECT_STREQ(msg, "2655-003 Class name Kor.Nope is not recognized by this resource manager.\n");
    cu_rel_errmsg_1(msg);
    cu_rel_error_1(copy);
}

TEST(CuError, NullArgumentsAreRefusedOrEmpty) {
    EXPECT_EQ(cu_pkg_error_1(nullptr, 1, nullptr, "c", 1, 1, "x"), -1);
    EXPECT_EQ(cu_error_text(nullptr), "");
    char* msg = reinterpret_cast<char*>(1);
    EXPECT_EQ(cu_get_errmsg_1(nullptr, &msg), 0);
    EXPECT_EQ(msg, nullptr);
    cu_rel_error_1(nullptr);
}

TEST(CuError, LastErrorIsPerThread) {
    cu_set_error_1(16, nullptr, "znhas.cat", 1, 5, "2650-949 %1$s", "hostA");
    std::thread other([] {
        cu_error_t* e = nullptr;
        cu_get_error(&e);
        EXPECT_EQ(e->cu_error_id, 0);
        cu_rel_error_1(e);
    });
    other.join();
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    EXPECT_EQ(e->cu_error_id, 16);
    EXPECT_EQ(cu_error_text(e), "2650-949 hostA");
    cu_rel_error_1(e);
    cu_set_no_error_1();
    cu_get_error(&e);
    EXPECT_EQ(e->cu_error_id, 0);
    cu_rel_error_1(e);
}

}  // namespace
