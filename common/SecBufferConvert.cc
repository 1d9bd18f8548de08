#include "common/SecBufferConvert.h"

#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/WexTrace.h"

namespace WEX_COMMON {

char* SecBufferConvert::convertKeyToASCII(void* key, int length) {
    wexTrace("WEX_COMMON::SecBufferConvert::convertKeyToASCII(key,%d) called", length);
    if (length <= 0 || key == nullptr) {
        return nullptr;
    }
    size_t chars = 2 * static_cast<size_t>(length);
    char* out = new (std::nothrow) char[chars + 1];
    if (out == nullptr) {
        return nullptr;
    }
    const auto* bytes = static_cast<const unsigned char*>(key);
    char pair[3];
    for (int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        std::memcpy(out + 2 * static_cast<size_t>(i), pair, 2);
    }
    out[chars] = '\0';
    OPENSSL_cleanse(pair, sizeof pair);  // held key material
    wexTrace("SecBufferConvert::convertKeyToASCII, returnString=[%s]", out);
    return out;
}

void* SecBufferConvert::convertASCIIToKey(char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    size_t n = std::strlen(text);
    wexTrace("convertASCIIToKey(%s) called, converting %d bytes", text, static_cast<int>(n));
    auto* out = new (std::nothrow) unsigned char[n]();
    if (out == nullptr) {
        return nullptr;
    }
    char pair[3];
    for (size_t i = 0; i < n; i += 2) {
        // The terminator stands in for the partner of an odd last character.
        std::snprintf(pair, sizeof pair, "%c%c", text[i], text[i + 1]);
        out[i / 2] = static_cast<unsigned char>(std::strtoul(pair, nullptr, 16) & 0xff);
        wexTrace("after strtoul %x\n", out[i / 2]);
    }
    OPENSSL_cleanse(pair, sizeof pair);
    return out;
}

}  // namespace WEX_COMMON
