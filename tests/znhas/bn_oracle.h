// Test helpers: OpenSSL BIGNUM as the independent oracle for our arithmetic,
// and a seeded byte source for the generators.
#pragma once

#include <openssl/bn.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "znhas/vok_bn.h"

namespace znhas_test {

// Frees an OpenSSL object with its own free function.
template <auto Free>
struct OsslFree {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};
using OBn = std::unique_ptr<BIGNUM, OsslFree<BN_clear_free>>;
using OCtx = std::unique_ptr<BN_CTX, OsslFree<BN_CTX_free>>;

inline OBn toOssl(const vok::Bn& a) {
    BIGNUM* b = nullptr;
    std::string hex = vok::bn_to_hex(a);
    BN_hex2bn(&b, hex.c_str());
    return OBn(b);
}

inline vok::Bn fromOssl(const BIGNUM* b) {
    char* hex = BN_bn2hex(b);
    vok::Bn r;
    vok::bn_from_hex(hex, &r);
    OPENSSL_free(hex);
    return r;
}

inline bool sameAs(const vok::Bn& ours, const BIGNUM* theirs) {
    return BN_cmp(toOssl(ours).get(), theirs) == 0;
}

// Per-thread seeded generator behind a plain function, as the key generator
// takes a function pointer.
inline std::mt19937_64& testGen() {
    thread_local std::mt19937_64 gen(12345);
    return gen;
}
inline void seedTestBytes(uint64_t seed) {
    testGen().seed(seed);
}
inline int testByte() {
    return static_cast<int>(testGen()() & 0xFF);
}
inline int zeroByte() {
    return 0;
}

// A random number of `limbs` limbs drawn with a bias towards the patterns
// that exercise carries: all-ones, all-zeros and top-bit-only limbs.
inline vok::Bn patternedRandom(size_t limbs) {
    auto& g = testGen();
    vok::Bn r;
    r.d.resize(limbs);
    for (auto& l : r.d) {
        switch (g() % 6) {
            case 0:
                l = ~vok::Limb(0);
                break;
            case 1:
                l = 0;
                break;
            case 2:
                l = vok::Limb(1) << 63;
                break;
            default:
                l = g();
                break;
        }
    }
    if (limbs > 0 && r.d.back() == 0) {
        r.d.back() = 1;
    }
    r.trim();
    return r;
}

}  // namespace znhas_test
