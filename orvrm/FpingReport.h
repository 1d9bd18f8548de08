// Turns what the reachability program wrote into the lines the poller matches
// against its host names: the two streams joined into one text, and lines
// that report a name the resolver could not find cut down to that name.
#pragma once

#include <cstdint>
#include <functional>

#include "orvrm/strent.h"

namespace orvrm::fping {

// One malloc'ed text: `out` then `err` directly behind it. Two fixes keep a
// report line whole whatever the bytes: a NUL byte ends a line as a line feed
// does, and a line feed is put between the two when `out` does not end with
// one. Null when both are empty or absent, or when memory runs out.
char* joinOutput(const char* out, uint32_t outLen, const char* err, uint32_t errLen);

// Cuts, in place, each line that names a host the resolver could not find
// down to that name, so that it matches the listed name:
//  - "<name>: <reason>", as newer versions write it, becomes <name> when
//    isListed(<name>) (the text before the first ": ");
//  - any other line holding "address not found" becomes its text up to its
//    first blank ("nodeC address not found" -> "nodeC").
void cutResolverFailures(strent* lines, const std::function<bool(const char*)>& isListed);

}  // namespace orvrm::fping
