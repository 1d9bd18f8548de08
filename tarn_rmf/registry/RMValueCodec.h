// The compact byte encoding of attribute values, used both for rows on disk
// and for rows held in memory (so loading a row is a check, not a rebuild).
// Little-endian fixed-width scalars; strings, binaries, arrays and structured
// data as a varint (0 = null pointer, else length or count + 1) followed by
// the body; strings keep their NUL so a view can be handed to C APIs; handles
// as a presence byte and 20 bytes; structured-data elements carry a type byte.
// Array elements carry none (their type is the array's). Stateless functions.
#pragma once

#include <string>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

// Structured data nests at most kZnMaxSdNesting levels here as on the wire,
// which also bounds recursion on input. Columns (and structured-data
// elements) may have any value type (zn_is_value_type).

// Appends the encoding of v (of type t) to out. False when t can't be stored
// or the value nests too deep; out may then hold a partial tail.
bool rmPackValue(zn_data_type_t t, const zn_value_t& v, std::string& out);
bool rmPackView(const RMValueView& v, std::string& out);

// Checks that [p, end) starts with a well-formed value of type t and returns
// the position after it, or null. Never reads outside [p, end).
const unsigned char* rmCheckPacked(zn_data_type_t t, const unsigned char* p,
                                   const unsigned char* end);

// The view of a value already checked with rmCheckPacked; returns the position
// after it.
const unsigned char* rmPackedView(zn_data_type_t t, const unsigned char* p, RMValueView& out);

// Deep copy of a view into a zn_value_t the caller owns (zn_value_free of
// view.type releases it). False on allocation failure (out is then zero).
bool rmCopyOut(const RMValueView& view, zn_value_t& out);

// Varints (unsigned LEB128, at most 5 bytes for 32 bits).
void rmPutVarint(uint32_t v, std::string& out);
// Null when the varint is malformed or runs past end.
const unsigned char* rmGetVarint(const unsigned char* p, const unsigned char* end, uint32_t& v);

}  // namespace tarn_rmf
