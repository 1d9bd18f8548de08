// Host proofs: signatures made from this library's key buffers must be
// standard PKCS#1 v1.5 SHA-256 signatures (checked with OpenSSL's raw RSA and
// a hand-built encoding, not with the code under test), must bind every field
// of their subject, and must refuse weak keys and unlisted hosts.
#include "znhas/sec_proof.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/sha.h>

#include <string>
#include <vector>

#include "tests/znhas/znhas_fixture.h"
#include "znhas/sec_keyfile.h"
#include "znhas/vok_rsa.h"

namespace {

using znhas_test::Bytes;
using znhas_test::tokenKey;

struct KeyPair {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
    explicit KeyPair(int type) { EXPECT_EQ(sec_generate_rsa_localhost_token(type, &pvt, &pub), 0); }
    ~KeyPair() {
        sec_release_host_token(&pvt);
        sec_release_host_token(&pub);
    }
    KeyPair(const KeyPair&) = delete;
    KeyPair& operator=(const KeyPair&) = delete;
};

// Key generation takes a while: the 1024-bit pairs are made once.
const KeyPair& keyA() {
    static KeyPair k(SEC_KEYTYPE_RSA1024);
    return k;
}
const KeyPair& keyB() {
    static KeyPair k(SEC_KEYTYPE_RSA1024);
    return k;
}

Bytes bytesOf(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

// s^e mod n with OpenSSL's own arithmetic, as big-endian bytes of the modulus' length.
Bytes rawPublicOp(sec_buffer_t pub, const Bytes& sig) {
    Bytes key = tokenKey(pub);
    vok::RsaKey k;
    EXPECT_TRUE(vok::rsaReadPublicKey(key.data(), key.size(), &k));
    Bytes nb(k.bytes);
    vok::bn_to_bytes(k.n, nb.data(), nb.size());
    Bytes eb(vok::bn_byte_length(k.e));
    vok::bn_to_bytes(k.e, eb.data(), eb.size());
    BIGNUM* n = BN_bin2bn(nb.data(), static_cast<int>(nb.size()), nullptr);
    BIGNUM* e = BN_bin2bn(eb.data(), static_cast<int>(eb.size()), nullptr);
    BIGNUM* s = BN_bin2bn(sig.data(), static_cast<int>(sig.size()), nullptr);
    BIGNUM* m = BN_new();
    BN_CTX* ctx = BN_CTX_new();
    EXPECT_EQ(BN_mod_exp(m, s, e, n, ctx), 1);
    Bytes out(k.bytes);
    EXPECT_EQ(BN_bn2binpad(m, out.data(), static_cast<int>(out.size())),
              static_cast<int>(out.size()));
    BN_CTX_free(ctx);
    BN_free(m);
    BN_free(s);
    BN_free(e);
    BN_free(n);
    return out;
}

// EMSA-PKCS1-v1_5 of SHA-256(message) for a modulus of `len` bytes.
Bytes pkcs1Sha256(const Bytes& message, size_t len) {
    static const uint8_t kDigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                          0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                          0x01, 0x05, 0x00, 0x04, 0x20};
    uint8_t digest[SHA256_DIGEST_LENGTH];
    SHA256(message.data(), message.size(), digest);
    size_t t = sizeof kDigestInfo + sizeof digest;
    Bytes em(len, 0xFF);
    em[0] = 0x00;
    em[1] = 0x01;
    em[len - t - 1] = 0x00;
    std::copy(std::begin(kDigestInfo), std::end(kDigestInfo), em.begin() + (len - t));
    std::copy(std::begin(digest), std::end(digest), em.begin() + (len - sizeof digest));
    return em;
}

TEST(HostProofKeys, SignaturesAreStandardAndOnlyTheirOwnKeyAndMessageVerifyThem) {
    Bytes msg = bytesOf("a message to sign");
    std::vector<uint8_t> sig;
    std::string why;
    ASSERT_TRUE(znhas::signWithKeyToken(keyA().pvt, msg, &sig, &why)) << why;
    ASSERT_EQ(sig.size(), 128U);
    EXPECT_EQ(rawPublicOp(keyA().pub, sig), pkcs1Sha256(msg, 128));

    EXPECT_TRUE(znhas::verifyWithKeyToken(keyA().pub, msg, sig, &why)) << why;
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyB().pub, msg, sig, &why));
    EXPECT_NE(why.find("does not match"), std::string::npos) << why;
    Bytes other = msg;
    other.back() ^= 1;
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyA().pub, other, sig, &why));
    std::vector<uint8_t> bent = sig;
    bent[40] ^= 0x10;
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyA().pub, msg, bent, &why));
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyA().pub, msg, {}, &why));
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyA().pub, msg, std::vector<uint8_t>(4096, 1), &why));
    EXPECT_NE(why.find("impossible length"), std::string::npos) << why;
    // A public key cannot sign, and a private key buffer is no public key.
    EXPECT_FALSE(znhas::signWithKeyToken(keyA().pub, msg, &sig, &why));
    EXPECT_FALSE(znhas::verifyWithKeyToken(keyA().pvt, msg, sig, &why));
}

TEST(HostProofKeys, FiveHundredTwelveBitKeysAreRefusedOnBothSides) {
    KeyPair weak(SEC_KEYTYPE_RSA512);
    Bytes msg = bytesOf("m");
    std::vector<uint8_t> sig;
    std::string why;
    EXPECT_FALSE(znhas::signWithKeyToken(weak.pvt, msg, &sig, &why));
    EXPECT_NE(why.find("8193"), std::string::npos) << why;
    // A 1024-bit signature against a 512-bit listed key, and a 512-bit key
    // listed under the 1024-bit type: both refused.
    ASSERT_TRUE(znhas::signWithKeyToken(keyA().pvt, msg, &sig, &why));
    EXPECT_FALSE(znhas::verifyWithKeyToken(weak.pub, msg, sig, &why));
    Bytes small = tokenKey(weak.pub);
    sec_buffer_t relabelled = nullptr;
    ASSERT_EQ(sec_create_host_token("h", static_cast<int>(small.size()), small.data(),
                                    SEC_KEYTYPE_RSA1024, &relabelled),
              0);
    EXPECT_FALSE(znhas::verifyWithKeyToken(relabelled, msg, sig, &why));
    EXPECT_NE(why.find("1024 bits"), std::string::npos) << why;
    sec_release_host_token(&relabelled);
}

TEST(HostProofKeys, EveryFieldOfTheSubjectChangesTheSignedBytes) {
    std::vector<uint8_t> n1(32, 7);
    std::vector<uint8_t> n2(32, 8);
    auto m = [](std::string_view p, std::string_view a, std::string_view b,
                const std::vector<uint8_t>& n) {
        return znhas::proofMessage({p, a, b, n});
    };
    Bytes base = m("hello", "a", "b", n1);
    EXPECT_NE(base, m("answer", "a", "b", n1));
    EXPECT_NE(base, m("hello", "b", "a", n1));  // roles of the names swapped
    EXPECT_NE(base, m("hello", "a", "c", n1));
    EXPECT_NE(base, m("hello", "a", "b", n2));
    // Field boundaries are part of the encoding.
    EXPECT_NE(m("hello", "ab", "c", n1), m("hello", "a", "bc", n1));
    EXPECT_EQ(base, m("hello", "a", "b", n1));

    auto x = znhas::newProofNonce();
    auto y = znhas::newProofNonce();
    EXPECT_EQ(x.size(), znhas::kProofNonceBytes);
    EXPECT_NE(x, y);
}

class HostProofFiles : public znhas_test::ZnhasTest {
protected:
    void SetUp() override {
        ZnhasTest::SetUp();
        initThl();
        ASSERT_EQ(sec__record_hostid_token(SEC_PRIVATE_KEYFILE, keyA().pvt), 0);
        ASSERT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, keyA().pub), 0);
    }
};

TEST_F(HostProofFiles, AHostProvesWithItsKeyFileAndIsCheckedAgainstTheListedKey) {
    std::vector<uint8_t> nonce = znhas::newProofNonce();
    znhas::ProofSubject s{"peer-hello", "node1", "mgmt", nonce};
    std::vector<uint8_t> sig;
    std::string why;
    ASSERT_TRUE(znhas::signHostProof(s, &sig, &why)) << why;

    EXPECT_FALSE(znhas::verifyHostProof(s, sig, &why));
    EXPECT_NE(why.find("node1 is not in the trusted host list"), std::string::npos) << why;

    ASSERT_EQ(sec_store_host_token("node1", keyB().pub), 0);
    EXPECT_FALSE(znhas::verifyHostProof(s, sig, &why)) << "listed under another key";

    ASSERT_EQ(sec_store_host_token("node1", keyA().pub), 0);
    EXPECT_TRUE(znhas::verifyHostProof(s, sig, &why)) << why;
    // The same signature does not prove anything else.
    std::vector<uint8_t> other = znhas::newProofNonce();
    EXPECT_FALSE(znhas::verifyHostProof({"peer-hello", "node1", "mgmt", other}, sig, &why));
    EXPECT_FALSE(znhas::verifyHostProof({"peer-answer", "node1", "mgmt", nonce}, sig, &why));
    EXPECT_FALSE(znhas::verifyHostProof({"peer-hello", "node1", "other", nonce}, sig, &why));
}

TEST_F(HostProofFiles, WithoutAReadableKeyFileNothingIsSigned) {
    std::remove(pvt_.c_str());
    std::vector<uint8_t> nonce = znhas::newProofNonce();
    std::vector<uint8_t> sig;
    std::string why;
    EXPECT_FALSE(znhas::signHostProof({"peer-hello", "a", "b", nonce}, &sig, &why));
    EXPECT_NE(why.find("private key cannot be read"), std::string::npos) << why;
    EXPECT_TRUE(sig.empty());
}

}  // namespace
