#include "znpex/server/PeerIdentity.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using znpex::server::localIdentity;
using znpex::server::peerCredentials;

TEST(PeerIdentityTest, CredentialsComeFromTheKernel) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    auto cred = peerCredentials(sv[0]);
    ASSERT_TRUE(cred.has_value());
    EXPECT_EQ(cred->uid, ::geteuid());
    EXPECT_EQ(cred->pid, ::getpid());
    ::close(sv[0]);
    ::close(sv[1]);
    EXPECT_FALSE(peerCredentials(-1).has_value());
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_FALSE(peerCredentials(fds[0]).has_value());  // not a socket
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(PeerIdentityTest, UserNamesAtLocalhost) {
    EXPECT_EQ(localIdentity(0), "root@LOCALHOST");
    if (struct passwd* pw = ::getpwuid(65534)) {
        EXPECT_EQ(localIdentity(65534), std::string(pw->pw_name) + "@LOCALHOST");
    }
    // A uid without a name keeps its number; asking again gives the same answer.
    ASSERT_EQ(::getpwuid(3999999), nullptr);
    EXPECT_EQ(localIdentity(3999999), "3999999@LOCALHOST");
    EXPECT_EQ(localIdentity(3999999), "3999999@LOCALHOST");
}

}  // namespace
