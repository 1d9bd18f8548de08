// RSA key-pair generation and public-key derivation for the local host keys.
//
// Key buffers (their layout is stored as-is in the key files, so it must not
// change). L = ceil(bits / 8); all numbers big-endian, left-padded with zeros:
//
//   private key, 2L + 3 bytes:
//     [0]            L, the modulus length in bytes (1..255)
//     [1]            layout version, 0x01
//     [2]            exponent code k: the public exponent is 2^(2^k) + 1
//                    (0 for 3, 4 for 65537)
//     [3, 3+L)       modulus n
//     [3+L, 3+2L)    private exponent d, the inverse of e modulo lcm(p-1, q-1)
//
//   public key, L + 5 bytes:
//     [0]            L
//     [1, 1+L)       modulus n
//     [1+L, 5+L)     public exponent as a length byte and big-endian bytes,
//                    zero-padded on the right (01 03 00 00, or 03 01 00 01)
//
// The functions are reentrant; Vok_errno is per thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "znhas/vok_bn.h"
#include "znhas/vok_prime.h"

// Public exponents: a length byte, then the exponent's big-endian bytes.
inline constexpr unsigned char Vok_RSA_PUB_EXP_3[] = {0x01, 0x03};
inline constexpr unsigned char Vok_RSA_PUB_EXP_FERMAT4[] = {0x03, 0x01, 0x00, 0x01};

// The calling thread's last error from this library (0 after success).
extern thread_local int Vok_errno;

enum VokError {
    VOK_OK = 0,
    VOK_EBITS = 1,      // modulus size not supported
    VOK_EPARAM = 2,     // second parameter out of range
    VOK_EEXPONENT = 3,  // public exponent not supported, or not the key's
    VOK_ENULL = 4,      // a null buffer or byte source
    VOK_ERANDOM = 5,    // the byte source gave no usable primes
    VOK_EKEY = 6,       // malformed key buffer
};

// Smallest and largest modulus sizes; sizes must be multiples of 16 bits.
inline constexpr int kVokRsaMinBits = 256;
inline constexpr int kVokRsaMaxBits = 2032;

// Buffer sizes for a modulus of `bits` bits (0 for unsupported sizes).
size_t Vok_rsaPrivateKeySize(int bits);
size_t Vok_rsaPublicKeySize(int bits);

// Generates a key pair of a `bits`-bit modulus into `privkey` (which holds
// Vok_rsaPrivateKeySize(bits) bytes). `rounds` is the number of Miller-Rabin
// rounds per prime (1..64; the system passes 17). `pubexp` is a length-prefixed
// exponent of the form 2^(2^k) + 1, k in 0..4. Returns non-zero on success,
// zero with Vok_errno set on failure (the buffer is then zeroed).
int Vok_rsaKeyGen(int bits, int rounds, const unsigned char* pubexp, unsigned char* privkey,
                  vok::ByteSource rng);

// Writes the public key of `privkey` into `pubkey` (Vok_rsaPublicKeySize
// bytes for the key's size). `pubexp` must be the key's own exponent.
int Vok_rsaMakePublicKey(const unsigned char* privkey, const unsigned char* pubexp,
                         unsigned char* pubkey);

namespace vok {

// The numbers held in a key buffer (d is zero for a public key).
struct RsaKey {
    size_t bytes = 0;  // L
    Bn n;
    Bn e;
    Bn d;
};

// Reads a key buffer of `len` bytes; false (Vok_errno VOK_EKEY) when the
// length or content does not fit the layout.
bool rsaReadPrivateKey(const uint8_t* buf, size_t len, RsaKey* out);
bool rsaReadPublicKey(const uint8_t* buf, size_t len, RsaKey* out);

// Parses a length-prefixed exponent (length 1..4 bytes); false if malformed.
bool rsaParseExponent(const unsigned char* pubexp, Bn* e);

}  // namespace vok
