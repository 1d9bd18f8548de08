// Signing and verifying structured data with a frame's shared secret key, and
// moving signatures between the security library's buffers and binary
// values. Signing and verifying marshal the elements (MarshalSD.h) and hand
// the bytes to sec_prepare_message / sec_process_message with flags
// SEC_F_KEYED_DIGEST. Stateless and thread-safe; the key must not change
// during a call.
#pragma once

#include "platform/security/sec_message.h"
#include "platform/zn_types.h"

namespace WEX_COMMON {

// The signing mechanism every signature of structured data uses.
inline constexpr unsigned int kSignFlags = SEC_F_KEYED_DIGEST;

// Signs the elements with `key` into `signature` (a new malloc'ed buffer the
// caller releases with sec_release_buffer). 0 success; -1, -2, -3, -4 for
// marshalSD results 1 to 4; otherwise the security library's code.
int signSD(zn_structured_data_element_t* data, int count, sec_buffer_s* key,
           sec_buffer_s* signature);

// Checks `signature` over the elements with `key`: 0 good; marshalSD results
// 1 to 4 as they are; 5 rejected (including any security library failure).
unsigned int verifySD(zn_structured_data_element_t* data, int count, sec_buffer_s* key,
                      sec_buffer_s* signature);

// A new malloc'ed zn_binary holding the source bytes, in `dst` (the caller
// frees it). 0 success; 1 allocation failure or unusable source (dst null).
unsigned int sec2binary(sec_buffer_s* src, zn_binary*& dst);

// Points `dst` at the data of `src` (no copy): it is valid only while `src`
// lives. A null source gives {0, null}; a null destination is ignored.
void binary2sec(zn_binary* src, sec_buffer_s* dst);

}  // namespace WEX_COMMON
