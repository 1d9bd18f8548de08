// Host authentication: host identifier tokens, the trusted host list (THL) and
// the local host's key files. Every operation returns 0 or an error code and,
// on failure, sets the thread's platform error (cu_set_error_1, catalogue
// "znhas.cat", set 1).
//
// Ownership: tokens (sec_buffer_t) handed out are malloc'ed, buffer and bytes,
// and are released with sec_release_host_token, which wipes them; a token
// out-parameter must hold null on entry. Parsed tokens are released with
// sec_release_parsed_token; printed texts with free().
// Thread safety: all operations may be called from any thread. The list and key
// files are shared with other processes under record locks (readers shared,
// writers exclusive), which also exclude other threads of this process.
#pragma once

#include <cstdint>

#include "znhas/sec_buffer.h"

// Error codes.
inline constexpr int ZNHAS_E_BADPARAM = 4;   // bad arguments to a public operation
inline constexpr int ZNHAS_E_NOMEM = 6;      // allocation failure
inline constexpr int ZNHAS_E_ACCESS = 12;    // access to a file denied
inline constexpr int ZNHAS_E_NOTFOUND = 16;  // host not in the list
inline constexpr int ZNHAS_E_FILE = 21;  // missing file, corrupt list, no space, oversized record
inline constexpr int ZNHAS_E_INTERNAL = 23;  // bad arguments inside the library, system errors
inline constexpr int ZNHAS_E_LOCK = 30;      // lock not obtained within about a second
inline constexpr int ZNHAS_E_ODDHEX = 31;    // odd number of hexadecimal digits

inline constexpr uint32_t SEC_TOKEN_MAGIC = 0xC5EC0001U;
inline constexpr uint32_t SEC_TOKEN_FAMILY = 0xC5EC0000U;
inline constexpr int SEC_TOKEN_TYPE_MIN = 256;
inline constexpr int SEC_TOKEN_TYPE_MAX = 8194;
inline constexpr int SEC_KEYTYPE_RSA512 = 8193;
inline constexpr int SEC_KEYTYPE_RSA1024 = 8194;

// Key file selectors.
inline constexpr int SEC_PRIVATE_KEYFILE = 1;
inline constexpr int SEC_PUBLIC_KEYFILE = 2;

// A parsed token: magic and type in host order, then the key (which lives in
// the same allocation).
struct sec_host_token_s {
    uint32_t sht_magic;
    uint32_t sht_type;
    uint32_t sht_keylen;
    unsigned char* sht_key;
};
typedef struct sec_host_token_s* sec_host_token_t;

// Builds a token from a key. The name is only checked to be non-empty.
int sec_create_host_token(const char* hostname, int keylen, const unsigned char* key, int keytype,
                          sec_buffer_t* token);
// Wipes and frees the token; sets *token to null. Null is ignored.
int sec_release_host_token(sec_buffer_t* token);

// The token stored for `hostname` in the trusted host list.
int sec_get_host_token(const char* hostname, sec_buffer_t* token);
// Adds the host, or replaces its live record.
int sec_store_host_token(const char* hostname, sec_buffer_t token);
// Deactivates the host's live record.
int sec_delete_host_token(const char* hostname);

// Checks a token (family 0xC5EC, version 1, type 256..8194) and returns a copy
// with magic and type in host order.
int sec_parse_host_token(sec_buffer_t token, int* keylen, sec_host_token_t* parsed);
int sec_release_parsed_token(sec_host_token_t* parsed);

// The key as lower-case hexadecimal and the type as "rsa512", "rsa1024" or "?".
int sec_print_host_token(sec_buffer_t token, char** keytext, char** typetext);
// A token from hexadecimal key text (two digits a byte) and a type.
int sec_set_host_token(const char* keytext, int keytype, sec_buffer_t* token);

// The local private (selector 1) or public (selector 2) key as a token.
int sec_get_localhost_token(int selector, sec_buffer_t* token);
// A new RSA key pair (type 8193: 512 bits, 8194: 1024 bits) as tokens; writes
// no file.
int sec_generate_rsa_localhost_token(int keytype, sec_buffer_t* pvttoken, sec_buffer_t* pubtoken);
// The local public key, printed as by sec_print_host_token.
int sec_print_localhost_token(char** keytext, char** typetext);
