// The typed values of ValueCodec written and read as text directly, for the
// hot paths (attribute changes, events). The wire form is ValueCodec's: the
// text written parses to what encodeValue builds, and what the scan accepts
// decodeValue would decode to the same value. Scalars, text and handles take
// the direct road; the rarer binaries, arrays and structured data are
// written through ValueCodec and make a scan fail (the caller then decodes
// the whole message the general way).
#pragma once

#include "platform/zn_owned.h"
#include "znpex/proto/JsonScan.h"
#include "znpex/proto/JsonWriter.h"

namespace znpex::proto {

// The "v" value alone. Throws ProtocolError for a type with no wire form.
void writeBareValue(JsonWriter& w, zn_data_type_t t, const zn_value_t& v);
// The "t" and "v" members, inside an object the caller opened.
void writeTypedMembers(JsonWriter& w, zn_data_type_t t, const zn_value_t& v);

// A "v" value of type `t`; false (the scan failed) for anything the direct
// road does not take or decodeValue would refuse.
bool scanBareValue(JsonScan& s, zn_data_type_t t, zn::OwnedValue& out);
// A wire type code as "t" carries it.
bool scanTypeCode(JsonScan& s, zn_data_type_t& out);

}  // namespace znpex::proto
