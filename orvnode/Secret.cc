#include "orvnode/Secret.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orvnode {
namespace {

constexpr size_t kMaxFile = 4096;
constexpr size_t kMaxHexDigits = 1024;

void wipeBytes(void* p, size_t n) {
    volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
    while (n-- > 0) {
        *v++ = 0;
    }
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

void wipeString(std::string& s) {
    wipeBytes(s.data(), s.size());
    s.clear();
}

void wipeBytes(std::vector<uint8_t>& b) {
    wipeBytes(b.data(), b.size());
    b.clear();
}

Secret::Secret(Secret&& o) noexcept : bytes_(std::move(o.bytes_)) {}

Secret& Secret::operator=(Secret&& o) noexcept {
    if (this != &o) {
        wipe();
        bytes_ = std::move(o.bytes_);
    }
    return *this;
}

void Secret::wipe() {
    wipeBytes(bytes_.data(), bytes_.size());
    bytes_.clear();
}

bool Secret::fromHex(const std::string& text, Secret* out, std::string* why) {
    size_t begin = text.find_first_not_of(" \t\r\n");
    size_t end = text.find_last_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        *why = "the secret is empty";
        return false;
    }
    size_t digits = end - begin + 1;
    if (digits % 2 != 0 || digits > kMaxHexDigits) {
        *why = "the secret must be an even number of hex digits, at most " +
               std::to_string(kMaxHexDigits);
        return false;
    }
    Secret s;
    s.bytes_.resize(digits / 2);
    for (size_t i = 0; i < digits / 2; ++i) {
        int hi = hexValue(text[begin + 2 * i]);
        int lo = hexValue(text[begin + 2 * i + 1]);
        if (hi < 0 || lo < 0) {
            *why = "the secret holds a character that is not a hex digit";
            return false;  // s wipes what it took
        }
        s.bytes_[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    *out = std::move(s);
    return true;
}

bool Secret::fromFile(const std::string& path, Secret* out, std::string* why) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        *why = "cannot open the secret file " + path + ": " + std::strerror(errno);
        return false;
    }
    std::string text(kMaxFile + 1, '\0');
    size_t have = 0;
    while (have < text.size()) {
        ssize_t n = ::read(fd, text.data() + have, text.size() - have);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *why = "cannot read the secret file " + path + ": " + std::strerror(errno);
            ::close(fd);
            wipeString(text);
            return false;
        }
        if (n == 0) {
            break;
        }
        have += static_cast<size_t>(n);
    }
    ::close(fd);
    if (have > kMaxFile) {
        wipeString(text);
        *why = "the secret file " + path + " is larger than " + std::to_string(kMaxFile) + " bytes";
        return false;
    }
    text.resize(have);
    bool ok = fromHex(text, out, why);
    wipeString(text);
    if (!ok) {
        *why = "the secret file " + path + " does not hold a secret: " + *why;
    }
    return ok;
}

}  // namespace orvnode
