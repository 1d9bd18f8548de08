#include "tarn_rmf/registry/RMRegex.h"

#include <cctype>
#include <cstring>
#include <vector>

namespace tarn_rmf {
namespace {

// The C library's compiler copies a repeated piece once per repetition, so
// nested repetitions grow exponentially ("((a{99}){99}){99}", "a+++...").
// Patterns come from administrators and clients, so their compiled size is
// estimated first and the ones that would blow up are refused.
constexpr size_t kMaxPatternLength = 1024;
constexpr size_t kMaxWeight = 20000;
constexpr unsigned kMaxBound = 255;
constexpr size_t kMaxGroupDepth = 32;

struct Frame {
    size_t done = 0;   // finished alternatives
    size_t total = 0;  // the current alternative
    size_t last = 0;   // the last piece, which a repetition would copy
    bool canRepeat = false;
    bool repeated = false;
};

// Index of the ']' closing the bracket expression opened at p[i], or npos.
size_t bracketEnd(const std::string& p, size_t i) {
    size_t j = i + 1;
    if (j < p.size() && p[j] == '^') {
        ++j;
    }
    if (j < p.size() && p[j] == ']') {
        ++j;
    }
    while (j < p.size() && p[j] != ']') {
        if (p[j] == '[' && j + 1 < p.size() &&
            (p[j + 1] == ':' || p[j + 1] == '.' || p[j + 1] == '=')) {
            char kind = p[j + 1];
            size_t k = p.find(std::string{kind, ']'}, j + 2);
            if (k == std::string::npos) {
                return std::string::npos;
            }
            j = k + 2;
            continue;
        }
        ++j;
    }
    return j < p.size() ? j : std::string::npos;
}

// Reads "{n}", "{n,}" or "{n,m}" at p[i]; false when it isn't one.
bool readBound(const std::string& p, size_t i, size_t& end, unsigned& most) {
    size_t j = i + 1;
    unsigned n = 0, m = 0;
    bool digits = false, comma = false, mDigits = false;
    for (; j < p.size() && p[j] >= '0' && p[j] <= '9'; ++j) {
        n = n * 10 + static_cast<unsigned>(p[j] - '0');
        digits = true;
        if (n > 100000) {
            n = 100000;
        }
    }
    if (j < p.size() && p[j] == ',') {
        comma = true;
        for (++j; j < p.size() && p[j] >= '0' && p[j] <= '9'; ++j) {
            m = m * 10 + static_cast<unsigned>(p[j] - '0');
            mDigits = true;
            if (m > 100000) {
                m = 100000;
            }
        }
    }
    // The C library also takes "{,m}" as "{0,m}".
    if ((!digits && !comma) || j >= p.size() || p[j] != '}') {
        return false;
    }
    end = j;
    most = comma ? (mDigits ? m : n + 1) : n;
    return true;
}

// Empty when the pattern may be compiled, else why not.
std::string refusal(const std::string& p) {
    if (p.size() > kMaxPatternLength) {
        return "the pattern is longer than " + std::to_string(kMaxPatternLength) + " characters";
    }
    std::vector<Frame> stack(1);
    auto piece = [&](size_t size) {
        Frame& f = stack.back();
        f.total += size;
        f.last = size;
        f.canRepeat = true;
        f.repeated = false;
    };
    for (size_t i = 0; i < p.size(); ++i) {
        Frame& f = stack.back();
        char c = p[i];
        unsigned times = 0;
        size_t end = i;
        if (c == '\\') {
            if (i + 1 < p.size() && p[i + 1] >= '1' && p[i + 1] <= '9') {
                return "back-references are not supported";
            }
            ++i;
            piece(1);
        } else if (c == '[') {
            size_t j = bracketEnd(p, i);
            if (j == std::string::npos) {
                return "";  // the compiler reports the unclosed bracket
            }
            i = j;
            piece(1);
        } else if (c == '(') {
            if (stack.size() > kMaxGroupDepth) {
                return "groups nest too deeply";
            }
            stack.emplace_back();
        } else if (c == ')' && stack.size() > 1) {
            size_t size = stack.back().done + stack.back().total;
            stack.pop_back();
            piece(size == 0 ? 1 : size);
        } else if (c == '|') {
            f.done += f.total;
            f.total = 0;
            f.canRepeat = false;
        } else if (c == '*' || c == '+' || c == '?') {
            times = 2;
        } else if (c == '{' && readBound(p, i, end, times)) {
            if (times > kMaxBound) {
                return "a repetition count above " + std::to_string(kMaxBound);
            }
            i = end;
            times = times == 0 ? 1 : times;
        } else {
            piece(1);
        }
        if (times != 0 && f.canRepeat) {
            if (f.repeated) {
                return "a repetition may not follow another";
            }
            f.total += f.last * (times - 1);
            f.last *= times;
            f.repeated = true;
        }
        if (stack.back().total + stack.back().done > kMaxWeight) {
            return "the pattern is too complex";
        }
    }
    return "";
}

}  // namespace

std::string RMRegex::requiredLiteral(const std::string& p) {
    std::string best, run;
    auto endRun = [&] {
        if (run.size() > best.size()) {
            best = run;
        }
        run.clear();
    };
    int depth = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        char c = p[i];
        if (c == '[') {
            size_t j = bracketEnd(p, i);
            if (j == std::string::npos) {
                return "";
            }
            endRun();
            i = j;
        } else if (c == '(' || (c == ')' && depth > 0)) {
            depth += c == '(' ? 1 : -1;
            endRun();
        } else if (depth > 0) {
            i += c == '\\' ? 1 : 0;  // inside a group nothing counts
        } else if (c == '|') {
            return "";  // with a choice at the top, no piece is certain
        } else if (c == '*' || c == '+' || c == '?' || c == '{') {
            // The repeated piece may be absent (or repeated): it and the
            // run it ended are cut apart.
            if (c == '{') {
                // Whatever the braces hold, the C library may read them as a
                // count; past anything but digits and a comma, give up.
                size_t close = p.find('}', i);
                if (close == std::string::npos ||
                    p.find_first_not_of("0123456789,", i + 1) != close) {
                    return "";
                }
                i = close;
            }
            if (!run.empty()) {
                run.pop_back();
            }
            endRun();
        } else if (c == '\\') {
            unsigned char d = i + 1 < p.size() ? static_cast<unsigned char>(p[i + 1]) : 0;
            ++i;
            // The C library reads "\\w", "\\b", "\\<", "\\'" and the like as
            // classes and assertions, not characters.
            bool assertion = d == '<' || d == '>' || d == '`' || d == '\'';
            if (d != 0 && d < 0x80 && std::ispunct(d) && !assertion) {
                run.push_back(static_cast<char>(d));
            } else {
                endRun();
            }
        } else if (c == '.' || c == '^' || c == '$' || static_cast<unsigned char>(c) >= 0x80) {
            endRun();
        } else {
            run.push_back(c);
        }
    }
    endRun();
    return best.size() >= 2 ? best : "";
}

RMRegex::RMRegex(const std::string& pattern) {
    error_ = refusal(pattern);
    if (!error_.empty()) {
        return;
    }
    literal_ = requiredLiteral(pattern);
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

bool RMRegex::search(const char* text, size_t length) const {
    if (!ok_) {
        return false;
    }
    if (text == nullptr) {
        text = "";
        length = 0;
    }
    // A text without the pattern's required piece can't match: skipping the
    // matcher for it makes scans several times faster.
    if (!literal_.empty() && memmem(text, length, literal_.data(), literal_.size()) == nullptr) {
        return false;
    }
    return regexec(&re_, text, 0, nullptr, 0) == 0;
}

}  // namespace tarn_rmf
