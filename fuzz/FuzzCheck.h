// The fuzz targets' invariant check: a broken one is a finding, so the
// target stops at once and libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzzsupport {

inline void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
        std::abort();
    }
}

}  // namespace fuzzsupport
