// Division (Knuth's algorithm D), gcd and modular inverse.
#include "znhas/vok_bn.h"

namespace vok {

namespace {

__extension__ typedef __int128 SDLimb;

// Divides by a single limb; returns the remainder.
Limb divWord(const Bn& a, Limb w, Bn* q) {
    Bn quot;
    quot.d.assign(a.d.size(), 0);
    DLimb rem = 0;
    for (size_t i = a.d.size(); i-- > 0;) {
        DLimb cur = (rem << kLimbBits) | a.d[i];
        quot.d[i] = static_cast<Limb>(cur / w);
        rem = cur % w;
    }
    quot.trim();
    if (q != nullptr) {
        *q = std::move(quot);
    }
    return static_cast<Limb>(rem);
}

// Signed value for the extended Euclid coefficients.
struct SBn {
    Bn mag;
    bool neg = false;
};

SBn signedSub(const SBn& x, const SBn& y) {
    // x - y == x + (-y)
    bool yneg = !y.neg;
    if (x.neg == yneg) {
        return SBn{bn_add(x.mag, y.mag), x.neg};
    }
    int c = bn_cmp(x.mag, y.mag);
    if (c >= 0) {
        return SBn{bn_sub(x.mag, y.mag), c == 0 ? false : x.neg};
    }
    return SBn{bn_sub(y.mag, x.mag), yneg};
}

}  // namespace

Limb bn_mod_word(const Bn& a, Limb w) {
    DLimb rem = 0;
    for (size_t i = a.d.size(); i-- > 0;) {
        rem = ((rem << kLimbBits) | a.d[i]) % w;
    }
    return static_cast<Limb>(rem);
}

bool bn_divmod(const Bn& a, const Bn& b, Bn* q, Bn* r) {
    if (b.isZero()) {
        return false;
    }
    if (bn_cmp(a, b) < 0) {
        Bn rem = a;
        if (q != nullptr) {
            *q = Bn();
        }
        if (r != nullptr) {
            *r = std::move(rem);
        }
        return true;
    }
    if (b.d.size() == 1) {
        Limb rem = divWord(a, b.d[0], q);
        if (r != nullptr) {
            *r = Bn(rem);
        }
        return true;
    }
    // Normalise so the divisor's top bit is set.
    const size_t n = b.d.size();
    const unsigned s = static_cast<unsigned>(__builtin_clzll(b.d.back()));
    Bn v = bn_shl(b, s);
    Bn u = bn_shl(a, s);
    u.d.resize(a.d.size() + 1, 0);
    const size_t m = a.d.size() - n;
    Bn quot;
    quot.d.assign(m + 1, 0);
    const DLimb base = DLimb(1) << kLimbBits;
    for (size_t j = m + 1; j-- > 0;) {
        DLimb num = (DLimb(u.d[j + n]) << kLimbBits) | u.d[j + n - 1];
        DLimb qhat = num / v.d[n - 1];
        DLimb rhat = num % v.d[n - 1];
        while (qhat >= base || qhat * v.d[n - 2] > ((rhat << kLimbBits) | u.d[j + n - 2])) {
            --qhat;
            rhat += v.d[n - 1];
            if (rhat >= base) {
                break;
            }
        }
        // u[j..j+n] -= qhat * v
        SDLimb borrow = 0;
        SDLimb t = 0;
        for (size_t i = 0; i < n; ++i) {
            DLimb p = qhat * v.d[i];
            t = SDLimb(u.d[i + j]) - borrow - SDLimb(static_cast<Limb>(p));
            u.d[i + j] = static_cast<Limb>(t);
            borrow = SDLimb(static_cast<Limb>(p >> kLimbBits)) - (t >> kLimbBits);
        }
        t = SDLimb(u.d[j + n]) - borrow;
        u.d[j + n] = static_cast<Limb>(t);
        if (t < 0) {
            // qhat was one too large: add v back.
            --qhat;
            Limb carry = 0;
            for (size_t i = 0; i < n; ++i) {
                DLimb sum = DLimb(u.d[i + j]) + v.d[i] + carry;
                u.d[i + j] = static_cast<Limb>(sum);
                carry = static_cast<Limb>(sum >> kLimbBits);
            }
            u.d[j + n] += carry;
        }
        quot.d[j] = static_cast<Limb>(qhat);
    }
    quot.trim();
    if (q != nullptr) {
        *q = std::move(quot);
    }
    if (r != nullptr) {
        u.d.resize(n);
        u.trim();
        *r = bn_shr(u, s);
    }
    return true;
}

Bn bn_mod(const Bn& a, const Bn& m) {
    Bn r;
    bn_divmod(a, m, nullptr, &r);
    return r;
}

Bn bn_gcd(Bn a, Bn b) {
    while (!b.isZero()) {
        Bn r = bn_mod(a, b);
        a = std::move(b);
        b = std::move(r);
    }
    return a;
}

bool bn_modinv(const Bn& a, const Bn& m, Bn* inv) {
    if (m.isZero() || bn_is_one(m)) {
        return false;
    }
    Bn r0 = m;
    Bn r1 = bn_mod(a, m);
    SBn t0;
    SBn t1{Bn(1), false};
    while (!r1.isZero()) {
        Bn q;
        Bn r2;
        bn_divmod(r0, r1, &q, &r2);
        SBn t2 = signedSub(t0, SBn{bn_mul(q, t1.mag), t1.neg});
        r0 = std::move(r1);
        r1 = std::move(r2);
        t0 = std::move(t1);
        t1 = std::move(t2);
    }
    if (!bn_is_one(r0)) {
        return false;
    }
    Bn res = bn_mod(t0.mag, m);
    if (t0.neg && !res.isZero()) {
        res = bn_sub(m, res);
    }
    if (inv != nullptr) {
        *inv = std::move(res);
    }
    return true;
}

}  // namespace vok
