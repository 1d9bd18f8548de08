// A value from a bulk file as a typed value of its attribute. A JSON string
// reads exactly as the command line reads attr=value (ValueText.h: numbers in
// decimal or 0x hex, arrays as comma-separated elements); a JSON number fits
// a numeric type (an integer type takes integers in its range only); a JSON
// array fits an array type, element by element (strings or numbers). Pure;
// thread-safe.
#pragma once

#include <optional>
#include <string>

#include "platform/zn_owned.h"
#include "znpex/proto/Json.h"

namespace znpex::cli {

// The value of `v` as type t, or nothing with *why set.
std::optional<zn::OwnedValue> bulkValue(zn_data_type_t t, const proto::Json& v, std::string* why);

}  // namespace znpex::cli
