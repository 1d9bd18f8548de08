// Who is at the other end of a local socket: the kernel's credentials of the
// peer (SO_PEERCRED), never anything the peer says about itself, turned into
// the service's identity "<user>@LOCALHOST". Thread-safe.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace znpex::server {

struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The credentials of the peer of the connected local socket `fd`, or nothing.
std::optional<PeerCredentials> peerCredentials(int fd);

// "<user name>@LOCALHOST" for `uid`; a uid without a name stands as digits.
// A name once found is kept for the life of the process.
std::string localIdentity(uid_t uid);

}  // namespace znpex::server
