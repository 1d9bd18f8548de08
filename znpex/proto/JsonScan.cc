#include "znpex/proto/JsonScan.h"

#include <charconv>
#include <cmath>
#include <type_traits>

#include "znpex/proto/Json.h"

namespace znpex::proto {

void JsonScan::skipSpace() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
        ++p_;
    }
}

char JsonScan::peek() {
    skipSpace();
    return ok_ && p_ != end_ ? *p_ : '\0';
}

bool JsonScan::take(char c) {
    if (peek() != c || c == '\0') {
        return fail();
    }
    ++p_;
    return true;
}

bool JsonScan::end() {
    return ok_ && peek() == '\0' && p_ == end_;
}

bool JsonScan::beginObject() {
    if (!take('{') || ++depth_ > kMaxJsonDepth) {
        return fail();
    }
    first_ = true;
    return true;
}

bool JsonScan::beginArray() {
    if (!take('[') || ++depth_ > kMaxJsonDepth) {
        return fail();
    }
    first_ = true;
    return true;
}

bool JsonScan::separator(char close) {
    if (!ok_) {
        return false;
    }
    if (peek() == close) {
        ++p_;
        --depth_;
        first_ = false;  // the closed container was an element of its parent
        return false;
    }
    if (!first_ && !take(',')) {
        return false;
    }
    first_ = false;
    return true;
}

bool JsonScan::nextKey(std::string_view& key) {
    return separator('}') && string(key) && take(':');
}

bool JsonScan::nextElement() {
    return separator(']');
}

bool JsonScan::string(std::string_view& out) {
    if (!take('"')) {
        return false;
    }
    const char* start = p_;
    while (p_ != end_ && *p_ != '"') {
        auto c = static_cast<unsigned char>(*p_);
        if (c < 0x20 || c > 0x7e || c == '\\') {
            return fail();  // escapes and other bytes: the general parser's
        }
        ++p_;
    }
    if (p_ == end_) {
        return fail();
    }
    out = std::string_view(start, static_cast<size_t>(p_ - start));
    ++p_;
    return true;
}

bool JsonScan::boolean(bool& out) {
    char c = peek();
    std::string_view word = c == 't' ? "true" : "false";
    if ((c != 't' && c != 'f') || static_cast<size_t>(end_ - p_) < word.size() ||
        std::string_view(p_, word.size()) != word) {
        return fail();
    }
    p_ += word.size();
    out = c == 't';
    return true;
}

bool JsonScan::null() {
    if (peek() != 'n') {
        return false;
    }
    if (static_cast<size_t>(end_ - p_) < 4 || std::string_view(p_, 4) != "null") {
        return fail();
    }
    p_ += 4;
    return true;
}

bool JsonScan::numberToken(std::string_view& text, bool& integral) {
    skipSpace();
    if (!ok_) {
        return false;
    }
    const char* s = p_;
    const char* q = p_;
    auto digit = [&] { return q != end_ && *q >= '0' && *q <= '9'; };
    if (q != end_ && *q == '-') {
        ++q;
    }
    if (!digit()) {
        return fail();
    }
    if (*q == '0') {
        ++q;
    } else {
        while (digit()) {
            ++q;
        }
    }
    integral = true;
    if (q != end_ && *q == '.') {
        ++q;
        if (!digit()) {
            return fail();
        }
        while (digit()) {
            ++q;
        }
        integral = false;
    }
    if (q != end_ && (*q == 'e' || *q == 'E')) {
        ++q;
        if (q != end_ && (*q == '+' || *q == '-')) {
            ++q;
        }
        if (!digit()) {
            return fail();
        }
        while (digit()) {
            ++q;
        }
        integral = false;
    }
    text = std::string_view(s, static_cast<size_t>(q - s));
    p_ = q;
    return true;
}

namespace {

// The whole token as a T, within its range.
template <typename T>
bool whole(std::string_view t, T& out) {
    auto r = std::from_chars(t.data(), t.data() + t.size(), out);
    return r.ec == std::errc() && r.ptr == t.data() + t.size();
}

}  // namespace

template <typename T>
bool JsonScan::integer(T& out) {
    std::string_view t;
    bool integral = false;
    if (!numberToken(t, integral) || !integral || (std::is_unsigned_v<T> && t[0] == '-')) {
        return fail();  // "-0" is a signed integer to the general parser
    }
    return whole(t, out) ? true : fail();
}

bool JsonScan::int64(int64_t& out) {
    return integer(out);
}

bool JsonScan::uint64(uint64_t& out) {
    return integer(out);
}

bool JsonScan::number(double& out) {
    std::string_view t;
    bool integral = false;
    if (!numberToken(t, integral)) {
        return false;
    }
    if (integral) {
        // The general parser keeps a 64-bit integer and converts it on request.
        uint64_t u = 0;
        int64_t i = 0;
        if (t[0] != '-' && whole(t, u)) {
            out = static_cast<double>(u);
            return true;
        }
        if (t[0] == '-' && whole(t, i)) {
            out = static_cast<double>(i);
            return true;
        }
    }
    return whole(t, out) && std::isfinite(out) ? true : fail();
}

}  // namespace znpex::proto
