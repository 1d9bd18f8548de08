#include "znpex/proto/Json.h"

#include <charconv>
#include <limits>

#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {
namespace {

// Deepest bracket nesting of a JSON text, ignoring brackets inside strings.
// Stops early once the limit is passed.
int nestingDepth(std::string_view text, int limit) {
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest) {
                deepest = depth;
                if (deepest > limit) {
                    break;
                }
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

[[noreturn]] void expected(const std::string& where, const char* what) {
    throw ProtocolError(where + ": expected " + what);
}

}  // namespace

Json parseJson(std::string_view text) {
    if (nestingDepth(text, kMaxJsonDepth) > kMaxJsonDepth) {
        throw ProtocolError("JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels",
                            kParseError);
    }
    try {
        return Json::parse(text.begin(), text.end());
    } catch (const Json::exception& e) {
        throw ProtocolError(std::string("malformed JSON: ") + e.what(), kParseError);
    }
}

std::string dumpJson(const Json& j) {
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const Json* findField(const Json& obj, const char* key) {
    if (!obj.is_object()) {
        return nullptr;
    }
    auto it = obj.find(key);
    return it == obj.end() ? nullptr : &*it;
}

const Json& requireField(const Json& obj, const char* key, const std::string& where) {
    requireObject(obj, where);
    const Json* f = findField(obj, key);
    if (f == nullptr) {
        throw ProtocolError(where + ": missing field \"" + key + "\"");
    }
    return *f;
}

const Json& requireObject(const Json& j, const std::string& where) {
    if (!j.is_object()) {
        expected(where, "an object");
    }
    return j;
}

const Json& requireArray(const Json& j, const std::string& where) {
    if (!j.is_array()) {
        expected(where, "an array");
    }
    return j;
}

std::string asString(const Json& j, const std::string& where) {
    if (!j.is_string()) {
        expected(where, "a string");
    }
    return j.get<std::string>();
}

bool asBool(const Json& j, const std::string& where) {
    if (!j.is_boolean()) {
        expected(where, "true or false");
    }
    return j.get<bool>();
}

int32_t asInt32(const Json& j, const std::string& where) {
    if (j.is_number_unsigned()) {
        uint64_t v = j.get<uint64_t>();
        if (v <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
            return static_cast<int32_t>(v);
        }
    } else if (j.is_number_integer()) {
        int64_t v = j.get<int64_t>();
        if (v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max()) {
            return static_cast<int32_t>(v);
        }
    }
    expected(where, "a 32-bit signed integer");
}

uint32_t asUInt32(const Json& j, const std::string& where) {
    if (j.is_number_unsigned()) {
        uint64_t v = j.get<uint64_t>();
        if (v <= std::numeric_limits<uint32_t>::max()) {
            return static_cast<uint32_t>(v);
        }
    }
    expected(where, "a 32-bit unsigned integer");
}

uint64_t asSafeUInt(const Json& j, const std::string& where) {
    if (j.is_number_unsigned()) {
        uint64_t v = j.get<uint64_t>();
        if (v <= (uint64_t{1} << 53)) {
            return v;
        }
    }
    expected(where, "a non-negative integer up to 2^53");
}

bool parseDecimal(std::string_view s, int64_t& out) {
    bool digitsOnly = !s.empty() && (s[0] != '-' || s.size() > 1);
    for (size_t i = (s.empty() || s[0] != '-') ? 0 : 1; i < s.size() && digitsOnly; ++i) {
        digitsOnly = s[i] >= '0' && s[i] <= '9';
    }
    if (!digitsOnly) {
        return false;
    }
    auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parseDecimal(std::string_view s, uint64_t& out) {
    bool digitsOnly = !s.empty();
    for (size_t i = 0; i < s.size() && digitsOnly; ++i) {
        digitsOnly = s[i] >= '0' && s[i] <= '9';
    }
    if (!digitsOnly) {
        return false;
    }
    auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

int64_t asDecimalInt64(const Json& j, const std::string& where) {
    int64_t v = 0;
    if (!j.is_string() || !parseDecimal(j.get_ref<const std::string&>(), v)) {
        expected(where, "a 64-bit signed integer as a decimal string");
    }
    return v;
}

uint64_t asDecimalUInt64(const Json& j, const std::string& where) {
    uint64_t v = 0;
    if (!j.is_string() || !parseDecimal(j.get_ref<const std::string&>(), v)) {
        expected(where, "a 64-bit unsigned integer as a decimal string");
    }
    return v;
}

std::string decimal(int64_t v) {
    return std::to_string(v);
}
std::string decimal(uint64_t v) {
    return std::to_string(v);
}

}  // namespace znpex::proto
