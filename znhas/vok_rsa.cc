#include "znhas/vok_rsa.h"

#include <cstring>

thread_local int Vok_errno = VOK_OK;

namespace vok {

namespace {

constexpr uint8_t kLayoutVersion = 0x01;
constexpr size_t kPublicExpBytes = 4;
// Fresh prime pairs tried before giving up on the byte source.
constexpr int kMaxPairAttempts = 8;

int fail(int code) {
    Vok_errno = code;
    return 0;
}

// k with e == 2^(2^k) + 1, or -1.
int exponentCode(const Bn& e) {
    for (int k = 0; k <= 4; ++k) {
        if (bn_cmp(e, Bn((Limb(1) << (1U << k)) + 1)) == 0) {
            return k;
        }
    }
    return -1;
}

Bn exponentFromCode(int k) {
    return Bn((Limb(1) << (1U << k)) + 1);
}

bool supportedBits(int bits) {
    return bits >= kVokRsaMinBits && bits <= kVokRsaMaxBits && bits % 16 == 0;
}

}  // namespace

bool rsaParseExponent(const unsigned char* pubexp, Bn* e) {
    if (pubexp == nullptr || pubexp[0] == 0 || pubexp[0] > 4) {
        return false;
    }
    *e = bn_from_bytes(pubexp + 1, pubexp[0]);
    return true;
}

bool rsaReadPrivateKey(const uint8_t* buf, size_t len, RsaKey* out) {
    if (buf == nullptr || out == nullptr || len < 3) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    size_t l = buf[0];
    int k = buf[2];
    if (l == 0 || len != 2 * l + 3 || buf[1] != kLayoutVersion || k > 4) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    out->bytes = l;
    out->n = bn_from_bytes(buf + 3, l);
    out->d = bn_from_bytes(buf + 3 + l, l);
    out->e = exponentFromCode(k);
    if (!out->n.isOdd() || out->d.isZero()) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    return true;
}

bool rsaReadPublicKey(const uint8_t* buf, size_t len, RsaKey* out) {
    if (buf == nullptr || out == nullptr || len < 1 + kPublicExpBytes + 1) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    size_t l = buf[0];
    if (l == 0 || len != l + 1 + kPublicExpBytes) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    const uint8_t* ex = buf + 1 + l;
    if (ex[0] == 0 || ex[0] > kPublicExpBytes - 1) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    for (size_t i = 1u + ex[0]; i < kPublicExpBytes; ++i) {
        if (ex[i] != 0) {
            Vok_errno = VOK_EKEY;
            return false;
        }
    }
    out->bytes = l;
    out->n = bn_from_bytes(buf + 1, l);
    out->e = bn_from_bytes(ex + 1, ex[0]);
    out->d = Bn();
    if (!out->n.isOdd() || bn_cmp(out->e, Bn(3)) < 0) {
        Vok_errno = VOK_EKEY;
        return false;
    }
    return true;
}

}  // namespace vok

using vok::Bn;

size_t Vok_rsaPrivateKeySize(int bits) {
    if (!vok::supportedBits(bits)) {
        return 0;
    }
    return 2 * ((static_cast<size_t>(bits) + 7) / 8) + 3;
}

size_t Vok_rsaPublicKeySize(int bits) {
    if (!vok::supportedBits(bits)) {
        return 0;
    }
    return (static_cast<size_t>(bits) + 7) / 8 + 5;
}

int Vok_rsaKeyGen(int bits, int rounds, const unsigned char* pubexp, unsigned char* privkey,
                  vok::ByteSource rng) {
    if (privkey == nullptr || rng == nullptr || pubexp == nullptr) {
        return vok::fail(VOK_ENULL);
    }
    if (!vok::supportedBits(bits)) {
        return vok::fail(VOK_EBITS);
    }
    if (rounds < 1 || rounds > 64) {
        return vok::fail(VOK_EPARAM);
    }
    Bn e;
    int code = -1;
    if (vok::rsaParseExponent(pubexp, &e)) {
        code = vok::exponentCode(e);
    }
    if (code < 0) {
        return vok::fail(VOK_EEXPONENT);
    }
    const size_t l = (static_cast<size_t>(bits) + 7) / 8;
    const size_t half = static_cast<size_t>(bits) / 2;
    std::memset(privkey, 0, 2 * l + 3);
    for (int attempt = 0; attempt < vok::kMaxPairAttempts; ++attempt) {
        Bn p;
        Bn q;
        if (!vok::bn_find_prime(half, e, rounds, rng, &p) ||
            !vok::bn_find_prime(half, e, rounds, rng, &q)) {
            return vok::fail(VOK_ERANDOM);
        }
        if (vok::bn_cmp(p, q) == 0) {
            continue;  // a byte source that repeats itself
        }
        Bn n = vok::bn_mul(p, q);
        Bn pm1 = vok::bn_sub_word(p, 1);
        Bn qm1 = vok::bn_sub_word(q, 1);
        Bn lambda;
        vok::bn_divmod(vok::bn_mul(pm1, qm1), vok::bn_gcd(pm1, qm1), &lambda, nullptr);
        Bn d;
        if (vok::bn_bit_length(n) != static_cast<size_t>(bits) || !vok::bn_modinv(e, lambda, &d)) {
            continue;
        }
        privkey[0] = static_cast<unsigned char>(l);
        privkey[1] = vok::kLayoutVersion;
        privkey[2] = static_cast<unsigned char>(code);
        vok::bn_to_bytes(n, privkey + 3, l);
        vok::bn_to_bytes(d, privkey + 3 + l, l);
        Vok_errno = VOK_OK;
        return 1;
    }
    return vok::fail(VOK_ERANDOM);
}

int Vok_rsaMakePublicKey(const unsigned char* privkey, const unsigned char* pubexp,
                         unsigned char* pubkey) {
    if (privkey == nullptr || pubexp == nullptr || pubkey == nullptr) {
        return vok::fail(VOK_ENULL);
    }
    const size_t l = privkey[0];
    vok::RsaKey key;
    if (!vok::rsaReadPrivateKey(privkey, 2 * l + 3, &key)) {
        return vok::fail(VOK_EKEY);
    }
    Bn e;
    if (!vok::rsaParseExponent(pubexp, &e) || vok::bn_cmp(e, key.e) != 0) {
        return vok::fail(VOK_EEXPONENT);
    }
    pubkey[0] = static_cast<unsigned char>(l);
    vok::bn_to_bytes(key.n, pubkey + 1, l);
    unsigned char* ex = pubkey + 1 + l;
    std::memset(ex, 0, vok::kPublicExpBytes);
    const size_t eb = vok::bn_byte_length(e);
    ex[0] = static_cast<unsigned char>(eb);
    vok::bn_to_bytes(e, ex + 1, eb);
    Vok_errno = VOK_OK;
    return 1;
}
