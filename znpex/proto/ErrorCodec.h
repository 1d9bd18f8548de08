// JSON form of the platform error object: {"id", "cat", "set", "num",
// "default", "args": [typed values], "text"} plus "ffdc" when the error has
// one. The arguments travel with their kinds (integers as 64-bit, doubles,
// strings), so the receiver renders the same text from its own catalogue;
// "text" is the sender's rendering, for readers without the catalogue.
// Decoding ignores "text" and throws ProtocolError. Thread-safe.
#pragma once

#include <string>

#include "platform/zn_owned.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

// At most this many arguments are accepted (message texts address 64 at most).
inline constexpr size_t kMaxErrorArgs = 64;

Json encodeError(const cu_error_t& e);
zn::ErrorPtr decodeError(const Json& j, const std::string& where);

}  // namespace znpex::proto
