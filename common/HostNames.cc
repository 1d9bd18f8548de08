#include "common/HostNames.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/NameList.h"
#include "common/WexTrace.h"
#include "platform/resolver/cu_resolver.h"

namespace WEX_COMMON {

std::mutex resolver_lock;

namespace {

constexpr size_t kMaxHostName = 100;
constexpr size_t kMaxDotted = 15;
// Stored without byte-order conversion: the port takes no part in choosing the
// source address, and nothing is ever sent.
constexpr uint16_t kProbePort = 657;

int traceExit(const char* fn, int rc) {
    wexTrace("%s exiting, returning %d", fn, rc);
    return rc;
}

// The target's address: 0, or 2/3 when it cannot be resolved.
int targetAddress(const char* target, in_addr& addr) {
    if (inet_pton(AF_INET, target, &addr) == 1) {
        return 0;
    }
    int code = 0;
    for (int attempt = 0; attempt < kResolveAttempts; ++attempt) {
        std::unique_ptr<cu_hostent> host;
        code = cu_gethostbyname(target, &host);
        if (code == 0 && host != nullptr && !host->h_addr_list.empty()) {
            addr = host->h_addr_list.front();
            return 0;
        }
        wexTrace("  cu_gethostbyname(%s) failed with code %d", target, code);
    }
    return code != 0 ? 2 : 3;
}

// The local address the system picks to reach `target`: 0, or 4/5/6.
int sourceAddress(const in_addr& target, in_addr& local) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 4;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = kProbePort;
    to.sin_addr = target;
    int rc = 0;
    sockaddr_in me{};
    socklen_t len = sizeof me;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        rc = 5;
    } else if (getsockname(fd, reinterpret_cast<sockaddr*>(&me), &len) != 0) {
        rc = 6;
    } else {
        local = me.sin_addr;
    }
    close(fd);
    return rc;
}

// Dotted text of an address, cut at the first character that is neither a
// digit nor ".", at most 15 characters.
std::string dotted(const in_addr& a) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    std::string s(buf);
    size_t cut = s.find_first_not_of("0123456789.");
    if (cut != std::string::npos) {
        s.resize(cut);
    }
    return s.substr(0, kMaxDotted);
}

}  // namespace

int fetchConnectivityNames(char** targets, zn_array** out, unsigned long long flags) {
    static const char fn[] = "fetchConnectivityNames";
    wexTrace("%s called", fn);
    if (flags >= kConnectivityFlagLimit || targets == nullptr || out == nullptr) {
        return traceExit(fn, 1);
    }
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (char** t = targets; *t != nullptr; ++t) {
        wexTrace("computing source IP for target [%s]", *t);
        in_addr addr{};
        int rc = targetAddress(*t, addr);
        in_addr local{};
        if (rc == 0) {
            rc = sourceAddress(addr, local);
        }
        if (rc != 0) {
            return traceExit(fn, rc);
        }
        std::string name = dotted(local);
        if ((flags & kConnectivityHostNames) != 0) {
            // Looked up outside resolver_lock so a slow resolver holds up nobody else.
            char host[kMaxHostName + 1] = {};
            if (ip2hostname(name.data(), host, sizeof host) == 0 && host[0] != '\0') {
                name = host;
            }
        }
        std::lock_guard<std::mutex> guard(resolver_lock);
        if (!seen.insert(name).second) {
            wexTrace("  [%s] was already added to result, skipping it this time", name.c_str());
            continue;
        }
        wexTrace("  adding [%s] to result", name.c_str());
        names.push_back(name);
        wexTrace("  added [%s] to result", name.c_str());
    }
    zn_array* list = newNameList(names);
    if (list == nullptr) {
        return traceExit(fn, 7);
    }
    *out = list;
    return traceExit(fn, 0);
}

int fetchConnectivityNames(char* target, zn_array** out, unsigned long long flags) {
    char* targets[] = {target, nullptr};
    return fetchConnectivityNames(target != nullptr ? targets : nullptr, out, flags);
}

int fetchLocalHostPrimaryHostnames(zn_array** out, unsigned long long flags) {
    static const char fn[] = "fetchLocalHostPrimaryHostnames";
    wexTrace("%s called", fn);
    if ((flags & kPrimaryUnsupportedFlag) != 0) {
        return traceExit(fn, 666);
    }
    if (out == nullptr) {
        return traceExit(fn, 1);
    }
    char name[kMaxHostName + 1] = {};
    if (gethostname(name, kMaxHostName) != 0) {
        int err = errno;
        wexTrace("  gethostname() returned %d, errno=[%s]", -1, std::strerror(err));
        return traceExit(fn, 1);
    }
    wexTrace("gethostname() returns [%s]", name);
    std::unique_ptr<cu_hostent> host;
    int code = cu_gethostbyname(name, &host);
    if (code != 0 || host == nullptr) {
        wexTrace("  cu_gethostbyname() returned %d", code);
        return traceExit(fn, 2);
    }
    std::string official = host->h_name.substr(0, kMaxHostName);
    zn_array* list = newNameList({official});
    if (list == nullptr) {
        return traceExit(fn, 3);
    }
    wexTrace("  added [%s] to result", official.c_str());
    *out = list;
    return traceExit(fn, 0);
}

namespace {

// The official name of a dotted address, or false when there is none.
bool lookUpAddress(const char* ip, std::string& name) {
    in_addr addr{};
    inet_aton(ip, &addr);  // not checked: unparsable text is looked up as left
    std::unique_ptr<cu_hostent> host;
    int code = cu_gethostbyaddr(&addr, sizeof addr, AF_INET, &host);
    if (code != 0) {
        wexTrace("  cu_gethostbyaddr() returned %d", code);
        return false;
    }
    if (host == nullptr) {
        wexTrace("  cu_gethostbyaddr() returned %d, but did not set host_p", code);
        return false;
    }
    name = host->h_name;
    wexTrace("  returning [%s] for hostname of [%s]", name.c_str(), ip);
    return true;
}

}  // namespace

int ip2hostname(char* ip, char** hostname) {
    static const char fn[] = "ip2hostname";
    wexTrace("%s called", fn);
    std::string name;
    if (ip == nullptr || hostname == nullptr || !lookUpAddress(ip, name)) {
        return traceExit(fn, 1);
    }
    char* copy = strdup(name.c_str());
    if (copy == nullptr) {
        return traceExit(fn, 1);
    }
    *hostname = copy;
    return traceExit(fn, 0);
}

int ip2hostname(char* ip, char* buf, unsigned int size) {
    static const char fn[] = "ip2hostname";
    wexTrace("%s called", fn);
    std::string name;
    if (ip == nullptr || buf == nullptr || size == 0 || !lookUpAddress(ip, name)) {
        return traceExit(fn, 1);
    }
    size_t n = name.size() < size - 1 ? name.size() : size - 1;
    std::memcpy(buf, name.data(), n);
    buf[n] = '\0';
    return traceExit(fn, 0);
}

int hostname2ip(char* hostname, char** ip) {
    static const char fn[] = "hostname2ip";
    wexTrace("%s called", fn);
    std::unique_ptr<cu_hostent> host;
    int code = hostname == nullptr ? CU_RESOLV_BADARG : cu_gethostbyname(hostname, &host);
    if (code != 0 || host == nullptr || host->h_addr_list.empty() || ip == nullptr) {
        wexTrace("  cu_gethostbyname() returned %d", code);
        return traceExit(fn, 0);
    }
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &host->h_addr_list.front(), text, sizeof text);
    char* copy = strdup(text);
    if (copy != nullptr) {
        *ip = copy;
        wexTrace("  returning [%s] for ip of [%s]", copy, hostname);
    }
    return traceExit(fn, 0);
}

int hostname2ip(char*, char*, unsigned int) {
    return 0;
}

}  // namespace WEX_COMMON
