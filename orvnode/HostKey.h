// The node's own host key pair: made when absent, its public token read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvnode {

// This host's public host token, making the key pair first (1024-bit RSA,
// the key files under the state root) when there is none. False with `why`
// when no key can be read or made. `made` says whether it was made now.
bool ensureHostKey(std::vector<uint8_t>* publicToken, bool* made, std::string* why);

// Stores the server's public token in this host's trusted host list under
// `name`. False with `why`.
bool trustServer(const std::string& name, const std::vector<uint8_t>& token, std::string* why);

}  // namespace orvnode
