// Times RSA key generation with exponent 3: ours (Vok_rsaKeyGen fed by the
// library's own byte source) against OpenSSL's generator in the same run, and
// prints milliseconds per key for 512- and 1024-bit moduli.
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "znhas/sec_random.h"
#include "znhas/vok_rsa.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double oursMsPerKey(int bits, int keys) {
    std::vector<unsigned char> priv(Vok_rsaPrivateKeySize(bits));
    auto start = Clock::now();
    for (int i = 0; i < keys; ++i) {
        if (Vok_rsaKeyGen(bits, 17, Vok_RSA_PUB_EXP_3, priv.data(),
                          [] { return sec__randnum() & 0xFF; }) == 0) {
            std::fprintf(stderr, "Vok_rsaKeyGen failed: %d\n", Vok_errno);
            std::exit(1);
        }
    }
    return msSince(start) / keys;
}

double opensslMsPerKey(int bits, int keys) {
    BIGNUM* e = BN_new();
    BN_set_word(e, 3);
    auto start = Clock::now();
    for (int i = 0; i < keys; ++i) {
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
        EVP_PKEY* key = nullptr;
        if (ctx == nullptr || EVP_PKEY_keygen_init(ctx) != 1 ||
            EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, bits) != 1 ||
            EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx, e) != 1 || EVP_PKEY_keygen(ctx, &key) != 1) {
            std::fprintf(stderr, "OpenSSL key generation failed\n");
            std::exit(1);
        }
        EVP_PKEY_free(key);
        EVP_PKEY_CTX_free(ctx);
    }
    BN_free(e);
    return msSince(start) / keys;
}

}  // namespace

int main(int argc, char** argv) {
    int keys = argc > 1 ? std::atoi(argv[1]) : 40;
    if (keys <= 0) {
        keys = 40;
    }
    std::printf("RSA key generation, exponent 3, %d keys per figure\n", keys);
    std::printf("%6s %12s %14s %8s\n", "bits", "ours ms/key", "openssl ms/key", "ratio");
    for (int bits : {512, 1024}) {
        double ours = oursMsPerKey(bits, keys);
        double theirs = opensslMsPerKey(bits, keys);
        std::printf("%6d %12.2f %14.2f %8.2f\n", bits, ours, theirs, ours / theirs);
    }
    return 0;
}
