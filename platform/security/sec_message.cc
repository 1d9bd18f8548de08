#include "platform/security/sec_message.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <climits>
#include <cstdlib>

namespace {

bool usable(const sec_buffer_s* b) {
    return b != nullptr && (b->length == 0 || b->value != nullptr);
}

// Checks the arguments common to both calls; 0 when they can be used.
int checkArguments(const sec_buffer_s* key, unsigned int flags, const sec_buffer_s* message,
                   const sec_buffer_s* signature) {
    if (key == nullptr || key->length == 0 || key->value == nullptr ||
        key->length > static_cast<uint32_t>(INT_MAX) || !usable(message) || signature == nullptr) {
        return SEC_E_ARGUMENT;
    }
    if (flags != SEC_F_KEYED_DIGEST) {
        return SEC_E_FLAGS;
    }
    return SEC_S_OK;
}

// HMAC-SHA256 of the message into `out`, which holds SEC_KEYED_DIGEST_LENGTH bytes.
int digest(const sec_buffer_s* key, const sec_buffer_s* message, unsigned char* out) {
    static const unsigned char kNothing = 0;
    const unsigned char* data =
        message->length == 0 ? &kNothing : static_cast<const unsigned char*>(message->value);
    unsigned int outLen = 0;
    if (HMAC(EVP_sha256(), key->value, static_cast<int>(key->length), data, message->length, out,
             &outLen) == nullptr ||
        outLen != SEC_KEYED_DIGEST_LENGTH) {
        OPENSSL_cleanse(out, SEC_KEYED_DIGEST_LENGTH);
        return SEC_E_CRYPTO;
    }
    return SEC_S_OK;
}

}  // namespace

int sec_prepare_message(sec_buffer_t key, unsigned int flags, sec_buffer_t message,
                        sec_buffer_t signature) {
    int rc = checkArguments(key, flags, message, signature);
    if (rc != SEC_S_OK) {
        if (signature != nullptr) {
            *signature = {0, nullptr};
        }
        return rc;
    }
    *signature = {0, nullptr};
    auto* out = static_cast<unsigned char*>(std::malloc(SEC_KEYED_DIGEST_LENGTH));
    if (out == nullptr) {
        return SEC_E_MEMORY;
    }
    rc = digest(key, message, out);
    if (rc != SEC_S_OK) {
        std::free(out);
        return rc;
    }
    *signature = {SEC_KEYED_DIGEST_LENGTH, out};
    return SEC_S_OK;
}

int sec_process_message(sec_buffer_t key, unsigned int flags, sec_buffer_t message,
                        sec_buffer_t signature) {
    int rc = checkArguments(key, flags, message, signature);
    if (rc != SEC_S_OK) {
        return rc;
    }
    if (signature->length != SEC_KEYED_DIGEST_LENGTH || signature->value == nullptr) {
        return SEC_E_SIGNATURE;
    }
    unsigned char expected[SEC_KEYED_DIGEST_LENGTH];
    rc = digest(key, message, expected);
    if (rc == SEC_S_OK && CRYPTO_memcmp(expected, signature->value, SEC_KEYED_DIGEST_LENGTH) != 0) {
        rc = SEC_E_SIGNATURE;
    }
    OPENSSL_cleanse(expected, sizeof expected);
    return rc;
}

void sec_release_buffer(sec_buffer_t buffer) {
    if (buffer == nullptr) {
        return;
    }
    if (buffer->value != nullptr) {
        OPENSSL_cleanse(buffer->value, buffer->length);
        std::free(buffer->value);
    }
    *buffer = {0, nullptr};
}
