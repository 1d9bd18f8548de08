// Montgomery arithmetic modulo one odd number: the fast modular exponentiation
// behind the probable-prime test. A MontCtx is immutable once built and may be
// shared between threads; values in Montgomery form are plain limb vectors of
// exactly limbs() limbs.
#pragma once

#include "znhas/vok_bn.h"

namespace vok {

using MontVal = LimbVec;

class MontCtx {
public:
    // `modulus` must be odd and greater than one; otherwise valid() is false.
    explicit MontCtx(const Bn& modulus);

    bool valid() const { return valid_; }
    size_t limbs() const { return n_.d.size(); }
    const Bn& modulus() const { return n_; }

    // Into Montgomery form (a is reduced first) and back.
    MontVal to(const Bn& a) const;
    Bn from(const MontVal& a) const;
    MontVal one() const { return one_; }

    // out = a * b / R mod n. out may alias a or b.
    void mul(const MontVal& a, const MontVal& b, MontVal& out) const;
    // base^exp, all in Montgomery form (fixed 4-bit window).
    MontVal pow(const MontVal& base, const Bn& exp) const;

private:
    Bn n_;
    Limb n0inv_ = 0;  // -n^-1 mod 2^64
    MontVal r2_;      // R^2 mod n, plain form
    MontVal one_;     // R mod n
    bool valid_ = false;
};

// base^exp mod m. Uses Montgomery multiplication for odd m, plain square and
// multiply with division otherwise. m must not be zero (returns zero then).
Bn bn_modexp(const Bn& base, const Bn& exp, const Bn& m);

}  // namespace vok
