// orvctl key add|ls|rm: the hardware frames' secret keys, which sign the
// nodes' management requests and this server's replies. They edit the key
// store under the state root directly (no service involved), so they must
// run as root; the daemon notices the change at its next lookup.
#pragma once

#include <string>

#include "znpex/cli/CliSession.h"

namespace orvctl {

// Makes a random secret for the frame, stores it and prints it once.
int keyAdd(znpex::cli::CliSession& cli, const std::string& mtms);
// The frames that have a key, one per line (-o json: an array of names).
int keyList(znpex::cli::CliSession& cli);
// Removes the frame's key.
int keyRemove(znpex::cli::CliSession& cli, const std::string& mtms);

}  // namespace orvctl
