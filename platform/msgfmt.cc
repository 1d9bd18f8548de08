#include "platform/msgfmt.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace zn {
namespace {

// One parsed conversion of a format string.
struct Spec {
    size_t begin = 0;     // offset of '%'
    size_t end = 0;       // one past the conversion character
    int position = 0;     // 1-based argument position
    std::string flags;    // flags, width and precision, as written
    std::string length;   // hh, h, l, ll, j, z, t, L, q
    char conv = 0;
};

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\''; }

// Parses the conversion at format[i] == '%'. Returns false for "%%" and for
// anything that is not a conversion we render (it is then copied literally).
bool parseSpec(const char* f, size_t i, int& nextSeq, Spec& out) {
    size_t j = i + 1;
    Spec s;
    s.begin = i;
    size_t digits = j;
    while (f[digits] >= '0' && f[digits] <= '9') {
        ++digits;
    }
    if (digits > j && f[digits] == '$') {
        s.position = std::atoi(std::string(f + j, digits - j).c_str());
        if (s.position <= 0 || s.position > 64) {
            return false;
        }
        j = digits + 1;
    }
    while (isFlag(f[j])) {
        s.flags += f[j++];
    }
    while (f[j] >= '0' && f[j] <= '9' && s.flags.size() < 16) {
        s.flags += f[j++];
    }
    if (f[j] == '.') {
        s.flags += f[j++];
        while (f[j] >= '0' && f[j] <= '9' && s.flags.size() < 24) {
            s.flags += f[j++];
        }
    }
    while (std::strchr("hljztLq", f[j]) != nullptr && f[j] != '\0' && s.length.size() < 2) {
        s.length += f[j++];
    }
    char c = f[j];
    if (c == '\0' || std::strchr("diouxXcsfFeEgGaAp", c) == nullptr) {
        return false;
    }
    s.conv = c;
    s.end = j + 1;
    if (s.position == 0) {
        s.position = nextSeq++;
    }
    out = s;
    return true;
}

std::vector<Spec> parseAll(const char* f) {
    std::vector<Spec> specs;
    int seq = 1;
    for (size_t i = 0; f[i] != '\0'; ++i) {
        if (f[i] != '%') {
            continue;
        }
        if (f[i + 1] == '%') {
            ++i;
            continue;
        }
        Spec s;
        if (parseSpec(f, i, seq, s)) {
            specs.push_back(s);
            i = s.end - 1;
        }
    }
    return specs;
}

MsgArg::Kind kindOf(const Spec& s) {
    switch (s.conv) {
        case 'd': case 'i': case 'c': return MsgArg::Kind::Int;
        case 'o': case 'u': case 'x': case 'X': return MsgArg::Kind::UInt;
        case 's': return MsgArg::Kind::String;
        case 'p': return MsgArg::Kind::Pointer;
        default: return MsgArg::Kind::Double;
    }
}

// How a value reads when a text asks for it as a string.
std::string naturalText(const MsgArg& a) {
    char buf[64];
    switch (a.kind) {
        case MsgArg::Kind::Int: std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(a.i)); break;
        case MsgArg::Kind::UInt: std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(a.u)); break;
        case MsgArg::Kind::Double: std::snprintf(buf, sizeof buf, "%g", a.d); break;
        case MsgArg::Kind::Pointer: std::snprintf(buf, sizeof buf, "%p", a.p); break;
        case MsgArg::Kind::String: return a.nullString ? "(null)" : a.s;
    }
    return buf;
}

std::string renderOne(const Spec& s, const MsgArg* a) {
    std::string spec = "%" + s.flags;
    char buf[512];
    if (a == nullptr) {
        return {};
    }
    MsgArg::Kind want = kindOf(s);
    // A translated text may ask for another type than the caller passed:
    // render what was passed, with the flags and width that were asked for.
    MsgArg::Kind have = a->kind;
    if (want == MsgArg::Kind::String || have == MsgArg::Kind::String) {
        if (have != MsgArg::Kind::String) {
            std::string txt = naturalText(*a);
            std::snprintf(buf, sizeof buf, (spec + "s").c_str(), txt.c_str());
            return buf;
        }
        if (want != MsgArg::Kind::String) {
            spec.resize(1);  // keep the "%": numeric flags make no sense on text
        }
        const char* str = a->nullString ? "(null)" : a->s.c_str();
        int n = std::snprintf(nullptr, 0, (spec + "s").c_str(), str);
        if (n < 0) {
            return a->s;
        }
        std::string out(static_cast<size_t>(n) + 1, '\0');
        std::snprintf(out.data(), out.size(), (spec + "s").c_str(), str);
        out.resize(static_cast<size_t>(n));
        return out;
    }
    switch (want) {
        case MsgArg::Kind::Int: {
            int64_t v = have == MsgArg::Kind::Int ? a->i
                        : have == MsgArg::Kind::UInt ? static_cast<int64_t>(a->u)
                                                     : static_cast<int64_t>(a->d);
            if (s.conv == 'c') {
                std::snprintf(buf, sizeof buf, (spec + "c").c_str(), static_cast<int>(v));
            } else {
                std::snprintf(buf, sizeof buf, (spec + "lld").c_str(), static_cast<long long>(v));
            }
            return buf;
        }
        case MsgArg::Kind::UInt: {
            uint64_t v = have == MsgArg::Kind::UInt ? a->u
                         : have == MsgArg::Kind::Int ? static_cast<uint64_t>(a->i)
                                                     : static_cast<uint64_t>(a->d);
            std::snprintf(buf, sizeof buf, (spec + "ll" + s.conv).c_str(),
                          static_cast<unsigned long long>(v));
            return buf;
        }
        case MsgArg::Kind::Pointer:
            std::snprintf(buf, sizeof buf, "%p", a->p);
            return buf;
        default: {
            double v = have == MsgArg::Kind::Double ? a->d
                       : have == MsgArg::Kind::Int  ? static_cast<double>(a->i)
                                                    : static_cast<double>(a->u);
            std::snprintf(buf, sizeof buf, (spec + s.conv).c_str(), v);
            return buf;
        }
    }
}

}  // namespace

MsgArgs collectMsgArgs(const char* format, va_list ap) {
    MsgArgs args;
    if (format == nullptr) {
        return args;
    }
    std::map<int, Spec> byPos;
    for (const Spec& s : parseAll(format)) {
        byPos.emplace(s.position, s);
    }
    for (int pos = 1;; ++pos) {
        auto it = byPos.find(pos);
        if (it == byPos.end()) {
            break;
        }
        const Spec& s = it->second;
        MsgArg a;
        a.kind = kindOf(s);
        const std::string& len = s.length;
        switch (a.kind) {
            case MsgArg::Kind::Int:
                if (len == "ll" || len == "q" || len == "j") {
                    a.i = va_arg(ap, long long);
                } else if (len == "l" || len == "z" || len == "t") {
                    a.i = va_arg(ap, long);
                } else {
                    a.i = va_arg(ap, int);
                }
                break;
            case MsgArg::Kind::UInt:
                if (len == "ll" || len == "q" || len == "j") {
                    a.u = va_arg(ap, unsigned long long);
                } else if (len == "l" || len == "z" || len == "t") {
                    a.u = va_arg(ap, unsigned long);
                } else {
                    a.u = va_arg(ap, unsigned int);
                }
                break;
            case MsgArg::Kind::String: {
                const char* str = va_arg(ap, const char*);
                if (str == nullptr) {
                    a.nullString = true;
                } else {
                    a.s = str;
                }
                break;
            }
            case MsgArg::Kind::Pointer:
                a.p = va_arg(ap, const void*);
                break;
            case MsgArg::Kind::Double:
                if (len == "L") {
                    a.d = static_cast<double>(va_arg(ap, long double));
                } else {
                    a.d = va_arg(ap, double);
                }
                break;
        }
        args.push_back(std::move(a));
    }
    return args;
}

MsgArgs collectMsgArgsV(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    MsgArgs a = collectMsgArgs(format, ap);
    va_end(ap);
    return a;
}

std::string formatMsg(const char* format, const MsgArgs& args) {
    std::string out;
    if (format == nullptr) {
        return out;
    }
    int seq = 1;
    for (size_t i = 0; format[i] != '\0'; ++i) {
        char c = format[i];
        if (c != '%') {
            out += c;
            continue;
        }
        if (format[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        Spec s;
        if (!parseSpec(format, i, seq, s)) {
            out += c;
            continue;
        }
        size_t idx = static_cast<size_t>(s.position - 1);
        out += renderOne(s, idx < args.size() ? &args[idx] : nullptr);
        i = s.end - 1;
    }
    return out;
}

}  // namespace zn
