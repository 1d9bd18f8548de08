// This host's identity for the framework: the 64-bit node id, made once from
// the kernel's random generator and kept in "/var/zn/IW/node_id" (under the
// state root), and the management domain name.
#pragma once

#include <cstdint>
#include <string>

namespace tarn_rmf2v {

// Reads the node id, creating the file (atomically) on first use. A file that
// cannot be parsed is kept as "<file>.bad" and replaced. Returns 0 only when
// no id could be read or stored (the error is in `why`).
uint64_t loadOrCreateNodeId(std::string* why = nullptr);

// "IW", or the first line of "/var/zn/cfg/domain_name" when that names a domain.
std::string loadClusterName();

}  // namespace tarn_rmf2v
