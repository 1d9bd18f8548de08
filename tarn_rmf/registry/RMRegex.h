// A compiled POSIX extended regular expression for "=~" and "!~". Built once
// per selection and shared by every evaluation; matching is safe from many
// threads at once (the C library serialises its internal state).
#pragma once

#include <regex.h>

#include <cstddef>
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
    // True when the pattern matches somewhere in `text` (NUL-terminated,
    // `length` bytes before the NUL).
    bool search(const char* text, size_t length) const;

    // A piece of text every match must contain ("" when none is certain):
    // the longest run of plain characters at the top level of a pattern
    // without a top-level "|", less any character a repetition applies to.
    static std::string requiredLiteral(const std::string& pattern);

private:
    regex_t re_{};
    bool ok_ = false;
    std::string error_;
    std::string literal_;
};

}  // namespace tarn_rmf
