// Base64 (standard alphabet, with padding) for binary values and peer
// messages on the wire. Decoding is strict: wrong length, foreign characters,
// misplaced padding or non-zero spare bits are refused, so every byte string
// has exactly one text form. Pure functions, thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace znpex::proto {

std::string base64Encode(const void* data, size_t n);
// The bytes, or nothing when the text is not canonical base64.
std::optional<std::vector<unsigned char>> base64Decode(std::string_view text);

}  // namespace znpex::proto
