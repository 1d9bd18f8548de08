#include "orvrm/refreshpex.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "orvrm/pexaclrefresh.h"

namespace {

// Nothing can take the request yet: both report failure the same way.
TEST(RefreshPexTest, FailsWhileTheServiceCannotBeAsked) {
    errno = 0;
    EXPECT_EQ(requestPexAclRefresh(), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(refreshpex(), -1);
}

}  // namespace
