#include "common/SecretBytes.h"

#include "platform/hex.h"

namespace WEX_COMMON {
namespace {

void wipeMemory(void* p, size_t n) {
    volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
    while (n-- > 0) {
        *v++ = 0;
    }
}

}  // namespace

SecretBytes& SecretBytes::operator=(SecretBytes&& o) noexcept {
    if (this != &o) {
        wipe();
        bytes_ = std::move(o.bytes_);
    }
    return *this;
}

void SecretBytes::wipe() {
    wipeBytes(bytes_);
}

void wipeString(std::string& s) {
    wipeMemory(s.data(), s.size());
    s.clear();
}

void wipeBytes(std::vector<uint8_t>& b) {
    wipeMemory(b.data(), b.size());
    b.clear();
}

bool secretFromHex(const char* s, size_t n, SecretBytes* out) {
    if (n == 0 || n % 2 != 0) {
        return false;
    }
    std::vector<uint8_t> bytes(n / 2);
    for (size_t i = 0; i < n; i += 2) {
        int hi = zn::hexDigitValue(s[i]);
        int lo = zn::hexDigitValue(s[i + 1]);
        if (hi < 0 || lo < 0) {
            wipeBytes(bytes);
            return false;
        }
        bytes[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    *out = SecretBytes(std::move(bytes));
    return true;
}

}  // namespace WEX_COMMON
