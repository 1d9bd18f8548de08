#include "znhas/vok_rsa.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <vector>

#include "tests/znhas/bn_oracle.h"
#include "znhas/vok_mont.h"

namespace {

using znhas_test::OBn;
using znhas_test::OCtx;
using znhas_test::toOssl;
using Bytes = std::vector<unsigned char>;

using OPkey = std::unique_ptr<EVP_PKEY, znhas_test::OsslFree<EVP_PKEY_free>>;
using OPctx = std::unique_ptr<EVP_PKEY_CTX, znhas_test::OsslFree<EVP_PKEY_CTX_free>>;

OBn fromBytes(const unsigned char* p, size_t n) {
    return OBn(BN_bin2bn(p, static_cast<int>(n), nullptr));
}

// Factors n from (n, e, d) with the classic square-root-of-one search, all in
// OpenSSL arithmetic so nothing of ours is trusted.
bool recoverFactors(const BIGNUM* n, const BIGNUM* e, const BIGNUM* d, OBn* p, OBn* q) {
    OCtx ctx(BN_CTX_new());
    OBn k(BN_new()), t(BN_new()), nm1(BN_dup(n)), y(BN_new()), x(BN_new()), g(BN_new());
    BN_mul(k.get(), e, d, ctx.get());
    BN_sub_word(k.get(), 1);
    BN_sub_word(nm1.get(), 1);
    BN_copy(t.get(), k.get());
    while (!BN_is_odd(t.get())) {
        BN_rshift1(t.get(), t.get());
    }
    for (unsigned base = 2; base < 200; ++base) {
        BN_set_word(g.get(), base);
        BN_mod_exp(y.get(), g.get(), t.get(), n, ctx.get());
        if (BN_is_one(y.get()) || BN_cmp(y.get(), nm1.get()) == 0) {
            continue;
        }
        for (int i = 0; i < 4096; ++i) {
            BN_mod_sqr(x.get(), y.get(), n, ctx.get());
            if (BN_is_one(x.get())) {
                BN_sub_word(y.get(), 1);
                p->reset(BN_new());
                q->reset(BN_new());
                BN_gcd(p->get(), y.get(), n, ctx.get());
                BN_div(q->get(), nullptr, n, p->get(), ctx.get());
                return !BN_is_one(p->get());
            }
            if (BN_cmp(x.get(), nm1.get()) == 0) {
                break;
            }
            BN_copy(y.get(), x.get());
        }
    }
    return false;
}

OPkey buildKey(const BIGNUM* n, const BIGNUM* e, const BIGNUM* d, const BIGNUM* p,
               const BIGNUM* q) {
    OCtx ctx(BN_CTX_new());
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
    OBn dp(BN_new()), dq(BN_new()), qinv(BN_new()), pm1(BN_dup(p)), qm1(BN_dup(q));
    if (d != nullptr) {
        BN_sub_word(pm1.get(), 1);
        BN_sub_word(qm1.get(), 1);
        BN_mod(dp.get(), d, pm1.get(), ctx.get());
        BN_mod(dq.get(), d, qm1.get(), ctx.get());
        BN_mod_inverse(qinv.get(), q, p, ctx.get());
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_D, d);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_FACTOR1, p);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_FACTOR2, q);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_EXPONENT1, dp.get());
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_EXPONENT2, dq.get());
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_COEFFICIENT1, qinv.get());
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
    OPctx pctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* pkey = nullptr;
    EVP_PKEY_fromdata_init(pctx.get());
    EVP_PKEY_fromdata(pctx.get(), &pkey, d != nullptr ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                      params);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    return OPkey(pkey);
}

Bytes rawRsa(EVP_PKEY* key, const Bytes& in, bool encrypt) {
    OPctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    int ok = encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get());
    EXPECT_EQ(ok, 1);
    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING);
    size_t outLen = 0;
    if (encrypt) {
        EVP_PKEY_encrypt(ctx.get(), nullptr, &outLen, in.data(), in.size());
    } else {
        EVP_PKEY_decrypt(ctx.get(), nullptr, &outLen, in.data(), in.size());
    }
    Bytes out(outLen);
    ok = encrypt ? EVP_PKEY_encrypt(ctx.get(), out.data(), &outLen, in.data(), in.size())
                 : EVP_PKEY_decrypt(ctx.get(), out.data(), &outLen, in.data(), in.size());
    EXPECT_EQ(ok, 1);
    out.resize(outLen);
    return out;
}

struct KeyCase {
    int bits;
    const unsigned char* exp;
    unsigned long eValue;
    int count;
};

class RsaKeyGenTest : public ::testing::TestWithParam<KeyCase> {};

TEST_P(RsaKeyGenTest, KeysPassOpenSslChecksAndRoundTrip) {
    const KeyCase kc = GetParam();
    const size_t l = (static_cast<size_t>(kc.bits) + 7) / 8;
    ASSERT_EQ(Vok_rsaPrivateKeySize(kc.bits), 2 * l + 3);
    ASSERT_EQ(Vok_rsaPublicKeySize(kc.bits), l + 5);
    OCtx ctx(BN_CTX_new());
    for (int i = 0; i < kc.count; ++i) {
        SCOPED_TRACE(i);
        znhas_test::seedTestBytes(1000U * static_cast<unsigned>(kc.bits) +
                                  static_cast<unsigned>(i));
        Bytes priv(Vok_rsaPrivateKeySize(kc.bits));
        Bytes pub(Vok_rsaPublicKeySize(kc.bits));
        ASSERT_NE(Vok_rsaKeyGen(kc.bits, 17, kc.exp, priv.data(), znhas_test::testByte), 0)
            << Vok_errno;
        EXPECT_EQ(Vok_errno, VOK_OK);
        ASSERT_NE(Vok_rsaMakePublicKey(priv.data(), kc.exp, pub.data()), 0) << Vok_errno;

        // The documented layout, read with OpenSSL rather than our accessors.
        ASSERT_EQ(priv[0], l);
        EXPECT_EQ(priv[1], 0x01);
        EXPECT_EQ(priv[2], kc.eValue == 3 ? 0 : 4);
        ASSERT_EQ(pub[0], l);
        EXPECT_EQ(0, memcmp(pub.data() + 1, priv.data() + 3, l)) << "same modulus";
        const unsigned char* pe = pub.data() + 1 + l;
        const Bytes expectExp = kc.eValue == 3 ? Bytes{1, 3, 0, 0} : Bytes{3, 1, 0, 1};
        EXPECT_EQ(Bytes(pe, pe + 4), expectExp);

        OBn n = fromBytes(priv.data() + 3, l);
        OBn d = fromBytes(priv.data() + 3 + l, l);
        OBn e(BN_new());
        BN_set_word(e.get(), kc.eValue);
        EXPECT_EQ(BN_num_bits(n.get()), kc.bits);

        OBn p, q;
        ASSERT_TRUE(recoverFactors(n.get(), e.get(), d.get(), &p, &q));
        EXPECT_EQ(BN_num_bits(p.get()), kc.bits / 2);
        EXPECT_EQ(BN_num_bits(q.get()), kc.bits / 2);
        EXPECT_EQ(BN_check_prime(p.get(), ctx.get(), nullptr), 1);
        EXPECT_EQ(BN_check_prime(q.get(), ctx.get(), nullptr), 1);

        // e*d == 1 mod lcm(p-1, q-1), and e is coprime to p-1 and q-1.
        OBn pm1(BN_dup(p.get())), qm1(BN_dup(q.get())), g(BN_new()), lam(BN_new()), ed(BN_new()),
            tmp(BN_new());
        BN_sub_word(pm1.get(), 1);
        BN_sub_word(qm1.get(), 1);
        EXPECT_NE(BN_mod_word(pm1.get(), static_cast<BN_ULONG>(kc.eValue)), 0U);
        EXPECT_NE(BN_mod_word(qm1.get(), static_cast<BN_ULONG>(kc.eValue)), 0U);
        BN_gcd(g.get(), pm1.get(), qm1.get(), ctx.get());
        BN_mul(tmp.get(), pm1.get(), qm1.get(), ctx.get());
        BN_div(lam.get(), nullptr, tmp.get(), g.get(), ctx.get());
        BN_mod_mul(ed.get(), e.get(), d.get(), lam.get(), ctx.get());
        EXPECT_TRUE(BN_is_one(ed.get()));
        EXPECT_LT(BN_cmp(d.get(), lam.get()), 0);

        OPkey key = buildKey(n.get(), e.get(), d.get(), p.get(), q.get());
        ASSERT_NE(key, nullptr);
        OPctx check(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
        EXPECT_EQ(EVP_PKEY_pairwise_check(check.get()), 1);
        EXPECT_EQ(EVP_PKEY_private_check(check.get()), 1);

        // Encrypt with the public buffer's key, decrypt with the private one.
        OPkey pubKey =
            buildKey(fromBytes(pub.data() + 1, l).get(), e.get(), nullptr, nullptr, nullptr);
        ASSERT_NE(pubKey, nullptr);
        Bytes msg(l);
        for (size_t j = 0; j < l; ++j) {
            msg[j] = static_cast<unsigned char>(j * 7 + static_cast<size_t>(i));
        }
        msg[0] = 0x01;  // below n
        Bytes cipher = rawRsa(pubKey.get(), msg, true);
        EXPECT_NE(cipher, msg);
        EXPECT_EQ(rawRsa(key.get(), cipher, false), msg);

        // And our own accessors and exponentiation agree.
        vok::RsaKey ours;
        vok::RsaKey oursPub;
        ASSERT_TRUE(vok::rsaReadPrivateKey(priv.data(), priv.size(), &ours));
        ASSERT_TRUE(vok::rsaReadPublicKey(pub.data(), pub.size(), &oursPub));
        EXPECT_EQ(vok::bn_to_u64(ours.e), kc.eValue);
        EXPECT_EQ(vok::bn_to_u64(oursPub.e), kc.eValue);
        EXPECT_EQ(vok::bn_cmp(ours.n, oursPub.n), 0);
        vok::Bn m = vok::bn_from_bytes(msg.data(), msg.size());
        vok::Bn c = vok::bn_modexp(m, ours.e, ours.n);
        EXPECT_EQ(vok::bn_cmp(c, vok::bn_from_bytes(cipher.data(), cipher.size())), 0);
        EXPECT_EQ(vok::bn_cmp(vok::bn_modexp(c, ours.d, ours.n), m), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaKeyGenTest,
                         ::testing::Values(KeyCase{512, Vok_RSA_PUB_EXP_3, 3, 24},
                                           KeyCase{1024, Vok_RSA_PUB_EXP_3, 3, 8},
                                           KeyCase{512, Vok_RSA_PUB_EXP_FERMAT4, 65537, 4},
                                           KeyCase{768, Vok_RSA_PUB_EXP_3, 3, 2}),
                         [](const ::testing::TestParamInfo<KeyCase>& p) {
                             return "bits" + std::to_string(p.param.bits) + "_e" +
                                    std::to_string(p.param.eValue);
                         });

TEST(RsaKeyGenErrors, BadArgumentsSetVokErrno) {
    Bytes priv(Vok_rsaPrivateKeySize(512), 0xAA);
    const unsigned char exp5[] = {0x01, 0x05};
    const unsigned char exp7[] = {0x01, 0x07};
    const unsigned char expLong[] = {0x05, 1, 0, 0, 0, 1};
    struct Case {
        const char* what;
        int bits;
        int rounds;
        const unsigned char* exp;
        unsigned char* out;
        vok::ByteSource rng;
        int err;
    };
    const Case cases[] = {
        {"too small", 128, 17, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte, VOK_EBITS},
        {"not a multiple of 16", 520, 17, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte,
         VOK_EBITS},
        {"too large", 4096, 17, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte, VOK_EBITS},
        {"no rounds", 512, 0, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte, VOK_EPARAM},
        {"too many rounds", 512, 65, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte,
         VOK_EPARAM},
        {"exponent 7", 512, 17, exp7, priv.data(), znhas_test::testByte, VOK_EEXPONENT},
        {"exponent too long", 512, 17, expLong, priv.data(), znhas_test::testByte, VOK_EEXPONENT},
        {"null out", 512, 17, Vok_RSA_PUB_EXP_3, nullptr, znhas_test::testByte, VOK_ENULL},
        {"null rng", 512, 17, Vok_RSA_PUB_EXP_3, priv.data(), nullptr, VOK_ENULL},
        {"null exponent", 512, 17, nullptr, priv.data(), znhas_test::testByte, VOK_ENULL},
        {"constant rng", 512, 17, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::zeroByte,
         VOK_ERANDOM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Vok_errno = VOK_OK;
        EXPECT_EQ(Vok_rsaKeyGen(c.bits, c.rounds, c.exp, c.out, c.rng), 0);
        EXPECT_EQ(Vok_errno, c.err);
    }
    // A Fermat exponent other than the two named ones still works.
    znhas_test::seedTestBytes(3);
    ASSERT_NE(Vok_rsaKeyGen(512, 4, exp5, priv.data(), znhas_test::testByte), 0);
    EXPECT_EQ(priv[2], 1);
    Bytes pub(Vok_rsaPublicKeySize(512));
    EXPECT_EQ(Vok_rsaMakePublicKey(priv.data(), Vok_RSA_PUB_EXP_3, pub.data()), 0);
    EXPECT_EQ(Vok_errno, VOK_EEXPONENT);
    EXPECT_NE(Vok_rsaMakePublicKey(priv.data(), exp5, pub.data()), 0);
}

TEST(RsaKeyLayout, MalformedBuffersAreRejected) {
    znhas_test::seedTestBytes(11);
    Bytes priv(Vok_rsaPrivateKeySize(512));
    ASSERT_NE(Vok_rsaKeyGen(512, 8, Vok_RSA_PUB_EXP_3, priv.data(), znhas_test::testByte), 0);
    Bytes pub(Vok_rsaPublicKeySize(512));
    ASSERT_NE(Vok_rsaMakePublicKey(priv.data(), Vok_RSA_PUB_EXP_3, pub.data()), 0);
    vok::RsaKey k;
    struct Mutation {
        const char* what;
        bool isPrivate;
        size_t offset;
        unsigned char value;
        size_t len;
    };
    const Mutation muts[] = {
        {"private version", true, 1, 0x02, priv.size()},
        {"private exponent code", true, 2, 5, priv.size()},
        {"private length byte", true, 0, 63, priv.size()},
        {"private truncated", true, 3, priv[3], priv.size() - 1},
        {"private even modulus", true, 2 + 64, static_cast<unsigned char>(priv[66] & 0xFE),
         priv.size()},
        {"public length byte", false, 0, 65, pub.size()},
        {"public exponent length", false, 65, 4, pub.size()},
        {"public padding", false, 68, 1, pub.size()},
        {"public truncated", false, 1, pub[1], pub.size() - 1},
    };
    for (const auto& m : muts) {
        SCOPED_TRACE(m.what);
        Bytes buf = m.isPrivate ? priv : pub;
        buf[m.offset] = m.value;
        Vok_errno = VOK_OK;
        bool ok = m.isPrivate ? vok::rsaReadPrivateKey(buf.data(), m.len, &k)
                              : vok::rsaReadPublicKey(buf.data(), m.len, &k);
        EXPECT_FALSE(ok);
        EXPECT_EQ(Vok_errno, VOK_EKEY);
    }
    Bytes badPriv = priv;
    badPriv[1] = 9;
    EXPECT_EQ(Vok_rsaMakePublicKey(badPriv.data(), Vok_RSA_PUB_EXP_3, pub.data()), 0);
    EXPECT_EQ(Vok_errno, VOK_EKEY);
}

}  // namespace
