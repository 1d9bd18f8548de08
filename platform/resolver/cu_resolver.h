// The platform's thread-safe host name resolution (IPv4): cu_gethostbyname and
// cu_gethostbyaddr answer with a code and a host entry that the caller owns.
// Every call goes to the installed zn::resolver::Resolver: the system's
// (getaddrinfo/getnameinfo) unless a test installed its own. All calls are
// thread-safe; install a resolver before the lookups that should use it.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// A resolved host: official name, other names, IPv4 addresses (network order).
struct cu_hostent {
    std::string h_name;
    std::vector<std::string> h_aliases;
    std::vector<in_addr> h_addr_list;
};

// Result codes of the lookups. A lookup that finds nothing returns
// CU_RESOLV_OK and leaves the entry null.
enum : int {
    CU_RESOLV_OK = 0,
    CU_RESOLV_BADARG = 1,  // null name, empty name, unsupported address family
    CU_RESOLV_AGAIN = 2,   // temporary failure; a later try may succeed
    CU_RESOLV_FAIL = 3,    // the resolver failed for good
    CU_RESOLV_NOMEM = 4,
    CU_RESOLV_SYSTEM = 5,  // a system call failed (errno)
};

// Resolves a host name or a numeric address. On CU_RESOLV_OK *host holds the
// entry, or null when there is none; on any other code *host is null.
int cu_gethostbyname(const char* name, std::unique_ptr<cu_hostent>* host);

// Resolves an address of `family` (AF_INET only; `len` bytes at `addr`).
int cu_gethostbyaddr(const void* addr, size_t len, int family, std::unique_ptr<cu_hostent>* host);

namespace zn::resolver {

// What answers the lookups. Implementations must be thread-safe.
class Resolver {
  public:
    virtual ~Resolver() = default;
    // Same contract as cu_gethostbyname, for a non-empty name.
    virtual int byName(const std::string& name, std::unique_ptr<cu_hostent>& host) = 0;
    // Same contract as cu_gethostbyaddr, for one IPv4 address.
    virtual int byAddr(const in_addr& addr, std::unique_ptr<cu_hostent>& host) = 0;
};

// The system's resolver (process lifetime).
Resolver& systemResolver();

// Installs `r` for every later lookup (null: the system's); returns the
// previous one. The caller keeps `r` alive while it is installed.
Resolver* install(Resolver* r);

// Installs a resolver for a scope and puts the previous one back.
class ScopedResolver {
  public:
    explicit ScopedResolver(Resolver& r) : previous_(install(&r)) {}
    ~ScopedResolver() { install(previous_); }
    ScopedResolver(const ScopedResolver&) = delete;
    ScopedResolver& operator=(const ScopedResolver&) = delete;

  private:
    Resolver* previous_;
};

}  // namespace zn::resolver
