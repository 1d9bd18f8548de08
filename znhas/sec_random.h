// The random byte source of host key generation: bytes from the operating
// system's secure source (getrandom), read in blocks and handed out one per
// call. A key made from guessable bytes is a guessable key, so there is no
// fallback to a seeded generator: when the system has no randomness to give,
// the caller learns it. Thread safe.
#pragma once

#include <cstddef>

// The next random byte (0..255), or -1 when the system's source failed.
int sec__randnum();

// Fills `out` with `n` bytes from the system's secure source. False (errno
// set) when it could not; `out` then holds nothing of use.
bool sec__random_bytes(void* out, size_t n);
