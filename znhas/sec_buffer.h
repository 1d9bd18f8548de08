// The platform security buffer: a length and a pointer to bytes (keys,
// signatures, tokens). Whoever allocated the bytes says how they are released.
// The platform security library declares it where that library is present;
// this is the same definition for builds without it.
#pragma once

#if __has_include("platform/security/sec_message.h")
#include "platform/security/sec_message.h"
#else
#include <cstdint>

struct sec_buffer_s {
    uint32_t length;
    void* value;
};
typedef sec_buffer_s* sec_buffer_t;
#endif
