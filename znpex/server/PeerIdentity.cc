#include "znpex/server/PeerIdentity.h"

#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <vector>

#include "znpex/proto/ServiceMessages.h"

namespace znpex::server {
namespace {

constexpr size_t kMaxCachedUsers = 1024;

}  // namespace

std::optional<PeerCredentials> peerCredentials(int fd) {
    struct ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof(cred)) {
        return std::nullopt;
    }
    return PeerCredentials{cred.pid, cred.uid, cred.gid};
}

std::string localIdentity(uid_t uid) {
    // Names are looked up once per user: the lookup may read files or ask a
    // directory service, and it runs on an I/O thread for every connection.
    static std::mutex mu;
    static std::map<uid_t, std::string> cache;
    {
        std::lock_guard<std::mutex> g(mu);
        if (auto it = cache.find(uid); it != cache.end()) {
            return it->second;
        }
    }
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
    std::string identity = name + "@" + proto::kLocalHost;
    std::lock_guard<std::mutex> g(mu);
    if (cache.size() < kMaxCachedUsers) {
        cache.emplace(uid, identity);
    }
    return identity;
}

}  // namespace znpex::server
