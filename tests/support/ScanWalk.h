// Reads any JSON text through JsonScan into a Json tree (numbers as doubles),
// so tests and the fuzz target can hold what the scan accepts against what
// the general parser reads from the same text.
#pragma once

#include <optional>
#include <string_view>

#include "znpex/proto/Json.h"
#include "znpex/proto/JsonScan.h"

namespace testsupport {

inline bool scanWalkValue(znpex::proto::JsonScan& s, znpex::proto::Json& out) {
    using znpex::proto::Json;
    char c = s.peek();
    if (c == '{') {
        out = Json::object();
        std::string_view k;
        if (!s.beginObject()) {
            return false;
        }
        while (s.nextKey(k)) {
            Json v;
            if (!scanWalkValue(s, v)) {
                return false;
            }
            out[std::string(k)] = std::move(v);
        }
        return s.ok();
    }
    if (c == '[') {
        out = Json::array();
        if (!s.beginArray()) {
            return false;
        }
        while (s.nextElement()) {
            Json v;
            if (!scanWalkValue(s, v)) {
                return false;
            }
            out.push_back(std::move(v));
        }
        return s.ok();
    }
    if (c == '"') {
        std::string_view text;
        if (!s.string(text)) {
            return false;
        }
        out = std::string(text);
        return true;
    }
    if (c == 't' || c == 'f') {
        bool b = false;
        if (!s.boolean(b)) {
            return false;
        }
        out = b;
        return true;
    }
    if (s.null()) {
        out = nullptr;
        return true;
    }
    double d = 0;
    if (!s.number(d)) {
        return false;
    }
    out = d;
    return true;
}

// The whole text as one value; nothing when the scan fails.
inline std::optional<znpex::proto::Json> scanWalk(std::string_view text) {
    znpex::proto::JsonScan s(text);
    znpex::proto::Json out;
    if (!scanWalkValue(s, out) || !s.end()) {
        return std::nullopt;
    }
    return out;
}

// The general parser's tree with every number turned into a double, and
// (as a duplicate member makes the scan's walk keep the last) as parsed.
inline znpex::proto::Json numbersAsDoubles(const znpex::proto::Json& j) {
    using znpex::proto::Json;
    if (j.is_number()) {
        return j.get<double>();
    }
    if (j.is_object()) {
        Json out = Json::object();
        for (auto& [k, v] : j.items()) {
            out[k] = numbersAsDoubles(v);
        }
        return out;
    }
    if (j.is_array()) {
        Json out = Json::array();
        for (const Json& v : j) {
            out.push_back(numbersAsDoubles(v));
        }
        return out;
    }
    return j;
}

}  // namespace testsupport
