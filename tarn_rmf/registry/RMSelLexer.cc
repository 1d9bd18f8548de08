#include "tarn_rmf/registry/RMSelLexer.h"

#include <cerrno>
#include <cstdlib>

#include "platform/hex.h"
#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {

void rmSelFail(int pos, const std::string& detail) {
    throw RMTableError::build(RMTableErrc::kSelection, pos, detail.c_str());
}

namespace {

bool isNameStart(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isNameChar(char c) {
    return isNameStart(c) || isDigit(c);
}

}  // namespace

RMSelToken RMSelLexer::next() {
    while (i_ < s_.size() &&
           (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r')) {
        ++i_;
    }
    RMSelToken t;
    t.pos = static_cast<int>(i_) + 1;
    if (i_ >= s_.size()) {
        return t;
    }
    char c = s_[i_];
    char d = i_ + 1 < s_.size() ? s_[i_ + 1] : '\0';
    if (isNameStart(c)) {
        size_t b = i_;
        while (i_ < s_.size() && isNameChar(s_[i_])) {
            ++i_;
        }
        t.kind = RMSelTok::Name;
        t.text.assign(s_.substr(b, i_ - b));
        return t;
    }
    if (c == '$') {
        ++i_;
        if (i_ >= s_.size() || !isNameStart(s_[i_])) {
            rmSelFail(t.pos, "a parameter name must follow \"$\"");
        }
        size_t b = i_;
        while (i_ < s_.size() && isNameChar(s_[i_])) {
            ++i_;
        }
        t.kind = RMSelTok::Param;
        t.text.assign(s_.substr(b, i_ - b));
        return t;
    }
    if (isDigit(c) || (c == '-' && isDigit(d))) {
        number(t);
        return t;
    }
    if (c == '"' || c == '\'') {
        quoted(t, c);
        return t;
    }
    if (c == '@') {
        if (d != 'P' || (i_ + 2 < s_.size() && isNameChar(s_[i_ + 2]))) {
            rmSelFail(t.pos, "only \"@P\" (previous value) may follow an attribute name");
        }
        i_ += 2;
        t.kind = RMSelTok::Prev;
        return t;
    }
    struct Two {
        char a, b;
        RMSelTok kind;
    };
    static constexpr Two kTwo[] = {{'=', '=', RMSelTok::Eq},     {'!', '=', RMSelTok::Ne},
                                   {'<', '=', RMSelTok::Le},     {'>', '=', RMSelTok::Ge},
                                   {'=', '~', RMSelTok::Match},  {'!', '~', RMSelTok::NoMatch},
                                   {'&', '&', RMSelTok::AndAnd}, {'|', '|', RMSelTok::OrOr}};
    for (const Two& two : kTwo) {
        if (c == two.a && d == two.b) {
            i_ += 2;
            t.kind = two.kind;
            return t;
        }
    }
    struct One {
        char a;
        RMSelTok kind;
    };
    static constexpr One kOne[] = {
        {'(', RMSelTok::LParen}, {')', RMSelTok::RParen}, {'{', RMSelTok::LBrace},
        {'}', RMSelTok::RBrace}, {',', RMSelTok::Comma},  {'*', RMSelTok::Star},
        {'!', RMSelTok::Not},    {'<', RMSelTok::Lt},     {'>', RMSelTok::Gt}};
    for (const One& one : kOne) {
        if (c == one.a) {
            ++i_;
            t.kind = one.kind;
            return t;
        }
    }
    if (c == '=') {
        rmSelFail(t.pos, "\"=\" is not an operator; use \"==\"");
    }
    rmSelFail(t.pos, std::string("unexpected character '") + c + "'");
}

void RMSelLexer::number(RMSelToken& t) {
    RMSelLiteral& lit = t.literal;
    lit.pos = t.pos;
    size_t b = i_;
    if (s_[i_] == '-') {
        lit.negative = true;
        ++i_;
    }
    if (s_[i_] == '0' && i_ + 1 < s_.size() && (s_[i_ + 1] == 'x' || s_[i_ + 1] == 'X')) {
        i_ += 2;
        size_t digits = 0;
        uint64_t v = 0;
        for (; i_ < s_.size() && zn::hexDigitValue(s_[i_]) >= 0; ++i_, ++digits) {
            if ((v >> 60) != 0) {
                rmSelFail(t.pos, "the number is too large");
            }
            v = (v << 4) | static_cast<uint64_t>(zn::hexDigitValue(s_[i_]));
        }
        if (digits == 0) {
            rmSelFail(t.pos, "hexadecimal digits must follow \"0x\"");
        }
        lit.magnitude = v;
    } else {
        uint64_t v = 0;
        for (; i_ < s_.size() && isDigit(s_[i_]); ++i_) {
            auto digit = static_cast<uint64_t>(s_[i_] - '0');
            if (v > (UINT64_MAX - digit) / 10) {
                rmSelFail(t.pos, "the number is too large");
            }
            v = v * 10 + digit;
        }
        lit.magnitude = v;
        bool fraction = i_ + 1 < s_.size() && s_[i_] == '.' && isDigit(s_[i_ + 1]);
        bool exponent = i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E');
        if (fraction || exponent) {
            real(t, b);
            return;
        }
    }
    if (i_ < s_.size() && isNameChar(s_[i_])) {
        rmSelFail(static_cast<int>(i_) + 1, "a number must not run into a name");
    }
    if (lit.negative && lit.magnitude > (uint64_t{1} << 63)) {
        rmSelFail(t.pos, "the number is too small");
    }
    t.kind = RMSelTok::Int;
}

void RMSelLexer::real(RMSelToken& t, size_t b) {
    if (s_[i_] == '.') {
        ++i_;
        while (i_ < s_.size() && isDigit(s_[i_])) {
            ++i_;
        }
    }
    if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
        ++i_;
        if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) {
            ++i_;
        }
        if (i_ >= s_.size() || !isDigit(s_[i_])) {
            rmSelFail(t.pos, "digits must follow the exponent");
        }
        while (i_ < s_.size() && isDigit(s_[i_])) {
            ++i_;
        }
    }
    if (i_ < s_.size() && isNameChar(s_[i_])) {
        rmSelFail(static_cast<int>(i_) + 1, "a number must not run into a name");
    }
    std::string text(s_.substr(b, i_ - b));
    errno = 0;
    t.literal.real = std::strtod(text.c_str(), nullptr);
    if (errno == ERANGE) {
        rmSelFail(t.pos, "the number is out of range");
    }
    t.literal.kind = RMSelLiteral::Kind::Float;
    t.kind = RMSelTok::Real;
}

void RMSelLexer::quoted(RMSelToken& t, char quote) {
    ++i_;
    std::string out;
    while (true) {
        if (i_ >= s_.size()) {
            rmSelFail(t.pos, "the string is not closed");
        }
        char c = s_[i_++];
        if (c == quote) {
            break;
        }
        if (c == '\0') {
            rmSelFail(static_cast<int>(i_), "a string must not hold a NUL character");
        }
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (i_ >= s_.size()) {
            rmSelFail(t.pos, "the string is not closed");
        }
        char e = s_[i_++];
        switch (e) {
            case '"':
            case '\'':
            case '\\':
                out.push_back(e);
                break;
            case 'n':
                out.push_back('\n');
                break;
            case 't':
                out.push_back('\t');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case '\0':
                rmSelFail(static_cast<int>(i_), "a string must not hold a NUL character");
            default:
                out.push_back('\\');
                out.push_back(e);
                break;
        }
    }
    t.kind = RMSelTok::Str;
    t.literal.kind = RMSelLiteral::Kind::String;
    t.literal.text = std::move(out);
    t.literal.pos = t.pos;
}

}  // namespace tarn_rmf
