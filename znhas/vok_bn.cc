#include "znhas/vok_bn.h"

#include <algorithm>

namespace vok {

void secureWipe(void* p, size_t n) {
    if (p == nullptr || n == 0) {
        return;
    }
    auto* volatile v = static_cast<volatile unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) {
        v[i] = 0;
    }
}

int bn_cmp(const Bn& a, const Bn& b) {
    if (a.d.size() != b.d.size()) {
        return a.d.size() < b.d.size() ? -1 : 1;
    }
    for (size_t i = a.d.size(); i-- > 0;) {
        if (a.d[i] != b.d[i]) {
            return a.d[i] < b.d[i] ? -1 : 1;
        }
    }
    return 0;
}

bool bn_is_one(const Bn& a) {
    return a.d.size() == 1 && a.d[0] == 1;
}

Bn bn_add(const Bn& a, const Bn& b) {
    const Bn& big = a.d.size() >= b.d.size() ? a : b;
    const Bn& small = a.d.size() >= b.d.size() ? b : a;
    Bn r;
    r.d.resize(big.d.size() + 1);
    Limb carry = 0;
    for (size_t i = 0; i < big.d.size(); ++i) {
        DLimb s = DLimb(big.d[i]) + (i < small.d.size() ? small.d[i] : 0) + carry;
        r.d[i] = static_cast<Limb>(s);
        carry = static_cast<Limb>(s >> kLimbBits);
    }
    r.d[big.d.size()] = carry;
    r.trim();
    return r;
}

Bn bn_add_word(const Bn& a, Limb w) {
    return bn_add(a, Bn(w));
}

Bn bn_sub(const Bn& a, const Bn& b) {
    if (bn_cmp(a, b) <= 0) {
        return Bn();
    }
    Bn r;
    r.d.resize(a.d.size());
    Limb borrow = 0;
    for (size_t i = 0; i < a.d.size(); ++i) {
        Limb bi = i < b.d.size() ? b.d[i] : 0;
        Limb t = a.d[i] - bi;
        Limb b1 = a.d[i] < bi ? 1 : 0;
        r.d[i] = t - borrow;
        Limb b2 = t < borrow ? 1 : 0;
        borrow = b1 | b2;
    }
    r.trim();
    return r;
}

Bn bn_sub_word(const Bn& a, Limb w) {
    return bn_sub(a, Bn(w));
}

Bn bn_mul(const Bn& a, const Bn& b) {
    if (a.isZero() || b.isZero()) {
        return Bn();
    }
    Bn r;
    r.d.assign(a.d.size() + b.d.size(), 0);
    for (size_t i = 0; i < a.d.size(); ++i) {
        Limb carry = 0;
        for (size_t j = 0; j < b.d.size(); ++j) {
            DLimb t = DLimb(a.d[i]) * b.d[j] + r.d[i + j] + carry;
            r.d[i + j] = static_cast<Limb>(t);
            carry = static_cast<Limb>(t >> kLimbBits);
        }
        r.d[i + b.d.size()] = carry;
    }
    r.trim();
    return r;
}

Bn bn_mul_word(const Bn& a, Limb w) {
    return bn_mul(a, Bn(w));
}

Bn bn_sqr_schoolbook(const Bn& a) {
    size_t n = a.d.size();
    if (n == 0) {
        return Bn();
    }
    Bn r;
    r.d.assign(2 * n, 0);
    // Cross products a[i]*a[j] for i < j, once each.
    for (size_t i = 0; i < n; ++i) {
        Limb carry = 0;
        for (size_t j = i + 1; j < n; ++j) {
            DLimb t = DLimb(a.d[i]) * a.d[j] + r.d[i + j] + carry;
            r.d[i + j] = static_cast<Limb>(t);
            carry = static_cast<Limb>(t >> kLimbBits);
        }
        r.d[i + n] = carry;
    }
    // Double them.
    Limb top = 0;
    for (size_t i = 0; i < 2 * n; ++i) {
        Limb next = r.d[i] >> (kLimbBits - 1);
        r.d[i] = (r.d[i] << 1) | top;
        top = next;
    }
    // Add the squares on the diagonal.
    Limb carry = 0;
    for (size_t i = 0; i < n; ++i) {
        DLimb sq = DLimb(a.d[i]) * a.d[i];
        DLimb lo = DLimb(r.d[2 * i]) + static_cast<Limb>(sq) + carry;
        r.d[2 * i] = static_cast<Limb>(lo);
        DLimb hi = DLimb(r.d[2 * i + 1]) + static_cast<Limb>(sq >> kLimbBits) +
                   static_cast<Limb>(lo >> kLimbBits);
        r.d[2 * i + 1] = static_cast<Limb>(hi);
        carry = static_cast<Limb>(hi >> kLimbBits);
    }
    r.trim();
    return r;
}

namespace {

Bn lowLimbs(const Bn& a, size_t k) {
    Bn r;
    r.d.assign(a.d.begin(), a.d.begin() + static_cast<std::ptrdiff_t>(std::min(k, a.d.size())));
    r.trim();
    return r;
}

Bn highLimbs(const Bn& a, size_t k) {
    Bn r;
    if (a.d.size() > k) {
        r.d.assign(a.d.begin() + static_cast<std::ptrdiff_t>(k), a.d.end());
    }
    return r;
}

Bn shiftLimbs(const Bn& a, size_t k) {
    if (a.isZero()) {
        return a;
    }
    Bn r;
    r.d.assign(k, 0);
    r.d.insert(r.d.end(), a.d.begin(), a.d.end());
    return r;
}

}  // namespace

Bn bn_sqr_karatsuba(const Bn& a, size_t threshold) {
    threshold = std::max<size_t>(threshold, 2);
    if (a.d.size() < threshold) {
        return bn_sqr_schoolbook(a);
    }
    // a = a1*B^k + a0: a^2 = a1^2 B^2k + ((a0+a1)^2 - a0^2 - a1^2) B^k + a0^2.
    size_t k = a.d.size() / 2;
    Bn a0 = lowLimbs(a, k);
    Bn a1 = highLimbs(a, k);
    Bn z0 = bn_sqr_karatsuba(a0, threshold);
    Bn z2 = bn_sqr_karatsuba(a1, threshold);
    Bn z1 = bn_sub(bn_sub(bn_sqr_karatsuba(bn_add(a0, a1), threshold), z0), z2);
    return bn_add(bn_add(shiftLimbs(z2, 2 * k), shiftLimbs(z1, k)), z0);
}

Bn bn_sqr(const Bn& a) {
    return bn_sqr_karatsuba(a, kKaratsubaSqrThreshold);
}

Bn bn_shl(const Bn& a, size_t bits) {
    if (a.isZero()) {
        return a;
    }
    size_t limbShift = bits / kLimbBits;
    unsigned bitShift = static_cast<unsigned>(bits % kLimbBits);
    Bn r;
    r.d.assign(a.d.size() + limbShift + 1, 0);
    for (size_t i = 0; i < a.d.size(); ++i) {
        r.d[i + limbShift] |= a.d[i] << bitShift;
        if (bitShift != 0) {
            r.d[i + limbShift + 1] = a.d[i] >> (kLimbBits - bitShift);
        }
    }
    r.trim();
    return r;
}

Bn bn_shr(const Bn& a, size_t bits) {
    size_t limbShift = bits / kLimbBits;
    if (limbShift >= a.d.size()) {
        return Bn();
    }
    unsigned bitShift = static_cast<unsigned>(bits % kLimbBits);
    Bn r;
    r.d.assign(a.d.size() - limbShift, 0);
    for (size_t i = 0; i < r.d.size(); ++i) {
        Limb lo = a.d[i + limbShift] >> bitShift;
        Limb hi = 0;
        if (bitShift != 0 && i + limbShift + 1 < a.d.size()) {
            hi = a.d[i + limbShift + 1] << (kLimbBits - bitShift);
        }
        r.d[i] = lo | hi;
    }
    r.trim();
    return r;
}

size_t bn_bit_length(const Bn& a) {
    if (a.isZero()) {
        return 0;
    }
    return (a.d.size() - 1) * kLimbBits +
           (kLimbBits - static_cast<size_t>(__builtin_clzll(a.d.back())));
}

bool bn_bit(const Bn& a, size_t i) {
    size_t limb = i / kLimbBits;
    return limb < a.d.size() && ((a.d[limb] >> (i % kLimbBits)) & 1U) != 0;
}

void bn_set_bit(Bn& a, size_t i) {
    size_t limb = i / kLimbBits;
    if (a.d.size() <= limb) {
        a.d.resize(limb + 1, 0);
    }
    a.d[limb] |= Limb(1) << (i % kLimbBits);
}

size_t bn_trailing_zeros(const Bn& a) {
    for (size_t i = 0; i < a.d.size(); ++i) {
        if (a.d[i] != 0) {
            return i * kLimbBits + static_cast<size_t>(__builtin_ctzll(a.d[i]));
        }
    }
    return 0;
}

Bn bn_from_bytes(const uint8_t* p, size_t n) {
    Bn r;
    r.d.assign((n + 7) / 8, 0);
    for (size_t i = 0; i < n; ++i) {
        size_t pos = n - 1 - i;  // weight of byte p[i] in bytes
        r.d[pos / 8] |= Limb(p[i]) << (8 * (pos % 8));
    }
    r.trim();
    return r;
}

size_t bn_byte_length(const Bn& a) {
    return (bn_bit_length(a) + 7) / 8;
}

bool bn_to_bytes(const Bn& a, uint8_t* out, size_t len) {
    if (bn_byte_length(a) > len) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        size_t pos = len - 1 - i;
        size_t limb = pos / 8;
        out[i] = limb < a.d.size() ? static_cast<uint8_t>(a.d[limb] >> (8 * (pos % 8))) : 0;
    }
    return true;
}

std::string bn_to_hex(const Bn& a) {
    if (a.isZero()) {
        return "0";
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string s;
    size_t nibbles = (bn_bit_length(a) + 3) / 4;
    s.reserve(nibbles);
    for (size_t i = nibbles; i-- > 0;) {
        Limb v = a.d[i / 16] >> (4 * (i % 16));
        s.push_back(kDigits[v & 0xFU]);
    }
    return s;
}

bool bn_from_hex(std::string_view hex, Bn* out) {
    if (hex.empty() || out == nullptr) {
        return false;
    }
    Bn r;
    r.d.assign((hex.size() + 15) / 16, 0);
    for (size_t i = 0; i < hex.size(); ++i) {
        char c = hex[hex.size() - 1 - i];
        Limb v;
        if (c >= '0' && c <= '9') {
            v = static_cast<Limb>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            v = static_cast<Limb>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            v = static_cast<Limb>(c - 'A' + 10);
        } else {
            return false;
        }
        r.d[i / 16] |= v << (4 * (i % 16));
    }
    r.trim();
    *out = std::move(r);
    return true;
}

uint64_t bn_to_u64(const Bn& a) {
    return a.isZero() ? 0 : a.d[0];
}

}  // namespace vok
