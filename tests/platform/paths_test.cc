#include "platform/paths.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace {

class PathsTest : public ::testing::Test {
protected:
    void TearDown() override { unsetenv(zn::paths::kRootEnv); }
};

TEST_F(PathsTest, UnsetRootLeavesTheSystemPaths) {
    unsetenv(zn::paths::kRootEnv);
    EXPECT_EQ(zn::paths::resolve(zn::paths::kAclFile), "/var/zn/cfg/znpex.acls");
    EXPECT_EQ(zn::paths::resolveCommand(zn::paths::kFpingCommand), "/usr/sbin/fping  -f%s -t%d -u");
    // Other installed programs and nodes look for these files by these names.
    EXPECT_EQ(zn::paths::resolve(zn::paths::kAclLockFile), "/var/zn/lck/znpex.acls.lock");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kAclDefaultFile), "/usr/sbin/tarn/cfg/znpex.acls");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kPrivateKeyFile), "/var/zn/cfg/zn_has.qkf");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kPublicKeyFile), "/var/zn/cfg/zn_has.pkf");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kLsysu), "/opt/ysu/bin/lsysu");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kActivePartitionList), "/tmp/actptnlist.txt");
}

TEST_F(PathsTest, RootPrefixesEveryFixedPath) {
    setenv(zn::paths::kRootEnv, "/tmp/r1//", 1);
    EXPECT_EQ(zn::paths::resolve(zn::paths::kRegistryTree),
              "/tmp/r1/var/zn/IW/registry/local_tree");
    EXPECT_EQ(zn::paths::resolve(zn::paths::kFpingList), "/tmp/r1/tmp/fpinglist");
    EXPECT_EQ(zn::paths::resolveCommand(zn::paths::kCopyCommand), "/tmp/r1/bin/cp %s %s 2>&1");
    EXPECT_EQ(zn::paths::resolve("relative/file"), "relative/file");
}

TEST_F(PathsTest, RootOfSlashOrEmptyIsNoRoot) {
    setenv(zn::paths::kRootEnv, "/", 1);
    EXPECT_EQ(zn::paths::resolve(zn::paths::kThlFile), "/var/zn/cfg/zn_has.thl");
    setenv(zn::paths::kRootEnv, "", 1);
    EXPECT_EQ(zn::paths::resolve(zn::paths::kThlFile), "/var/zn/cfg/zn_has.thl");
}

}  // namespace
