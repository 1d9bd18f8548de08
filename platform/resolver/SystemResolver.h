// The system's resolver behind cu_gethostbyname/cu_gethostbyaddr: IPv4 lookups
// through getaddrinfo and getnameinfo, both reentrant. Stateless, thread-safe.
#pragma once

#include "platform/resolver/cu_resolver.h"

namespace zn::resolver {

class SystemResolver final : public Resolver {
  public:
    int byName(const std::string& name, std::unique_ptr<cu_hostent>& host) override;
    int byAddr(const in_addr& addr, std::unique_ptr<cu_hostent>& host) override;
};

// Maps a getaddrinfo/getnameinfo result to a CU_RESOLV_* code; `notFound` is
// set for the answers that only mean "no such host".
int mapAddrInfoError(int eai, bool& notFound);

}  // namespace zn::resolver
