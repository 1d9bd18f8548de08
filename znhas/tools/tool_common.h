// Shared bits of the host authentication command-line tools: reporting the
// library's error, key type names, and output formats. Header-only, used by
// single-threaded tools.
#pragma once

#include <cstdio>
#include <string>

#include "platform/cu_error.h"

namespace znhas_tools {

// Prints the thread's last library error to stderr and returns `rc`, which
// the tools use as their exit status.
inline int reportError(int rc) {
    cu_error_t* err = nullptr;
    cu_get_error(&err);
    std::string text = cu_error_text(err);
    cu_rel_error_1(err);
    std::fprintf(stderr, "%s\n", text.empty() ? "failed" : text.c_str());
    return rc;
}

// "rsa512" -> 8193, "rsa1024" -> 8194, a decimal number as itself; 0 if neither.
inline int keyTypeFromText(const std::string& s) {
    if (s == "rsa512") {
        return 8193;
    }
    if (s == "rsa1024") {
        return 8194;
    }
    if (s.empty() || s.size() > 5 || s.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return std::stoi(s);
}

}  // namespace znhas_tools
