// orvctl's command line: "orvctl node add|ls|show|set|rm|import|groups|sync
// ...", "orvctl group add|ls|show|members|add-members|rm-members|rm ...",
// "orvctl status", "orvctl watch [SELECTION]" and "orvctl key add|ls|rm",
// parsed and run against this host's monitoring service on its local socket,
// as the calling user, writing to the given streams (tests run it
// in-process). Returns the exit status: 0 done, 1 anything refused or
// failed, 2 a usage error.
#pragma once

#include <ostream>

namespace orvctl {

int runOrvctl(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal = false);

}  // namespace orvctl
