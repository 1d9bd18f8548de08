// Host keys for benchmarks whose "hosts" share one state root: one key pair
// made and recorded as this host's, and trusted under each of the names, so
// every host's greeting proves to the others.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"

namespace benchsupport {

// False (with a line on standard error) when no key pair could be made.
inline bool shareOneHostKey(const std::vector<std::string>& hosts) {
    std::string thl = zn::paths::resolve(zn::paths::kThlFile);
    zn::paths::ensureParentDir(thl);
    if (FILE* f = std::fopen(thl.c_str(), "w")) {
        std::fclose(f);
    }
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
    bool ok = sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub) == 0 &&
              sec__record_hostid_token(SEC_PRIVATE_KEYFILE, pvt) == 0 &&
              sec__record_hostid_token(SEC_PUBLIC_KEYFILE, pub) == 0;
    for (size_t i = 0; ok && i < hosts.size(); ++i) {
        ok = sec_store_host_token(hosts[i].c_str(), pub) == 0;
    }
    sec_release_host_token(&pvt);
    sec_release_host_token(&pub);
    if (!ok) {
        std::fprintf(stderr, "no host key could be made\n");
    }
    return ok;
}

}  // namespace benchsupport
