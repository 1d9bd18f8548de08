// A compiled POSIX extended regular expression for "=~" and "!~". Built once
// per selection and shared by every evaluation; matching is safe from many
// threads at once (the C library serialises its internal state).
#pragma once

#include <regex.h>

#include <string>

namespace tarn_rmf {

class RMRegex {
public:
    // Compiles `pattern`; on failure valid() is false and error() says why.
    explicit RMRegex(const std::string& pattern);
    ~RMRegex();
    RMRegex(const RMRegex&) = delete;
    RMRegex& operator=(const RMRegex&) = delete;

    bool valid() const { return ok_; }
    const std::string& error() const { return error_; }
    // True when the pattern matches somewhere in the NUL-terminated `text`.
    bool search(const char* text) const;

private:
    regex_t re_{};
    bool ok_ = false;
    std::string error_;
};

}  // namespace tarn_rmf
