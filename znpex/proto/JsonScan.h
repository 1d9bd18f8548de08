// A strict reader of the plain JSON the hot paths exchange (event
// notifications, attribute changes), that decodes straight into values
// without building a tree. It never reports why it stopped: whatever it does
// not fully understand (an escape in a string, a byte outside printable
// ASCII, a number outside 64 bits, nesting past kMaxJsonDepth, a token it did
// not ask for) makes it fail, and its caller hands the text to the general
// parser, which accepts or refuses it with its own message. What it accepts
// it reads exactly as the general parser does.
#pragma once

#include <cstdint>
#include <string_view>

namespace znpex::proto {

class JsonScan {
public:
    explicit JsonScan(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    // False once any call failed; every call after a failure fails.
    bool ok() const { return ok_; }

    // '{' and '[', counted against the nesting limit.
    bool beginObject();
    bool beginArray();
    // In an object: true with the next key (and its ':' read); false at its
    // '}' (read) or on failure, which ok() tells apart.
    bool nextKey(std::string_view& key);
    // In an array: true when another element follows; false at its ']'
    // (read) or on failure.
    bool nextElement();

    // A string of printable ASCII without escapes, as it stands in the text.
    bool string(std::string_view& out);
    bool boolean(bool& out);
    // True and consumed when the next token is null; false (not a failure)
    // when it is something else.
    bool null();
    // Integer tokens (no fraction or exponent) within the type's range.
    bool int64(int64_t& out);
    bool uint64(uint64_t& out);
    // Any finite number token, read as the general parser reads it.
    bool number(double& out);
    // The next character after white space, 0 at the end (nothing consumed).
    char peek();
    // Only white space is left.
    bool end();

    // Makes the scan fail; for callers that find a token they cannot take.
    bool fail() {
        ok_ = false;
        return false;
    }

private:
    void skipSpace();
    bool take(char c);
    // Reads one number token: its text, and whether it has a fraction or exponent.
    bool numberToken(std::string_view& text, bool& integral);
    template <typename T>
    bool integer(T& out);
    // After a value or a key in a container: the comma that separates the next one.
    bool separator(char close);

    const char* p_;
    const char* end_;
    int depth_ = 0;
    bool ok_ = true;
    bool first_ = true;  // no element read yet in the innermost container
};

}  // namespace znpex::proto
