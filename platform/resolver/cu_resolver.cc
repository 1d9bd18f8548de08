#include "platform/resolver/cu_resolver.h"

#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <new>

#include "platform/resolver/SystemResolver.h"

namespace zn::resolver {

namespace {

std::atomic<Resolver*> installed{nullptr};

Resolver& current() {
    Resolver* r = installed.load(std::memory_order_acquire);
    return r != nullptr ? *r : systemResolver();
}

}  // namespace

Resolver& systemResolver() {
    static SystemResolver* r = new SystemResolver;  // never destroyed: lookups may run at exit
    return *r;
}

Resolver* install(Resolver* r) {
    return installed.exchange(r, std::memory_order_acq_rel);
}

}  // namespace zn::resolver

int cu_gethostbyname(const char* name, std::unique_ptr<cu_hostent>* host) {
    if (host == nullptr) {
        return CU_RESOLV_BADARG;
    }
    host->reset();
    if (name == nullptr || *name == '\0') {
        return CU_RESOLV_BADARG;
    }
    int rc = zn::resolver::current().byName(name, *host);
    if (rc != CU_RESOLV_OK) {
        host->reset();
    }
    return rc;
}

int cu_gethostbyaddr(const void* addr, size_t len, int family, std::unique_ptr<cu_hostent>* host) {
    if (host == nullptr) {
        return CU_RESOLV_BADARG;
    }
    host->reset();
    if (addr == nullptr || family != AF_INET || len != sizeof(in_addr)) {
        return CU_RESOLV_BADARG;
    }
    in_addr a;
    std::memcpy(&a, addr, sizeof a);
    int rc = zn::resolver::current().byAddr(a, *host);
    if (rc != CU_RESOLV_OK) {
        host->reset();
    }
    return rc;
}
