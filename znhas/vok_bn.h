// Multi-precision non-negative integers for RSA key generation: just the
// arithmetic key generation needs (add, subtract, multiply, Karatsuba squaring,
// division, shifts, byte and text conversion, gcd and modular inverse).
// A Bn is a plain value; functions never share state, so distinct values may be
// used from any thread. Limb storage is wiped before it is released, since
// these numbers hold primes and private exponents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace vok {

using Limb = uint64_t;
__extension__ typedef unsigned __int128 DLimb;
inline constexpr unsigned kLimbBits = 64;

// Overwrites memory with zeros in a way the optimiser keeps.
void secureWipe(void* p, size_t n);

// An allocator that wipes every block before handing it back, so vector growth
// leaves no copies of key material behind.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    explicit WipingAllocator(const WipingAllocator<U>& /*other*/) {}
    T* allocate(size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
    void deallocate(T* p, size_t n) {
        secureWipe(p, n * sizeof(T));
        ::operator delete(p);
    }
    template <class U>
    bool operator==(const WipingAllocator<U>& /*other*/) const {
        return true;
    }
};

using LimbVec = std::vector<Limb, WipingAllocator<Limb>>;

// Little-endian limbs without high zero limbs; zero has no limbs.
struct Bn {
    LimbVec d;

    Bn() = default;
    explicit Bn(Limb v) {
        if (v != 0) {
            d.push_back(v);
        }
    }
    ~Bn() { secureWipe(d.data(), d.size() * sizeof(Limb)); }
    Bn(const Bn&) = default;
    Bn& operator=(const Bn&) = default;
    Bn(Bn&&) noexcept = default;
    Bn& operator=(Bn&&) noexcept = default;

    bool isZero() const { return d.empty(); }
    bool isOdd() const { return !d.empty() && (d[0] & 1U) != 0; }
    size_t limbs() const { return d.size(); }
    // Drops high zero limbs.
    void trim() {
        while (!d.empty() && d.back() == 0) {
            d.pop_back();
        }
    }
};

// Comparison: negative, zero or positive as a < b, a == b, a > b.
int bn_cmp(const Bn& a, const Bn& b);
bool bn_is_one(const Bn& a);

Bn bn_add(const Bn& a, const Bn& b);
Bn bn_add_word(const Bn& a, Limb w);
// a - b; a must not be less than b (returns zero if it is).
Bn bn_sub(const Bn& a, const Bn& b);
Bn bn_sub_word(const Bn& a, Limb w);

Bn bn_mul(const Bn& a, const Bn& b);
Bn bn_mul_word(const Bn& a, Limb w);
// Squaring: Karatsuba above the limb threshold, schoolbook below.
Bn bn_sqr(const Bn& a);
// The same with an explicit threshold (>= 2), so tests reach the recursion on
// small numbers.
Bn bn_sqr_karatsuba(const Bn& a, size_t threshold);
Bn bn_sqr_schoolbook(const Bn& a);
inline constexpr size_t kKaratsubaSqrThreshold = 24;

// Quotient and remainder; either out pointer may be null. Returns false (and
// leaves the outputs alone) for a zero divisor.
bool bn_divmod(const Bn& a, const Bn& b, Bn* q, Bn* r);
Bn bn_mod(const Bn& a, const Bn& m);
// Remainder by one word (w != 0).
Limb bn_mod_word(const Bn& a, Limb w);

Bn bn_shl(const Bn& a, size_t bits);
Bn bn_shr(const Bn& a, size_t bits);
size_t bn_bit_length(const Bn& a);
bool bn_bit(const Bn& a, size_t i);
void bn_set_bit(Bn& a, size_t i);
// Number of low zero bits (0 for zero).
size_t bn_trailing_zeros(const Bn& a);

Bn bn_gcd(Bn a, Bn b);
// The inverse of a modulo m (m > 1); false when gcd(a, m) != 1.
bool bn_modinv(const Bn& a, const Bn& m, Bn* inv);

// Big-endian bytes. to_bytes pads on the left to `len` bytes and returns false
// if the value needs more.
Bn bn_from_bytes(const uint8_t* p, size_t n);
bool bn_to_bytes(const Bn& a, uint8_t* out, size_t len);
size_t bn_byte_length(const Bn& a);
// Lower-case hexadecimal without prefix ("0" for zero); from_hex accepts either
// case and returns false on any other character or empty text.
std::string bn_to_hex(const Bn& a);
bool bn_from_hex(std::string_view hex, Bn* out);
uint64_t bn_to_u64(const Bn& a);

}  // namespace vok
