#include "znhas/vok_prime.h"

#include "znhas/vok_mont.h"

namespace vok {

namespace {

constexpr uint32_t kSmallPrimeLimit = 1U << 14;
// How far one start walks (in steps of 2) before drawing a fresh start: far
// beyond the mean prime gap at the sizes in use (about 355 at 512 bits).
constexpr uint32_t kWindowSteps = 1U << 14;

std::vector<uint32_t> sieveSmallPrimes() {
    std::vector<bool> composite(kSmallPrimeLimit, false);
    std::vector<uint32_t> primes;
    for (uint32_t i = 3; i < kSmallPrimeLimit; i += 2) {
        if (composite[i]) {
            continue;
        }
        primes.push_back(i);
        for (uint64_t j = uint64_t(i) * i; j < kSmallPrimeLimit; j += 2ULL * i) {
            composite[j] = true;
        }
    }
    return primes;
}

// Miller-Rabin rounds on an odd n > 3 that passed trial division.
bool millerRabin(const Bn& n, int rounds, ByteSource rng) {
    MontCtx ctx(n);
    const Bn nm1 = bn_sub_word(n, 1);
    const size_t s = bn_trailing_zeros(nm1);
    const Bn d = bn_shr(nm1, s);
    const MontVal one = ctx.one();
    const MontVal minusOne = ctx.to(nm1);
    const Bn nm3 = bn_sub_word(n, 3);
    for (int round = 0; round < rounds; ++round) {
        Bn a(2);
        if (round > 0) {
            // A base in [2, n - 2].
            a = bn_add_word(bn_mod(bn_random_bits(bn_bit_length(n) + 64, rng), nm3), 2);
        }
        MontVal x = ctx.pow(ctx.to(a), d);
        if (x == one || x == minusOne) {
            continue;
        }
        bool witness = true;
        for (size_t i = 1; i < s; ++i) {
            ctx.mul(x, x, x);
            if (x == minusOne) {
                witness = false;
                break;
            }
            if (x == one) {
                break;
            }
        }
        if (witness) {
            return false;
        }
    }
    return true;
}

}  // namespace

const std::vector<uint32_t>& smallPrimes() {
    static const std::vector<uint32_t> primes = sieveSmallPrimes();
    return primes;
}

Bn bn_random_bits(size_t bits, ByteSource rng) {
    size_t bytes = (bits + 7) / 8;
    std::vector<uint8_t, WipingAllocator<uint8_t>> raw(bytes);
    for (auto& b : raw) {
        b = static_cast<uint8_t>(rng() & 0xFF);
    }
    if (bits % 8 != 0 && bytes > 0) {
        raw[0] &= static_cast<uint8_t>((1U << (bits % 8)) - 1);
    }
    return bn_from_bytes(raw.data(), raw.size());
}

bool bn_is_probable_prime(const Bn& n, int rounds, ByteSource rng) {
    if (bn_bit_length(n) <= 32) {
        uint64_t v = bn_to_u64(n);
        if (v < 2) {
            return false;
        }
        for (uint64_t p = 2; p * p <= v; ++p) {
            if (v % p == 0) {
                return false;
            }
        }
        return true;
    }
    if (!n.isOdd()) {
        return false;
    }
    for (uint32_t p : smallPrimes()) {
        if (bn_mod_word(n, p) == 0) {
            return false;
        }
    }
    return millerRabin(n, rounds < 1 ? 1 : rounds, rng);
}

bool bn_find_prime(size_t bits, const Bn& e, int rounds, ByteSource rng, Bn* out, int maxStarts) {
    if (bits < 16 || out == nullptr) {
        return false;
    }
    const auto& primes = smallPrimes();
    std::vector<uint32_t> residues(primes.size());
    for (int start = 0; start < maxStarts; ++start) {
        Bn base = bn_random_bits(bits, rng);
        bn_set_bit(base, bits - 1);
        bn_set_bit(base, bits - 2);
        bn_set_bit(base, 0);
        for (size_t i = 0; i < primes.size(); ++i) {
            residues[i] = static_cast<uint32_t>(bn_mod_word(base, primes[i]));
        }
        for (uint32_t step = 0; step < kWindowSteps; ++step) {
            const uint64_t delta = 2ULL * step;
            bool sieved = false;
            for (size_t i = 0; i < primes.size(); ++i) {
                if ((residues[i] + delta) % primes[i] == 0) {
                    sieved = true;
                    break;
                }
            }
            if (sieved) {
                continue;
            }
            Bn cand = bn_add_word(base, delta);
            if (bn_bit_length(cand) != bits) {
                break;  // walked off the top: draw a fresh start
            }
            if (!bn_is_one(bn_gcd(bn_sub_word(cand, 1), e))) {
                continue;
            }
            if (millerRabin(cand, rounds < 1 ? 1 : rounds, rng)) {
                *out = std::move(cand);
                return true;
            }
        }
    }
    return false;
}

}  // namespace vok
