#include "znpex/server/PeerIdentity.h"

#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "znpex/proto/ServiceMessages.h"

namespace znpex::server {

std::optional<PeerCredentials> peerCredentials(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof(cred)) {
        return std::nullopt;
    }
    return PeerCredentials{cred.pid, cred.uid, cred.gid};
}

std::string localIdentity(uid_t uid) {
    std::string name;
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 4096);
    struct passwd pw {};
    struct passwd* found = nullptr;
    if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
        found->pw_name != nullptr && found->pw_name[0] != '\0') {
        name = found->pw_name;
    } else {
        name = std::to_string(uid);
    }
    return name + "@" + proto::kLocalHost;
}

}  // namespace znpex::server
