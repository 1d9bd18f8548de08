// Typed values as a person types and reads them on the command line:
// integers (decimal, or 0x hex), floats, text, binaries as hex, resource
// handles as 40 hex digits, arrays as comma-separated elements ("\," keeps a
// comma in text). Typed arguments name their type: "int32:5", "str:abc",
// "uint64:7", "strs:a,b". Pure functions, thread-safe.
#pragma once

#include <optional>
#include <string>

#include "platform/zn_owned.h"

namespace znpex::cli {

// The value of `text` as type t, or nothing with *why set.
std::optional<zn::OwnedValue> parseValue(zn_data_type_t t, const std::string& text,
                                         std::string* why);
// "int32:5" and the like; a text without a known type prefix gives nothing
// and *why says which prefixes exist.
std::optional<zn::OwnedValue> parseTypedArg(const std::string& arg, std::string* why);
// The type of a prefix ("int32", "strs", ...), ZN_UNKNOWN when none.
zn_data_type_t typeOfPrefix(const std::string& prefix);

// How a value reads in a table (null pointers read "(null)").
std::string formatValue(zn_data_type_t t, const zn_value_t& v);
// A short name of a type for listings ("int32", "strs", "sd").
std::string typeLabel(zn_data_type_t t);

}  // namespace znpex::cli
