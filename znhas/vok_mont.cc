#include "znhas/vok_mont.h"

#include <algorithm>
#include <array>

namespace vok {

MontCtx::MontCtx(const Bn& modulus) : n_(modulus) {
    if (!n_.isOdd() || bn_is_one(n_)) {
        return;
    }
    // Newton iteration doubles the correct low bits each step: 1 -> 64 in 6.
    Limb inv = 1;
    for (int i = 0; i < 6; ++i) {
        inv *= 2 - n_.d[0] * inv;
    }
    n0inv_ = ~inv + 1;
    const size_t k = n_.d.size();
    Bn r = bn_mod(bn_shl(Bn(1), k * kLimbBits), n_);
    Bn r2 = bn_mod(bn_shl(Bn(1), 2 * k * kLimbBits), n_);
    one_.assign(k, 0);
    r2_.assign(k, 0);
    std::copy(r.d.begin(), r.d.end(), one_.begin());
    std::copy(r2.d.begin(), r2.d.end(), r2_.begin());
    valid_ = true;
}

void MontCtx::mul(const MontVal& a, const MontVal& b, MontVal& out) const {
    const size_t k = n_.d.size();
    const Limb* nd = n_.d.data();
    // Coarsely integrated operand scanning; t has k + 2 limbs, on the stack
    // for every size key generation uses.
    constexpr size_t kStackLimbs = 66;
    Limb stackBuf[kStackLimbs];
    LimbVec heapBuf;
    Limb* t = stackBuf;
    if (k + 2 > kStackLimbs) {
        heapBuf.assign(k + 2, 0);
        t = heapBuf.data();
    }
    std::fill(t, t + k + 2, Limb(0));
    for (size_t i = 0; i < k; ++i) {
        Limb c = 0;
        const Limb bi = b[i];
        for (size_t j = 0; j < k; ++j) {
            DLimb s = DLimb(a[j]) * bi + t[j] + c;
            t[j] = static_cast<Limb>(s);
            c = static_cast<Limb>(s >> kLimbBits);
        }
        DLimb s = DLimb(t[k]) + c;
        t[k] = static_cast<Limb>(s);
        t[k + 1] = static_cast<Limb>(s >> kLimbBits);

        const Limb m = t[0] * n0inv_;
        s = DLimb(m) * nd[0] + t[0];
        c = static_cast<Limb>(s >> kLimbBits);
        for (size_t j = 1; j < k; ++j) {
            s = DLimb(m) * nd[j] + t[j] + c;
            t[j - 1] = static_cast<Limb>(s);
            c = static_cast<Limb>(s >> kLimbBits);
        }
        s = DLimb(t[k]) + c;
        t[k - 1] = static_cast<Limb>(s);
        t[k] = t[k + 1] + static_cast<Limb>(s >> kLimbBits);
    }
    // t < 2n: subtract n once if t >= n.
    bool geq = t[k] != 0;
    if (!geq) {
        geq = true;
        for (size_t i = k; i-- > 0;) {
            if (t[i] != nd[i]) {
                geq = t[i] > nd[i];
                break;
            }
        }
    }
    out.resize(k);
    if (geq) {
        Limb borrow = 0;
        for (size_t i = 0; i < k; ++i) {
            Limb x = t[i] - nd[i];
            Limb b1 = t[i] < nd[i] ? 1 : 0;
            out[i] = x - borrow;
            borrow = b1 | (x < borrow ? 1 : 0);
        }
    } else {
        std::copy(t, t + k, out.begin());
    }
    secureWipe(t, (k + 2) * sizeof(Limb));
}

MontVal MontCtx::to(const Bn& a) const {
    Bn red = bn_cmp(a, n_) < 0 ? a : bn_mod(a, n_);
    MontVal v(n_.d.size(), 0);
    std::copy(red.d.begin(), red.d.end(), v.begin());
    mul(v, r2_, v);
    return v;
}

Bn MontCtx::from(const MontVal& a) const {
    MontVal unit(n_.d.size(), 0);
    unit[0] = 1;
    MontVal out;
    mul(a, unit, out);
    Bn r;
    r.d.assign(out.begin(), out.end());
    r.trim();
    return r;
}

MontVal MontCtx::pow(const MontVal& base, const Bn& exp) const {
    constexpr unsigned kWindow = 4;
    std::array<MontVal, 1U << kWindow> table;
    table[0] = one_;
    table[1] = base;
    for (size_t i = 2; i < table.size(); ++i) {
        mul(table[i - 1], base, table[i]);
    }
    MontVal acc = one_;
    size_t bits = bn_bit_length(exp);
    size_t windows = (bits + kWindow - 1) / kWindow;
    for (size_t w = windows; w-- > 0;) {
        for (unsigned s = 0; s < kWindow; ++s) {
            mul(acc, acc, acc);
        }
        unsigned idx = 0;
        for (unsigned s = kWindow; s-- > 0;) {
            idx = (idx << 1) | (bn_bit(exp, w * kWindow + s) ? 1U : 0U);
        }
        if (idx != 0) {
            mul(acc, table[idx], acc);
        }
    }
    return acc;
}

Bn bn_modexp(const Bn& base, const Bn& exp, const Bn& m) {
    if (m.isZero()) {
        return Bn();
    }
    if (bn_is_one(m)) {
        return Bn();
    }
    if (m.isOdd()) {
        MontCtx ctx(m);
        return ctx.from(ctx.pow(ctx.to(base), exp));
    }
    Bn acc(1);
    Bn b = bn_mod(base, m);
    for (size_t i = bn_bit_length(exp); i-- > 0;) {
        acc = bn_mod(bn_sqr(acc), m);
        if (bn_bit(exp, i)) {
            acc = bn_mod(bn_mul(acc, b), m);
        }
    }
    return acc;
}

}  // namespace vok
