#include "znhas/sec_proof.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <memory>

#include "znhas/sec_random.h"
#include "znhas/sec_token.h"
#include "znhas/vok_rsa.h"
#include "znhas/znhas.h"

namespace znhas {
namespace {

constexpr char kLabel[] = "znhas host proof v1";
// Keys below this size are not worth proving with.
constexpr size_t kMinProofBits = 1024;

struct BnFree {
    void operator()(BIGNUM* b) const { BN_clear_free(b); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct BldFree {
    void operator()(OSSL_PARAM_BLD* b) const { OSSL_PARAM_BLD_free(b); }
};
// The parameters carry a copy of the private exponent: wiped before they go.
struct ParamFree {
    void operator()(OSSL_PARAM* p) const {
        for (OSSL_PARAM* q = p; q != nullptr && q->key != nullptr; ++q) {
            if (q->data != nullptr) {
                OPENSSL_cleanse(q->data, q->data_size);
            }
        }
        OSSL_PARAM_free(p);
    }
};
using BnPtr = std::unique_ptr<BIGNUM, BnFree>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

struct TokenFree {
    void operator()(sec_buffer_t t) const {
        sec_buffer_t copy = t;
        sec_release_host_token(&copy);
    }
};
using TokenPtr = std::unique_ptr<sec_buffer_s, TokenFree>;

bool fail(std::string* why, std::string text) {
    if (why != nullptr) {
        *why = std::move(text);
    }
    return false;
}

// The last OpenSSL error as text (and the queue emptied), for log lines.
std::string opensslError(const char* what) {
    unsigned long e = ERR_get_error();
    ERR_clear_error();
    char buf[256] = {};
    if (e != 0) {
        ERR_error_string_n(e, buf, sizeof buf);
        return std::string(what) + ": " + buf;
    }
    return what;
}

BnPtr toBignum(const vok::Bn& v, size_t bytes) {
    std::vector<uint8_t, vok::WipingAllocator<uint8_t>> raw(bytes);
    if (bytes == 0 || !vok::bn_to_bytes(v, raw.data(), raw.size())) {
        return nullptr;
    }
    return BnPtr(BN_bin2bn(raw.data(), static_cast<int>(raw.size()), nullptr));
}

// An OpenSSL key from the numbers of a key buffer (d zero: public only).
PkeyPtr toPkey(const vok::RsaKey& key, std::string* why) {
    BnPtr n = toBignum(key.n, key.bytes);
    BnPtr e = toBignum(key.e, vok::bn_byte_length(key.e));
    BnPtr d = key.d.isZero() ? nullptr : toBignum(key.d, key.bytes);
    bool priv = !key.d.isZero();
    std::unique_ptr<OSSL_PARAM_BLD, BldFree> bld(OSSL_PARAM_BLD_new());
    if (n == nullptr || e == nullptr || (priv && d == nullptr) || bld == nullptr ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1 ||
        (priv && OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_D, d.get()) != 1)) {
        fail(why, opensslError("the key's numbers could not be taken"));
        return nullptr;
    }
    std::unique_ptr<OSSL_PARAM, ParamFree> params(OSSL_PARAM_BLD_to_param(bld.get()));
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(
        EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* out = nullptr;
    if (params == nullptr || ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &out, priv ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                          params.get()) != 1) {
        fail(why, opensslError("the key was not accepted"));
        return nullptr;
    }
    return PkeyPtr(out);
}

// Reads a token's key buffer; refuses 512-bit keys and malformed buffers.
bool readKey(sec_buffer_t token, bool priv, vok::RsaKey* key, std::string* why) {
    uint32_t type = 0;
    const uint8_t* bytes = nullptr;
    size_t len = 0;
    if (!checkToken(token, &type, &bytes, &len)) {
        return fail(why, "the key token is malformed");
    }
    if (type == static_cast<uint32_t>(SEC_KEYTYPE_RSA512)) {
        return fail(why, "512-bit keys (type 8193) are not accepted for proofs");
    }
    bool ok =
        priv ? vok::rsaReadPrivateKey(bytes, len, key) : vok::rsaReadPublicKey(bytes, len, key);
    if (!ok) {
        return fail(why, "the key is not an RSA key of this system's layout");
    }
    if (vok::bn_bit_length(key->n) < kMinProofBits) {
        return fail(why, "keys under 1024 bits are not accepted for proofs");
    }
    return true;
}

void appendField(std::vector<uint8_t>& out, const void* p, size_t n) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(n >> shift));
    }
    const auto* b = static_cast<const uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}

}  // namespace

std::vector<uint8_t> newProofNonce() {
    std::vector<uint8_t> nonce(kProofNonceBytes);
    if (!sec__random_bytes(nonce.data(), nonce.size())) {
        nonce.clear();
    }
    return nonce;
}

std::vector<uint8_t> proofMessage(const ProofSubject& s) {
    std::vector<uint8_t> out;
    appendField(out, kLabel, sizeof kLabel - 1);
    appendField(out, s.purpose.data(), s.purpose.size());
    appendField(out, s.prover.data(), s.prover.size());
    appendField(out, s.verifier.data(), s.verifier.size());
    appendField(out, s.nonce.data(), s.nonce.size());
    return out;
}

bool signWithKeyToken(sec_buffer_t privateToken, const std::vector<uint8_t>& message,
                      std::vector<uint8_t>* signature, std::string* why) {
    vok::RsaKey key;
    if (!readKey(privateToken, true, &key, why)) {
        return false;
    }
    PkeyPtr pkey = toPkey(key, why);
    if (pkey == nullptr) {
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> md(EVP_MD_CTX_new());
    size_t len = 0;
    if (md == nullptr ||
        EVP_DigestSignInit(md.get(), nullptr, EVP_sha256(), nullptr, pkey.get()) != 1 ||
        EVP_DigestSign(md.get(), nullptr, &len, message.data(), message.size()) != 1) {
        return fail(why, opensslError("signing failed"));
    }
    signature->assign(len, 0);
    if (EVP_DigestSign(md.get(), signature->data(), &len, message.data(), message.size()) != 1) {
        signature->clear();
        return fail(why, opensslError("signing failed"));
    }
    signature->resize(len);
    return true;
}

bool verifyWithKeyToken(sec_buffer_t publicToken, const std::vector<uint8_t>& message,
                        const std::vector<uint8_t>& signature, std::string* why) {
    if (signature.empty() || signature.size() > kMaxProofSignature) {
        return fail(why, "the signature has an impossible length");
    }
    vok::RsaKey key;
    if (!readKey(publicToken, false, &key, why)) {
        return false;
    }
    PkeyPtr pkey = toPkey(key, why);
    if (pkey == nullptr) {
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> md(EVP_MD_CTX_new());
    if (md == nullptr ||
        EVP_DigestVerifyInit(md.get(), nullptr, EVP_sha256(), nullptr, pkey.get()) != 1) {
        return fail(why, opensslError("verification could not start"));
    }
    int rc = EVP_DigestVerify(md.get(), signature.data(), signature.size(), message.data(),
                              message.size());
    ERR_clear_error();
    if (rc != 1) {
        return fail(why, "the signature does not match the key");
    }
    return true;
}

bool signHostProof(const ProofSubject& s, std::vector<uint8_t>* signature, std::string* why) {
    sec_buffer_t raw = nullptr;
    int rc = sec_get_localhost_token(SEC_PRIVATE_KEYFILE, &raw);
    TokenPtr token(raw);
    if (rc != 0) {
        return fail(why,
                    "this host's private key cannot be read (code " + std::to_string(rc) + ")");
    }
    if (!signWithKeyToken(token.get(), proofMessage(s), signature, why)) {
        if (why != nullptr) {
            *why = "this host's key: " + *why;
        }
        return false;
    }
    return true;
}

bool verifyHostProof(const ProofSubject& s, const std::vector<uint8_t>& signature,
                     std::string* why) {
    std::string host(s.prover);
    sec_buffer_t raw = nullptr;
    int rc = sec_get_host_token(host.c_str(), &raw);
    TokenPtr token(raw);
    if (rc == ZNHAS_E_NOTFOUND) {
        return fail(why, "host " + host + " is not in the trusted host list");
    }
    if (rc != 0) {
        return fail(why, "the trusted host list cannot be read (code " + std::to_string(rc) + ")");
    }
    if (!verifyWithKeyToken(token.get(), proofMessage(s), signature, why)) {
        if (why != nullptr) {
            *why = "host " + host + ": " + *why;
        }
        return false;
    }
    return true;
}

}  // namespace znhas
