// The frame's shared secret as the node agent is given it: lower-case or
// upper-case hex text (as "orvctl key add" prints it), from a file or an
// option. Every buffer that held it is overwritten with zeros before it
// goes; the secret is never logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvnode {

class Secret {
public:
    Secret() = default;
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    Secret(Secret&& o) noexcept;
    Secret& operator=(Secret&& o) noexcept;
    ~Secret() { wipe(); }

    // From hex text (blanks and a final newline around it are ignored).
    // False, with `why` (never the text), when it is not 2 to 1024 hex digits
    // of whole bytes.
    static bool fromHex(const std::string& text, Secret* out, std::string* why);
    // From a file holding the hex text. The file is read bounded (4 KiB);
    // false with `why` when it cannot be read, is larger, or does not hold a secret.
    static bool fromFile(const std::string& path, Secret* out, std::string* why);

    const std::vector<uint8_t>& bytes() const { return bytes_; }
    bool empty() const { return bytes_.empty(); }
    void wipe();

private:
    std::vector<uint8_t> bytes_;
};

// Overwrite with zeros (not optimised away) and empty.
void wipeString(std::string& s);
void wipeBytes(std::vector<uint8_t>& b);

}  // namespace orvnode
