// The local host's key files: a 12-byte head in the host's native byte order
// (magic 0xC5EC0001, key type, key length) and then the key buffer as the key
// generator made it. The list is big-endian and these files are not, on
// purpose: existing files on every host are laid out this way.
// Readers take the shared lock, writers the exclusive one.
#pragma once

#include <cstdint>
#include <string>

#include "znhas/sec_buffer.h"

inline constexpr size_t kSecKeyFileHead = 12;

// The key file of a selector (1 private, 2 public): ZNSEC_TESTING_PVTK_FILE or
// ZNSEC_TESTING_PUBK_FILE when set, else the fixed path. Code 23 for another
// selector.
int sec__get_keyfile_name(int selector, std::string* out);
// Whether key files accept this type (256, 512, 1024, 2048, 4096, 8193, 8194).
bool sec__keyfile_type_ok(uint32_t type);
// Writes a token's key to the selector's key file from the start (creating it
// and its folders if needed, private file mode 0600, public 0644), truncates
// what was beyond, and syncs the data.
int sec__record_hostid_token(int selector, sec_buffer_t token);
// The private key of a new RSA key pair of `bits` bits, and its public key.
int sec__create_rsa_private_key(int bits, unsigned char* privkey);
int sec__create_rsa_public_key(const unsigned char* privkey, unsigned char* pubkey);
// Generates a key pair of the given type and records both key files.
int sec__create_localhost_hostids(int keytype);
