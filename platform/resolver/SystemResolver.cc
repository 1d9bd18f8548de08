#include "platform/resolver/SystemResolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace zn::resolver {

int mapAddrInfoError(int eai, bool& notFound) {
    notFound = false;
    switch (eai) {
        case 0:
            return CU_RESOLV_OK;
        case EAI_NONAME:
#ifdef EAI_NODATA
        case EAI_NODATA:
#endif
#ifdef EAI_ADDRFAMILY
        case EAI_ADDRFAMILY:
#endif
            notFound = true;
            return CU_RESOLV_OK;
        case EAI_AGAIN:
            return CU_RESOLV_AGAIN;
        case EAI_MEMORY:
            return CU_RESOLV_NOMEM;
        case EAI_SYSTEM:
            return CU_RESOLV_SYSTEM;
        default:
            return CU_RESOLV_FAIL;
    }
}

int SystemResolver::byName(const std::string& name, std::unique_ptr<cu_hostent>& host) {
    host.reset();
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;  // one answer per address, not one per socket type
    hints.ai_flags = AI_CANONNAME;
    addrinfo* res = nullptr;
    bool notFound = false;
    int rc = mapAddrInfoError(getaddrinfo(name.c_str(), nullptr, &hints, &res), notFound);
    if (rc != CU_RESOLV_OK || notFound) {
        return rc;
    }
    auto entry = std::unique_ptr<cu_hostent>(new (std::nothrow) cu_hostent);
    if (entry == nullptr) {
        freeaddrinfo(res);
        return CU_RESOLV_NOMEM;
    }
    entry->h_name = (res != nullptr && res->ai_canonname != nullptr) ? res->ai_canonname : name;
    for (addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        if (ai->ai_family != AF_INET || ai->ai_addr == nullptr ||
            ai->ai_addrlen < sizeof(sockaddr_in)) {
            continue;
        }
        sockaddr_in sin;
        std::memcpy(&sin, ai->ai_addr, sizeof sin);
        bool seen = std::any_of(entry->h_addr_list.begin(), entry->h_addr_list.end(),
                                [&](const in_addr& a) { return a.s_addr == sin.sin_addr.s_addr; });
        if (!seen) {
            entry->h_addr_list.push_back(sin.sin_addr);
        }
    }
    freeaddrinfo(res);
    if (entry->h_addr_list.empty()) {
        return CU_RESOLV_OK;  // a name without IPv4 addresses: no entry for us
    }
    host = std::move(entry);
    return CU_RESOLV_OK;
}

int SystemResolver::byAddr(const in_addr& addr, std::unique_ptr<cu_hostent>& host) {
    host.reset();
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr = addr;
    char name[NI_MAXHOST];
    bool notFound = false;
    int rc = mapAddrInfoError(getnameinfo(reinterpret_cast<const sockaddr*>(&sin), sizeof sin, name,
                                          sizeof name, nullptr, 0, NI_NAMEREQD),
                              notFound);
    if (rc != CU_RESOLV_OK || notFound) {
        return rc;
    }
    auto entry = std::unique_ptr<cu_hostent>(new (std::nothrow) cu_hostent);
    if (entry == nullptr) {
        return CU_RESOLV_NOMEM;
    }
    entry->h_name = name;
    entry->h_addr_list.push_back(addr);
    host = std::move(entry);
    return CU_RESOLV_OK;
}

}  // namespace zn::resolver
