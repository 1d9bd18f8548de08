// The value of one hex digit (either case), for the parsers of keys,
// secrets and selection literals: 0 to 15, or -1 for any other character.
#pragma once

namespace zn {

constexpr int hexDigitValue(char c) {
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

}  // namespace zn
