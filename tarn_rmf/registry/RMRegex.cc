#include "tarn_rmf/registry/RMRegex.h"

namespace tarn_rmf {

RMRegex::RMRegex(const std::string& pattern) {
    int rc = regcomp(&re_, pattern.c_str(), REG_EXTENDED | REG_NOSUB);
    ok_ = rc == 0;
    if (!ok_) {
        char buf[256];
        regerror(rc, &re_, buf, sizeof buf);
        error_ = buf;
    }
}

RMRegex::~RMRegex() {
    if (ok_) {
        regfree(&re_);
    }
}

bool RMRegex::search(const char* text) const {
    return ok_ && regexec(&re_, text != nullptr ? text : "", 0, nullptr, 0) == 0;
}

}  // namespace tarn_rmf
