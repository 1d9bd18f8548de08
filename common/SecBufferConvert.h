// Raw keys as printable lower-case hexadecimal text and back, for handing a
// key to a command line. Results are new[]'ed arrays that the caller
// releases with delete[] (after overwriting key bytes with zeros).
// Stateless and thread-safe.
#pragma once

namespace WEX_COMMON {

class SecBufferConvert {
  public:
    SecBufferConvert() {}

    // The 2 x length lower-case hex digits of the key and a terminator; null
    // when length is not positive or the key is null.
    char* convertKeyToASCII(void* key, int length);

    // The bytes of a hex text: an array of strlen(text) bytes (the key is the
    // first strlen(text)/2; the rest are zero). Each pair of characters is read
    // as an unsigned base-16 number and its low byte kept; the text is not
    // checked, so a non-hex pair yields its valid leading digits (0 for none)
    // and an odd last character stands alone. Null text gives null.
    void* convertASCIIToKey(char* text);
};

}  // namespace WEX_COMMON
