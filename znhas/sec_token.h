// Internal token helpers shared by the list and key-file code: building a
// token (big-endian head, then the key) and checking one. Tokens are malloc'ed
// so sec_release_host_token can wipe and free them whoever built them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "znhas/sec_buffer.h"

namespace znhas {

inline constexpr size_t kTokenHead = 8;
// Longest key a token may carry; anything longer is refused as bad input
// (the list's own record limit is far lower).
inline constexpr size_t kMaxKeyLength = 16384;

inline uint32_t getBe32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}
inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// Whether a type is valid for tokens (256..8194).
bool validTokenType(uint32_t type);

// Checks magic family, version 1, type range and a non-empty key; hands back
// the type (host order) and the key within the token.
bool checkToken(sec_buffer_t token, uint32_t* type, const uint8_t** key, size_t* keylen);

// Allocates *token = head(magic, type) + key. Code 6 on allocation failure.
int makeToken(const char* fn, uint32_t type, const uint8_t* key, size_t keylen,
              sec_buffer_t* token);

}  // namespace znhas
