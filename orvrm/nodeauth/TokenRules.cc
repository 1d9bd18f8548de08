// Under which names a management request may store the node's host token.
// The signature covers the request's host name, id, MTMS and token, but not
// the further names of the tag-1000/1001 lists, and one frame's secret is
// shared by every node of the frame. So a name never takes the token of a
// node other than the one it was first stored for (a different universal
// id), and never one of this host's own names: such a list name is skipped
// with a log line, such a host name refuses the request.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <set>

#include "common/HostChecks.h"
#include "common/HostNames.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"
#include "platform/clock.h"
#include "znhas/znhas.h"

namespace orvrm {
namespace {

constexpr char kLogFn[] = "NodeAuthenticateRccp::reqNodeMgmt";

std::string lowered(std::string s) {
    for (char& c : s) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return s;
}

// The addresses of this host's own interfaces, as text.
void addOwnAddresses(std::set<std::string>* out) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return;
    }
    char text[INET6_ADDRSTRLEN];
    for (ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr)
            continue;
        if (i->ifa_addr->sa_family == AF_INET &&
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, text,
                      sizeof text) != nullptr) {
            out->insert(text);
        } else if (i->ifa_addr->sa_family == AF_INET6 &&
                   inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(i->ifa_addr)->sin6_addr,
                             text, sizeof text) != nullptr) {
            out->insert(text);
        }
    }
    freeifaddrs(list);
}

// The same address however it is written (IPv6 has many spellings).
std::string canonicalAddress(const std::string& name) {
    in_addr a4{};
    in6_addr a6{};
    char text[INET6_ADDRSTRLEN];
    if (inet_pton(AF_INET, name.c_str(), &a4) == 1 &&
        inet_ntop(AF_INET, &a4, text, sizeof text) != nullptr) {
        return text;
    }
    if (inet_pton(AF_INET6, name.c_str(), &a6) == 1 &&
        inet_ntop(AF_INET6, &a6, text, sizeof text) != nullptr) {
        return text;
    }
    return {};
}

bool sameToken(const sec_buffer_s& a, const sec_buffer_s& b) {
    return a.length == b.length && (a.length == 0 || std::memcmp(a.value, b.value, a.length) == 0);
}

// Host names and addresses: printable, without blanks, of a sane length.
bool plausibleName(const std::string& name) {
    if (name.empty() || name.size() > 255) {
        return false;
    }
    for (unsigned char c : name) {
        if (!std::isgraph(c)) {
            return false;
        }
    }
    return true;
}

void logRefusal(const std::string& name, const char* why) {
    std::string text = "no host token stored under " + name + ": " + why;
    orvrminfo_trace("reqNodeMgmt: %s", text.c_str());
    orvrmlog_info(49, kLogFn, kLogFn, text.c_str());
}

}  // namespace

bool NodeAuthenticateRccp::isLocalName(const std::string& name) {
    if (WEX_COMMON::isValidNonLocalMachineName(const_cast<char*>(name.c_str())) == 0) {
        return true;
    }
    std::lock_guard<std::mutex> g(localMu_);
    // Asked for every name of every request: the host's names and addresses
    // are gathered at most once a minute.
    zn::Clock::Duration now = zn::processClock().monoNow();
    if (!localNamesKnown_ || now - localNamesAt_ > std::chrono::minutes(1)) {
        localNames_.clear();
        char own[256] = {};
        if (gethostname(own, sizeof own - 1) == 0 && own[0] != '\0') {
            localNames_.insert(lowered(own));
            localNames_.insert(lowered(std::string(own, std::strcspn(own, "."))));
        }
        zn_array* primary = nullptr;
        if (WEX_COMMON::fetchLocalHostPrimaryHostnames(&primary, 0) == 0 && primary != nullptr) {
            for (uint32_t i = 0; i < primary->array_cnt; ++i) {
                if (primary->elements[i].ptr_char != nullptr) {
                    localNames_.insert(lowered(primary->elements[i].ptr_char));
                }
            }
            std::free(primary);
        }
        addOwnAddresses(&localNames_);
        localNamesKnown_ = true;
        localNamesAt_ = now;
    }
    if (localNames_.count(lowered(name)) != 0) {
        return true;
    }
    std::string address = canonicalAddress(name);
    return !address.empty() && localNames_.count(address) != 0;
}

bool NodeAuthenticateRccp::mayStoreUnder(const std::string& name, uint64_t universalId,
                                         const sec_buffer_s& token) {
    if (!plausibleName(name)) {
        logRefusal("a name", "it is not a host name");
        return false;
    }
    if (isLocalName(name)) {
        logRefusal(name, "it is a name of this host");
        return false;
    }
    uint64_t owner = owners_.ownerOf(name);
    if (owner != 0) {
        if (owner != universalId) {
            logRefusal(name, "it holds the token of another node");
            return false;
        }
        return true;
    }
    if (ManagedNodeRccp* mn = nodes()) {
        if (ManagedNodeRcp* node = mn->getRcpByHostname(name.c_str())) {
            uint64_t id = node->getHostUniversalId();
            node->unreserve();
            if (id != 0 && id != universalId) {
                logRefusal(name, "it is the host name of another node");
                return false;
            }
        }
    }
    // A token that no request stored (an administrator's, or one from before
    // the owners were kept) is not replaced by a different one.
    sec_buffer_t stored = nullptr;
    if (sec_get_host_token(name.c_str(), &stored) == 0 && stored != nullptr) {
        bool same = sameToken(*stored, token);
        sec_release_host_token(&stored);
        if (!same) {
            logRefusal(name, "it holds a token of unknown origin");
            return false;
        }
    }
    return true;
}

int NodeAuthenticateRccp::storeTokens(const char* hostname, uint64_t universalId,
                                      const std::vector<std::string>& extraNames,
                                      sec_buffer_s token, std::string* failedName) {
    // The host name first: a request that may not use it stores nothing.
    if (!mayStoreUnder(hostname, universalId, token)) {
        *failedName = hostname;
        return ZNHAS_E_ACCESS;
    }
    for (const std::string& name : extraNames) {
        if (strcasecmp(name.c_str(), hostname) == 0 || !mayStoreUnder(name, universalId, token)) {
            continue;
        }
        int rc = sec_store_host_token(name.c_str(), &token);
        if (rc != 0) {
            *failedName = name;
            return rc;
        }
        owners_.setOwner(name, universalId);
    }
    int rc = sec_store_host_token(hostname, &token);
    if (rc != 0) {
        *failedName = hostname;
        return rc;
    }
    owners_.setOwner(hostname, universalId);
    return 0;
}

}  // namespace orvrm
