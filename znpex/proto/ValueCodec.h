// JSON form of the monitoring service's typed values: {"t": code, "v": value}
// with 64-bit integers as decimal strings, binaries as base64, resource
// handles as 40 lowercase hex digits, structured data as an array of typed
// values and arrays as JSON arrays of bare element values; pointer types may
// be null. Attribute values add "id". Decoding validates every type, range
// and size, limits structured-data nesting to kMaxSdDepth and throws
// ProtocolError; what it returns is owned by the caller. Thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMReply.h"
#include "tarn_rmf2v/RMTypes.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

// The one nesting limit of structured data, shared with the registry.
inline constexpr int kMaxSdDepth = kZnMaxSdNesting;

// True for the codes that travel: 0, 1 (as null), 2..11 and 13..22.
bool isWireType(int code);

// Throws ProtocolError for a type code that has no wire form.
Json encodeValue(zn_data_type_t t, const zn_value_t& v);
// The bare "v" part only.
Json encodeBareValue(zn_data_type_t t, const zn_value_t& v);
zn::OwnedValue decodeValue(const Json& j, const std::string& where);
// A bare value of a known type (as the CLI and the array elements need it).
zn::OwnedValue decodeBareValue(zn_data_type_t t, const Json& v, const std::string& where);

// Structured data as a typed value ({"t":11,"v":[...]}).
Json encodeSd(const zn_structured_data* sd);
// Requires t == ZN_SD_PTR; null stays null.
zn::SdPtr decodeSd(const Json& j, const std::string& where);

// 40 lowercase hex digits.
std::string handleToHex(const zn_resource_handle& h);
zn_resource_handle handleFromHex(const Json& j, const std::string& where);
// Non-throwing form for command-line input: false when not 40 hex digits.
bool parseHandleHex(std::string_view text, zn_resource_handle& out);

Json encodeAttr(int32_t id, zn_data_type_t t, const zn_value_t& v);
Json encodeAttr(const tarn_rmf2v::RMReplyAttr& a);
tarn_rmf2v::RMReplyAttr decodeAttr(const Json& j, const std::string& where);
Json encodeAttrs(const std::vector<tarn_rmf2v::RMReplyAttr>& attrs);
Json encodeAttrs(const rm_attribute_value* values, unsigned int count);
std::vector<tarn_rmf2v::RMReplyAttr> decodeAttrs(const Json& j, const std::string& where);

}  // namespace znpex::proto
