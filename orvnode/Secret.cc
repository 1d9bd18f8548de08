#include "orvnode/Secret.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orvnode {
namespace {

constexpr size_t kMaxFile = 4096;
constexpr size_t kMaxHexDigits = 1024;

}  // namespace

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
    if (!WEX_COMMON::secretFromHex(text.data() + begin, digits, &out->bytes_)) {
        *why = "the secret holds a character that is not a hex digit";
        return false;
    }
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
