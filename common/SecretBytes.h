// Secret bytes (the frames' shared keys) and the helpers every holder of a
// secret uses: buffers are overwritten with zeros, in a way the compiler
// keeps, before they go; hex text is read into bytes without copies left
// behind. Secrets are never logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/security/sec_message.h"

namespace WEX_COMMON {

// Bytes that are wiped when they go.
class SecretBytes {
public:
    SecretBytes() = default;
    explicit SecretBytes(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    SecretBytes(SecretBytes&& o) noexcept : bytes_(std::move(o.bytes_)) {}
    SecretBytes& operator=(SecretBytes&& o) noexcept;
    ~SecretBytes() { wipe(); }
    void wipe();
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    bool empty() const { return bytes_.empty(); }
    // A view for the security library (valid while this object lives).
    sec_buffer_s buffer() { return {static_cast<uint32_t>(bytes_.size()), bytes_.data()}; }

private:
    std::vector<uint8_t> bytes_;
};

// Overwrite with zeros and empty.
void wipeString(std::string& s);
void wipeBytes(std::vector<uint8_t>& b);

// Bytes from `n` hex digits (either case) at `s`: false when n is 0 or odd
// or a character is not a hex digit (what was read is then wiped).
bool secretFromHex(const char* s, size_t n, SecretBytes* out);

}  // namespace WEX_COMMON
