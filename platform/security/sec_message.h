// The security library's message signing: sec_prepare_message signs a message
// with a shared secret key, sec_process_message checks such a signature. The
// one mechanism offered (flags SEC_F_KEYED_DIGEST) is HMAC-SHA256 over the
// message bytes; any other flags value is refused. Stateless and thread-safe;
// the key and message must not change during a call. Signatures handed out
// are malloc'ed and released with sec_release_buffer.
#pragma once

#include <cstdint>

// A length and a pointer to bytes: messages, keys and signatures.
struct sec_buffer_s {
    uint32_t length;
    void* value;
};
typedef sec_buffer_s* sec_buffer_t;

// Selects keyed-digest signing (HMAC-SHA256 with the key's bytes).
inline constexpr unsigned int SEC_F_KEYED_DIGEST = 0x100000;
// Length of the signatures made by that mechanism.
inline constexpr uint32_t SEC_KEYED_DIGEST_LENGTH = 32;

// Results: 0 success, otherwise one of these.
enum : int {
    SEC_S_OK = 0,
    SEC_E_ARGUMENT = 1,   // null or empty key, null buffer, bytes missing
    SEC_E_FLAGS = 2,      // flags value other than SEC_F_KEYED_DIGEST
    SEC_E_MEMORY = 3,     // the signature could not be allocated
    SEC_E_CRYPTO = 4,     // the digest could not be computed
    SEC_E_SIGNATURE = 5,  // the signature does not match the message
};

// Signs `message` with `key`; on success `signature` holds a new malloc'ed
// signature of SEC_KEYED_DIGEST_LENGTH bytes (any previous value is not
// released). On failure `signature` is set to {0, null}.
int sec_prepare_message(sec_buffer_t key, unsigned int flags, sec_buffer_t message,
                        sec_buffer_t signature);

// Checks `signature` against `message` and `key` (compared in constant time).
// 0 when it matches, SEC_E_SIGNATURE when it does not.
int sec_process_message(sec_buffer_t key, unsigned int flags, sec_buffer_t message,
                        sec_buffer_t signature);

// Overwrites a signature (or any malloc'ed buffer) with zeros, frees it and
// sets it to {0, null}. Null is ignored.
void sec_release_buffer(sec_buffer_t buffer);
