// The frame's shared secret as the node agent is given it: lower-case or
// upper-case hex text (as "orvctl key add" prints it), from a file or an
// option. Every buffer that held it is overwritten with zeros before it
// goes; the secret is never logged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/SecretBytes.h"

namespace orvnode {

class Secret {
public:
    // From hex text (blanks and a final newline around it are ignored).
    // False, with `why` (never the text), when it is not 2 to 1024 hex digits
    // of whole bytes.
    static bool fromHex(const std::string& text, Secret* out, std::string* why);
    // From a file holding the hex text. The file is read bounded (4 KiB);
    // false with `why` when it cannot be read, is larger, or does not hold a secret.
    static bool fromFile(const std::string& path, Secret* out, std::string* why);

    const std::vector<uint8_t>& bytes() const { return bytes_.bytes(); }
    bool empty() const { return bytes_.empty(); }
    void wipe() { bytes_.wipe(); }

private:
    WEX_COMMON::SecretBytes bytes_;
};

using WEX_COMMON::wipeBytes;
using WEX_COMMON::wipeString;

}  // namespace orvnode
