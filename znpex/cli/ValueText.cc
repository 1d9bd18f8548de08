#include "znpex/cli/ValueText.h"

#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "znpex/proto/ValueCodec.h"

namespace znpex::cli {
namespace {

struct Prefix {
    const char* name;
    zn_data_type_t type;
};

const Prefix kPrefixes[] = {
    {"int32", ZN_INT32},
    {"uint32", ZN_UINT32},
    {"int64", ZN_INT64},
    {"uint64", ZN_UINT64},
    {"float32", ZN_FLOAT32},
    {"float64", ZN_FLOAT64},
    {"str", ZN_CHAR_PTR},
    {"bin", ZN_BINARY_PTR},
    {"handle", ZN_RSRC_HANDLE_PTR},
    {"int32s", ZN_INT32_ARRAY},
    {"uint32s", ZN_UINT32_ARRAY},
    {"int64s", ZN_INT64_ARRAY},
    {"uint64s", ZN_UINT64_ARRAY},
    {"float32s", ZN_FLOAT32_ARRAY},
    {"float64s", ZN_FLOAT64_ARRAY},
    {"strs", ZN_CHAR_PTR_ARRAY},
    {"bins", ZN_BINARY_PTR_ARRAY},
    {"handles", ZN_RSRC_HANDLE_PTR_ARRAY},
    {"sd", ZN_SD_PTR},
};

// Decimal, or hexadecimal after "0x"; a leading zero is not octal.
int baseOf(const std::string& s) {
    size_t i = (!s.empty() && (s[0] == '-' || s[0] == '+')) ? 1 : 0;
    return s.size() > i + 1 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X') ? 16 : 10;
}

bool parseSigned(const std::string& s, long long lo, long long hi, long long& out) {
    if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, baseOf(s));
    if (errno != 0 || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    out = v;
    return true;
}

bool parseUnsigned(const std::string& s, unsigned long long hi, unsigned long long& out) {
    if (s.empty() || s[0] == '-' || s[0] == '+' || std::isspace(static_cast<unsigned char>(s[0]))) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(s.c_str(), &end, baseOf(s));
    if (errno != 0 || *end != '\0' || v > hi) {
        return false;
    }
    out = v;
    return true;
}

bool parseHexBytes(std::string s, std::string& out) {
    if (s.rfind("0x", 0) == 0 || s.rfind("0X", 0) == 0) {
        s = s.substr(2);
    }
    if (s.size() % 2 != 0) {
        return false;
    }
    out.clear();
    for (size_t i = 0; i < s.size(); i += 2) {
        char pair[3] = {s[i], s[i + 1], '\0'};
        char* end = nullptr;
        if (!std::isxdigit(static_cast<unsigned char>(pair[0])) ||
            !std::isxdigit(static_cast<unsigned char>(pair[1]))) {
            return false;
        }
        out.push_back(static_cast<char>(std::strtoul(pair, &end, 16)));
    }
    return true;
}

// Splits at commas not preceded by a backslash; "\," becomes ",".
std::vector<std::string> splitElements(const std::string& s) {
    std::vector<std::string> out;
    if (s.empty()) {
        return out;
    }
    std::string cur;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == ',' || s[i + 1] == '\\')) {
            cur.push_back(s[++i]);
        } else if (s[i] == ',') {
            out.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(s[i]);
        }
    }
    out.push_back(cur);
    return out;
}

std::string hexOf(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s = "0x";
    for (size_t i = 0; i < n; ++i) {
        s.push_back(digits[p[i] >> 4]);
        s.push_back(digits[p[i] & 15]);
    }
    return s;
}

std::optional<zn::OwnedValue> parseScalar(zn_data_type_t t, const std::string& s,
                                          std::string* why) {
    zn_value_t v;
    v.val_uint64 = 0;
    long long i = 0;
    unsigned long long u = 0;
    bool ok = true;
    switch (t) {
        case ZN_INT32:
            ok = parseSigned(s, INT32_MIN, INT32_MAX, i);
            v.val_int32 = static_cast<int32_t>(i);
            break;
        case ZN_UINT32:
            ok = parseUnsigned(s, UINT32_MAX, u);
            v.val_uint32 = static_cast<uint32_t>(u);
            break;
        case ZN_INT64:
            ok = parseSigned(s, INT64_MIN, INT64_MAX, i);
            v.val_int64 = i;
            break;
        case ZN_UINT64:
            ok = parseUnsigned(s, UINT64_MAX, u);
            v.val_uint64 = u;
            break;
        case ZN_FLOAT32:
        case ZN_FLOAT64: {
            errno = 0;
            char* end = nullptr;
            double d = std::strtod(s.c_str(), &end);
            ok = !s.empty() && *end == '\0' && errno == 0 &&
                 (t == ZN_FLOAT64 || std::fabs(d) <= FLT_MAX || !std::isfinite(d));
            if (t == ZN_FLOAT32) {
                v.val_float32 = static_cast<float>(d);
            } else {
                v.val_float64 = d;
            }
            break;
        }
        case ZN_CHAR_PTR:
            v.ptr_char = strdup(s.c_str());
            if (v.ptr_char == nullptr) {
                throw std::bad_alloc();
            }
            break;
        case ZN_BINARY_PTR: {
            std::string bytes;
            ok = parseHexBytes(s, bytes);
            if (ok) {
                v.ptr_binary = zn_binary_new(bytes.data(), static_cast<uint32_t>(bytes.size()));
                if (v.ptr_binary == nullptr) {
                    throw std::bad_alloc();
                }
            }
            break;
        }
        case ZN_RSRC_HANDLE_PTR: {
            zn_resource_handle h{};
            ok = proto::parseHandleHex(s, h);
            if (ok) {
                v.ptr_rsrc_handle =
                    static_cast<zn_resource_handle*>(std::malloc(sizeof(zn_resource_handle)));
                if (v.ptr_rsrc_handle == nullptr) {
                    throw std::bad_alloc();
                }
                *v.ptr_rsrc_handle = h;
            }
            break;
        }
        default:
            *why = "a value of type " + typeLabel(t) + " cannot be given on the command line";
            return std::nullopt;
    }
    if (!ok) {
        *why = "\"" + s + "\" is not a valid " + typeLabel(t) + " value";
        return std::nullopt;
    }
    return zn::OwnedValue(t, v);
}

}  // namespace

zn_data_type_t typeOfPrefix(const std::string& prefix) {
    for (const auto& p : kPrefixes) {
        if (prefix == p.name) {
            return p.type;
        }
    }
    return ZN_UNKNOWN;
}

std::string typeLabel(zn_data_type_t t) {
    for (const auto& p : kPrefixes) {
        if (p.type == t) {
            return p.name;
        }
    }
    return "type " + std::to_string(static_cast<int>(t));
}

std::optional<zn::OwnedValue> parseValue(zn_data_type_t t, const std::string& text,
                                         std::string* why) {
    if (!zn_is_array_type(t)) {
        return parseScalar(t, text, why);
    }
    zn_data_type_t et = zn_array_element_type(t);
    if (et == ZN_SD_PTR) {
        *why = "a value of type " + typeLabel(t) + " cannot be given on the command line";
        return std::nullopt;
    }
    std::vector<std::string> parts = splitElements(text);
    zn_value_t v;
    v.ptr_array = zn_array_new(static_cast<uint32_t>(parts.size()));
    if (v.ptr_array == nullptr) {
        throw std::bad_alloc();
    }
    zn::OwnedValue out(t, v);
    for (size_t i = 0; i < parts.size(); ++i) {
        auto e = parseScalar(et, parts[i], why);
        if (!e) {
            return std::nullopt;
        }
        out.value().ptr_array->elements[i] = e->release();
    }
    return out;
}

std::optional<zn::OwnedValue> parseTypedArg(const std::string& arg, std::string* why) {
    size_t colon = arg.find(':');
    zn_data_type_t t = colon == std::string::npos ? ZN_UNKNOWN : typeOfPrefix(arg.substr(0, colon));
    if (t == ZN_UNKNOWN || t == ZN_SD_PTR) {
        *why = "\"" + arg +
               "\" has no type: write TYPE:VALUE with TYPE one of int32, uint32, int64, uint64, "
               "float32, float64, str, bin, handle, or an array type (int32s, ..., strs, bins, "
               "handles)";
        return std::nullopt;
    }
    return parseValue(t, arg.substr(colon + 1), why);
}

std::string formatValue(zn_data_type_t t, const zn_value_t& v) {
    char buf[64];
    switch (t) {
        case ZN_UNKNOWN:
        case ZN_NONE:
            return "";
        case ZN_INT32:
            return std::to_string(v.val_int32);
        case ZN_UINT32:
            return std::to_string(v.val_uint32);
        case ZN_INT64:
            return std::to_string(v.val_int64);
        case ZN_UINT64:
            return std::to_string(v.val_uint64);
        case ZN_FLOAT32:
            std::snprintf(buf, sizeof buf, "%g", v.val_float32);
            return buf;
        case ZN_FLOAT64:
            std::snprintf(buf, sizeof buf, "%g", v.val_float64);
            return buf;
        case ZN_CHAR_PTR:
            return v.ptr_char != nullptr ? v.ptr_char : "(null)";
        case ZN_BINARY_PTR:
            return v.ptr_binary != nullptr ? hexOf(v.ptr_binary->data, v.ptr_binary->length)
                                           : "(null)";
        case ZN_RSRC_HANDLE_PTR:
            return v.ptr_rsrc_handle != nullptr ? proto::handleToHex(*v.ptr_rsrc_handle) : "(null)";
        case ZN_SD_PTR: {
            if (v.ptr_sd == nullptr) {
                return "(null)";
            }
            std::string s = "[";
            for (uint32_t i = 0; i < v.ptr_sd->element_count; ++i) {
                const auto& e = v.ptr_sd->elements[i];
                s += (i > 0 ? ", " : "") + typeLabel(e.data_type) + ":" +
                     formatValue(e.data_type, e.value);
            }
            return s + "]";
        }
        default:
            break;
    }
    if (!zn_is_array_type(t)) {
        return "?";
    }
    if (v.ptr_array == nullptr) {
        return "(null)";
    }
    std::string s = "{";
    for (uint32_t i = 0; i < v.ptr_array->array_cnt; ++i) {
        if (i > 0) {
            s += ',';
        }
        s += formatValue(zn_array_element_type(t), v.ptr_array->elements[i]);
    }
    return s + "}";
}

}  // namespace znpex::cli
