// Parsing and printing of the JSON payloads, and the checked field access
// every decoder uses. Parsing refuses nesting deeper than kMaxJsonDepth before
// building anything; printing replaces invalid UTF-8 instead of failing. Every
// accessor throws ProtocolError naming the field path ("params.ids[2]") and
// what was expected. Pure functions, thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace znpex::proto {

using Json = nlohmann::json;

inline constexpr int kMaxJsonDepth = 100;

// Throws ProtocolError (parse error) for text that is not one JSON value or
// nests deeper than kMaxJsonDepth.
Json parseJson(std::string_view text);
// Compact text; invalid UTF-8 in strings becomes U+FFFD.
std::string dumpJson(const Json& j);

// Field access. `where` names the object for messages.
const Json& requireField(const Json& obj, const char* key, const std::string& where);
// Null when the field is absent.
const Json* findField(const Json& obj, const char* key);
const Json& requireObject(const Json& j, const std::string& where);
const Json& requireArray(const Json& j, const std::string& where);
std::string asString(const Json& j, const std::string& where);
bool asBool(const Json& j, const std::string& where);
int32_t asInt32(const Json& j, const std::string& where);
uint32_t asUInt32(const Json& j, const std::string& where);
// A JSON integer within [0, 2^53], the exact range of every JSON reader.
uint64_t asSafeUInt(const Json& j, const std::string& where);
// 64-bit integers travel as decimal strings.
int64_t asDecimalInt64(const Json& j, const std::string& where);
uint64_t asDecimalUInt64(const Json& j, const std::string& where);
// The decimal strings above, as text: digits only, an optional leading '-'
// for the signed form, within range.
bool parseDecimal(std::string_view s, int64_t& out);
bool parseDecimal(std::string_view s, uint64_t& out);
std::string decimal(int64_t v);
std::string decimal(uint64_t v);

}  // namespace znpex::proto
