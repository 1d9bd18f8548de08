// Host identifier tokens: creation, release, parsing, printing and building
// from hexadecimal text.
#include "znhas/sec_token.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hex.h"
#include "znhas/sec_file.h"
#include "znhas/sec_messages.h"
#include "znhas/znhas.h"

namespace znhas {

bool validTokenType(uint32_t type) {
    return type >= static_cast<uint32_t>(SEC_TOKEN_TYPE_MIN) &&
           type <= static_cast<uint32_t>(SEC_TOKEN_TYPE_MAX);
}

bool checkToken(sec_buffer_t token, uint32_t* type, const uint8_t** key, size_t* keylen) {
    if (token == nullptr || token->value == nullptr || token->length <= kTokenHead ||
        token->length - kTokenHead > kMaxKeyLength) {
        return false;
    }
    const auto* p = static_cast<const uint8_t*>(token->value);
    uint32_t magic = getBe32(p);
    uint32_t t = getBe32(p + 4);
    if ((magic & 0xFFFF0000U) != SEC_TOKEN_FAMILY || (magic & 0xFFFFU) != 1 || !validTokenType(t)) {
        return false;
    }
    *type = t;
    *key = p + kTokenHead;
    *keylen = token->length - kTokenHead;
    return true;
}

int makeToken(const char* fn, uint32_t type, const uint8_t* key, size_t keylen,
              sec_buffer_t* token) {
    auto* buf = static_cast<sec_buffer_t>(std::malloc(sizeof(sec_buffer_s)));
    auto* bytes = static_cast<uint8_t*>(std::malloc(kTokenHead + keylen));
    if (buf == nullptr || bytes == nullptr) {
        std::free(buf);
        std::free(bytes);
        return secNoMemory(fn, kTokenHead + keylen);
    }
    putBe32(bytes, SEC_TOKEN_MAGIC);
    putBe32(bytes + 4, type);
    std::memcpy(bytes + kTokenHead, key, keylen);
    buf->length = static_cast<uint32_t>(kTokenHead + keylen);
    buf->value = bytes;
    *token = buf;
    return 0;
}

}  // namespace znhas

using znhas::secBadParam;

int sec_create_host_token(const char* hostname, int keylen, const unsigned char* key, int keytype,
                          sec_buffer_t* token) {
    static const char fn[] = "sec_create_host_token";
    if (hostname == nullptr || *hostname == '\0') {
        return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (keylen <= 0 || static_cast<size_t>(keylen) > znhas::kMaxKeyLength) {
        return secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    if (key == nullptr) {
        return secBadParam(fn, 3, ZNHAS_E_BADPARAM);
    }
    if (!znhas::validTokenType(static_cast<uint32_t>(keytype))) {
        return secBadParam(fn, 4, ZNHAS_E_BADPARAM);
    }
    if (token == nullptr || *token != nullptr) {
        return secBadParam(fn, 5, ZNHAS_E_BADPARAM);
    }
    return znhas::makeToken(fn, static_cast<uint32_t>(keytype), key, static_cast<size_t>(keylen),
                            token);
}

int sec_release_host_token(sec_buffer_t* token) {
    if (token == nullptr || *token == nullptr) {
        return 0;
    }
    sec__safe_free((*token)->value, (*token)->length);
    sec__safe_free(*token, sizeof(sec_buffer_s));
    *token = nullptr;
    return 0;
}

int sec_parse_host_token(sec_buffer_t token, int* keylen, sec_host_token_t* parsed) {
    static const char fn[] = "sec_parse_host_token";
    uint32_t type = 0;
    const uint8_t* key = nullptr;
    size_t len = 0;
    if (!znhas::checkToken(token, &type, &key, &len)) {
        return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (keylen == nullptr) {
        return secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    if (parsed == nullptr) {
        return secBadParam(fn, 3, ZNHAS_E_BADPARAM);
    }
    // One allocation: the head, then the key it points at.
    auto* copy = static_cast<sec_host_token_t>(std::malloc(sizeof(sec_host_token_s) + len));
    if (copy == nullptr) {
        return znhas::secNoMemory(fn, sizeof(sec_host_token_s) + len);
    }
    copy->sht_magic = znhas::getBe32(static_cast<const uint8_t*>(token->value));
    copy->sht_type = type;
    copy->sht_keylen = static_cast<uint32_t>(len);
    copy->sht_key = reinterpret_cast<unsigned char*>(copy + 1);
    std::memcpy(copy->sht_key, key, len);
    *keylen = static_cast<int>(len);
    *parsed = copy;
    return 0;
}

int sec_release_parsed_token(sec_host_token_t* parsed) {
    if (parsed == nullptr || *parsed == nullptr) {
        return 0;
    }
    sec__safe_free(*parsed, sizeof(sec_host_token_s) + (*parsed)->sht_keylen);
    *parsed = nullptr;
    return 0;
}

int sec_print_host_token(sec_buffer_t token, char** keytext, char** typetext) {
    static const char fn[] = "sec_print_host_token";
    uint32_t type = 0;
    const uint8_t* key = nullptr;
    size_t len = 0;
    if (!znhas::checkToken(token, &type, &key, &len)) {
        return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (keytext == nullptr) {
        return secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    if (typetext == nullptr) {
        return secBadParam(fn, 3, ZNHAS_E_BADPARAM);
    }
    const char* name = type == static_cast<uint32_t>(SEC_KEYTYPE_RSA512)    ? "rsa512"
                       : type == static_cast<uint32_t>(SEC_KEYTYPE_RSA1024) ? "rsa1024"
                                                                            : "?";
    char* hex = static_cast<char*>(std::malloc(2 * len + 1));
    char* typ = strdup(name);
    if (hex == nullptr || typ == nullptr) {
        std::free(hex);
        std::free(typ);
        return znhas::secNoMemory(fn, 2 * len + 1);
    }
    for (size_t i = 0; i < len; ++i) {
        std::snprintf(hex + 2 * i, 3, "%02x", key[i]);
    }
    hex[2 * len] = '\0';
    *keytext = hex;
    *typetext = typ;
    return 0;
}

int sec_set_host_token(const char* keytext, int keytype, sec_buffer_t* token) {
    static const char fn[] = "sec_set_host_token";
    if (keytext == nullptr || *keytext == '\0') {
        return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (!znhas::validTokenType(static_cast<uint32_t>(keytype))) {
        return secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    if (token == nullptr || *token != nullptr) {
        return secBadParam(fn, 3, ZNHAS_E_BADPARAM);
    }
    // Bounded scan: text longer than the longest key is refused unread.
    size_t digits = strnlen(keytext, 2 * znhas::kMaxKeyLength + 1);
    if (digits > 2 * znhas::kMaxKeyLength) {
        return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (digits % 2 != 0) {
        return secBadParam(fn, 1, ZNHAS_E_ODDHEX);
    }
    znhas::SecureBytes key(digits / 2);
    for (size_t i = 0; i < key.size(); ++i) {
        int hi = zn::hexDigitValue(keytext[2 * i]);
        int lo = zn::hexDigitValue(keytext[2 * i + 1]);
        if (hi < 0 || lo < 0) {
            return secBadParam(fn, 1, ZNHAS_E_BADPARAM);
        }
        key[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    return znhas::makeToken(fn, static_cast<uint32_t>(keytype), key.data(), key.size(), token);
}
