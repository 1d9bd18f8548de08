// Random numbers, the probable-prime test (trial division then Miller-Rabin on
// Montgomery arithmetic) and the prime search that RSA key generation uses.
// Stateless apart from the caller's byte source, which is called from the
// calling thread only.
#pragma once

#include "znhas/vok_bn.h"

namespace vok {

// A source of random bytes: each call yields one byte in its low 8 bits.
using ByteSource = int (*)();

// A number of `bits` random bits (uniform in [0, 2^bits)).
Bn bn_random_bits(size_t bits, ByteSource rng);

// The odd primes below 2^14, for trial division and sieving.
const std::vector<uint32_t>& smallPrimes();

// Probable-prime test: trial division by the small primes, then `rounds`
// Miller-Rabin rounds (the first with base 2, the rest with random bases).
bool bn_is_probable_prime(const Bn& n, int rounds, ByteSource rng);

// Searches for a probable prime p of exactly `bits` bits (bits >= 16) whose two
// top bits are set, so a product of two such primes has exactly 2*bits bits,
// and with gcd(p - 1, e) == 1. Starts at a random odd number and steps through
// a sieved window; a fresh start is drawn when a window holds no prime. Returns
// false after `maxStarts` fresh starts without success.
bool bn_find_prime(size_t bits, const Bn& e, int rounds, ByteSource rng, Bn* out,
                   int maxStarts = 64);

}  // namespace vok
