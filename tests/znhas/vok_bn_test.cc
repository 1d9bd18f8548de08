#include "znhas/vok_bn.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "tests/znhas/bn_oracle.h"
#include "znhas/vok_mont.h"

namespace {

using vok::Bn;
using vok::Limb;
using znhas_test::fromOssl;
using znhas_test::OBn;
using znhas_test::OCtx;
using znhas_test::patternedRandom;
using znhas_test::sameAs;
using znhas_test::toOssl;

Bn hex(const char* s) {
    Bn r;
    EXPECT_TRUE(vok::bn_from_hex(s, &r)) << s;
    return r;
}

Bn ones(size_t limbs) {
    Bn r;
    r.d.assign(limbs, ~Limb(0));
    return r;
}

TEST(BnCarry, AddAndSubtractAcrossLimbs) {
    struct Case {
        const char* a;
        const char* b;
        const char* sum;
    };
    const Case cases[] = {
        {"ffffffffffffffff", "1", "10000000000000000"},
        {"ffffffffffffffffffffffffffffffff", "1", "100000000000000000000000000000000"},
        {"ffffffffffffffff0000000000000000", "10000000000000000",
         "100000000000000000000000000000000"},
        {"1", "ffffffffffffffffffffffffffffffffffffffffffffffff",
         "1000000000000000000000000000000000000000000000000"},
        {"0", "abc", "abc"},
        {"8000000000000000", "8000000000000000", "10000000000000000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.a);
        EXPECT_EQ(vok::bn_to_hex(vok::bn_add(hex(c.a), hex(c.b))), c.sum);
        EXPECT_EQ(vok::bn_to_hex(vok::bn_add(hex(c.b), hex(c.a))), c.sum);
        EXPECT_EQ(vok::bn_to_hex(vok::bn_sub(hex(c.sum), hex(c.b))), vok::bn_to_hex(hex(c.a)));
        EXPECT_EQ(vok::bn_to_hex(vok::bn_sub(hex(c.sum), hex(c.a))), vok::bn_to_hex(hex(c.b)));
    }
    // The borrow runs through every limb and the result loses its top limb.
    Bn big = vok::bn_shl(Bn(1), 64 * 5);
    EXPECT_EQ(vok::bn_cmp(vok::bn_sub_word(big, 1), ones(5)), 0);
    EXPECT_TRUE(vok::bn_sub(Bn(5), Bn(7)).isZero());
}

TEST(BnCarry, MultiplyAllOnes) {
    for (size_t n : {1U, 2U, 3U, 8U, 17U}) {
        SCOPED_TRACE(n);
        // (B^n - 1)^2 = B^2n - 2 B^n + 1
        Bn a = ones(n);
        Bn expect = vok::bn_add_word(
            vok::bn_sub(vok::bn_shl(Bn(1), 128 * n), vok::bn_shl(Bn(2), 64 * n)), 1);
        EXPECT_EQ(vok::bn_cmp(vok::bn_mul(a, a), expect), 0);
        EXPECT_EQ(vok::bn_cmp(vok::bn_sqr_schoolbook(a), expect), 0);
        EXPECT_EQ(vok::bn_cmp(vok::bn_sqr_karatsuba(a, 2), expect), 0);
    }
    EXPECT_TRUE(vok::bn_mul(Bn(), ones(3)).isZero());
}

TEST(BnSquare, KaratsubaMatchesSchoolbookAtEverySplit) {
    znhas_test::seedTestBytes(7);
    for (size_t limbs = 1; limbs <= 70; ++limbs) {
        Bn a = patternedRandom(limbs);
        Bn ref = vok::bn_sqr_schoolbook(a);
        EXPECT_EQ(vok::bn_cmp(ref, vok::bn_mul(a, a)), 0) << limbs;
        for (size_t threshold : {2U, 3U, 5U, 24U}) {
            EXPECT_EQ(vok::bn_cmp(vok::bn_sqr_karatsuba(a, threshold), ref), 0)
                << limbs << " limbs, threshold " << threshold;
        }
        EXPECT_EQ(vok::bn_cmp(vok::bn_sqr(a), ref), 0);
    }
}

// Operands chosen for each path of the long division; OpenSSL gives the answers.
TEST(BnDivide, OneLimbAndFullWidthDivisors) {
    const std::pair<const char*, const char*> cases[] = {
        // one-limb divisors
        {"ffffffffffffffffffffffffffffffff", "ffffffffffffffff"},
        {"123456789abcdef0123456789abcdef", "1"},
        {"10000000000000000", "3"},
        // divisor as wide as the dividend
        {"ffffffffffffffffffffffffffffffff", "80000000000000000000000000000000"},
        {"ffffffffffffffffffffffffffffffff", "ffffffffffffffffffffffffffffffff"},
        {"fffffffffffffffffffffffffffffffe", "ffffffffffffffffffffffffffffffff"},
        // quotient estimate needs correcting (top limbs equal)
        {"7fffffffffffffff00000000000000000000000000000000", "7fffffffffffffffffffffffffffffff"},
        {"ffffffffffffffff0000000000000000", "ffffffffffffffff0000000000000001"},
        {"1000000000000000000000000000000000000000000000000", "10000000000000001"},
        // the first quotient estimate is one too large and v is added back
        {"7fffffffffffffff800000000000000000000000000000000000000000000000",
         "800000000000000000000000000000000000000000000001"},
        {"0", "5"},
    };
    OCtx ctx(BN_CTX_new());
    for (const auto& [a, b] : cases) {
        SCOPED_TRACE(std::string(a) + " / " + b);
        Bn q;
        Bn r;
        ASSERT_TRUE(vok::bn_divmod(hex(a), hex(b), &q, &r));
        OBn oq(BN_new());
        OBn orr(BN_new());
        BN_div(oq.get(), orr.get(), toOssl(hex(a)).get(), toOssl(hex(b)).get(), ctx.get());
        EXPECT_TRUE(sameAs(q, oq.get()));
        EXPECT_TRUE(sameAs(r, orr.get()));
    }
    Bn q(9);
    EXPECT_FALSE(vok::bn_divmod(Bn(5), Bn(), &q, nullptr));
    EXPECT_EQ(vok::bn_to_u64(q), 9U);
    EXPECT_EQ(vok::bn_mod_word(hex("ffffffffffffffffffffffffffffffff"), 7),
              vok::bn_to_u64(vok::bn_mod(hex("ffffffffffffffffffffffffffffffff"), Bn(7))));
}

TEST(BnOracle, RandomOperandsAgreeWithOpenSsl) {
    znhas_test::seedTestBytes(99);
    auto& g = znhas_test::testGen();
    OCtx ctx(BN_CTX_new());
    for (int iter = 0; iter < 400; ++iter) {
        SCOPED_TRACE(iter);
        Bn a = patternedRandom(1 + g() % 20);
        Bn b = patternedRandom(1 + g() % 20);
        OBn oa = toOssl(a);
        OBn ob = toOssl(b);
        OBn res(BN_new());
        OBn rem(BN_new());

        BN_add(res.get(), oa.get(), ob.get());
        EXPECT_TRUE(sameAs(vok::bn_add(a, b), res.get()));
        BN_mul(res.get(), oa.get(), ob.get(), ctx.get());
        EXPECT_TRUE(sameAs(vok::bn_mul(a, b), res.get()));
        BN_sqr(res.get(), oa.get(), ctx.get());
        EXPECT_TRUE(sameAs(vok::bn_sqr(a), res.get()));
        if (BN_cmp(oa.get(), ob.get()) >= 0) {
            BN_sub(res.get(), oa.get(), ob.get());
            EXPECT_TRUE(sameAs(vok::bn_sub(a, b), res.get()));
        }
        Bn q;
        Bn r;
        ASSERT_TRUE(vok::bn_divmod(a, b, &q, &r));
        BN_div(res.get(), rem.get(), oa.get(), ob.get(), ctx.get());
        EXPECT_TRUE(sameAs(q, res.get()));
        EXPECT_TRUE(sameAs(r, rem.get()));
        BN_gcd(res.get(), oa.get(), ob.get(), ctx.get());
        EXPECT_TRUE(sameAs(vok::bn_gcd(a, b), res.get()));

        size_t shift = g() % 200;
        BN_lshift(res.get(), oa.get(), static_cast<int>(shift));
        EXPECT_TRUE(sameAs(vok::bn_shl(a, shift), res.get()));
        BN_rshift(res.get(), oa.get(), static_cast<int>(shift));
        EXPECT_TRUE(sameAs(vok::bn_shr(a, shift), res.get()));
        EXPECT_EQ(vok::bn_bit_length(a), static_cast<size_t>(BN_num_bits(oa.get())));

        if (vok::bn_cmp(b, Bn(1)) > 0) {
            Bn inv;
            bool ours = vok::bn_modinv(a, b, &inv);
            ERR_clear_error();
            BIGNUM* theirs = BN_mod_inverse(nullptr, oa.get(), ob.get(), ctx.get());
            EXPECT_EQ(ours, theirs != nullptr);
            if (ours && theirs != nullptr) {
                EXPECT_TRUE(sameAs(inv, theirs));
            }
            BN_free(theirs);

            Bn e = patternedRandom(1 + g() % 4);
            BN_mod_exp(res.get(), oa.get(), toOssl(e).get(), ob.get(), ctx.get());
            EXPECT_TRUE(sameAs(vok::bn_modexp(a, e, b), res.get()))
                << (b.isOdd() ? "odd" : "even") << " modulus";
        }
    }
}

TEST(BnMontgomery, ProductAndPowerMatchOpenSsl) {
    znhas_test::seedTestBytes(5);
    OCtx ctx(BN_CTX_new());
    for (size_t limbs : {1U, 2U, 4U, 8U, 16U, 33U, 70U}) {
        SCOPED_TRACE(limbs);
        Bn n = patternedRandom(limbs);
        n.d[0] |= 1;
        if (vok::bn_is_one(n)) {
            n = Bn(0xFFFFFFFFFFFFFFC5ULL);
        }
        vok::MontCtx mc(n);
        ASSERT_TRUE(mc.valid());
        Bn a = vok::bn_mod(patternedRandom(limbs + 1), n);
        Bn b = vok::bn_mod(patternedRandom(limbs), n);
        vok::MontVal prod;
        mc.mul(mc.to(a), mc.to(b), prod);
        OBn res(BN_new());
        BN_mod_mul(res.get(), toOssl(a).get(), toOssl(b).get(), toOssl(n).get(), ctx.get());
        EXPECT_TRUE(sameAs(mc.from(prod), res.get()));
        EXPECT_EQ(vok::bn_cmp(mc.from(mc.to(a)), a), 0);

        Bn e = patternedRandom(limbs);
        BN_mod_exp(res.get(), toOssl(a).get(), toOssl(e).get(), toOssl(n).get(), ctx.get());
        EXPECT_TRUE(sameAs(mc.from(mc.pow(mc.to(a), e)), res.get()));
        EXPECT_EQ(vok::bn_cmp(mc.from(mc.pow(mc.to(a), Bn())), Bn(1)), 0);
    }
    EXPECT_FALSE(vok::MontCtx(Bn(10)).valid());
    EXPECT_FALSE(vok::MontCtx(Bn(1)).valid());
    EXPECT_TRUE(vok::bn_modexp(Bn(3), Bn(4), Bn()).isZero());
}

TEST(BnConvert, BytesAndText) {
    const uint8_t bytes[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0xfe};
    Bn a = vok::bn_from_bytes(bytes, sizeof bytes);
    EXPECT_EQ(vok::bn_to_hex(a), "10203040506070809fe");
    EXPECT_EQ(vok::bn_byte_length(a), 10U);
    uint8_t out[11] = {};
    ASSERT_TRUE(vok::bn_to_bytes(a, out, sizeof out));
    EXPECT_EQ(0, memcmp(out, bytes, sizeof out));
    uint8_t small[9];
    EXPECT_FALSE(vok::bn_to_bytes(a, small, sizeof small));
    EXPECT_TRUE(vok::bn_from_bytes(bytes, 1).isZero());

    Bn h;
    EXPECT_TRUE(vok::bn_from_hex("DeadBeef", &h));
    EXPECT_EQ(vok::bn_to_u64(h), 0xdeadbeefU);
    for (const char* bad : {"", "12g4", "0x12", " 12", "-1"}) {
        EXPECT_FALSE(vok::bn_from_hex(bad, &h)) << '"' << bad << '"';
    }
    EXPECT_EQ(vok::bn_to_hex(Bn()), "0");
    EXPECT_EQ(vok::bn_to_hex(vok::bn_shl(Bn(1), 64)), "10000000000000000");
}

TEST(BnBits, AccessAndTrailingZeros) {
    Bn a;
    vok::bn_set_bit(a, 130);
    vok::bn_set_bit(a, 3);
    EXPECT_EQ(vok::bn_bit_length(a), 131U);
    EXPECT_TRUE(vok::bn_bit(a, 130));
    EXPECT_TRUE(vok::bn_bit(a, 3));
    EXPECT_FALSE(vok::bn_bit(a, 64));
    EXPECT_FALSE(vok::bn_bit(a, 1000));
    EXPECT_EQ(vok::bn_trailing_zeros(a), 3U);
    EXPECT_EQ(vok::bn_trailing_zeros(vok::bn_shl(Bn(1), 200)), 200U);
    EXPECT_TRUE(vok::bn_shr(a, 131).isZero());
}

}  // namespace
