// Flattens structured-data elements into the byte string that signers and
// verifiers feed to the signing mechanism. The layout is a wire contract:
// in index order, each 32/64-bit integer as its decimal text ("%i", "%u",
// "%lli", "%llu"), each string's characters, each binary's data bytes, with
// no separators, tags, lengths or terminators; every other type (floats,
// handles, nested data, arrays) adds nothing. Stateless and thread-safe.
#pragma once

#include "platform/security/sec_message.h"
#include "platform/zn_types.h"

namespace WEX_COMMON {

// marshalSD results.
enum : unsigned int {
    MARSHAL_OK = 0,
    MARSHAL_NO_DATA = 1,    // null elements or count below 1
    MARSHAL_EMPTY = 3,      // the elements marshal to nothing
    MARSHAL_NO_MEMORY = 4,  // allocation failed (or the result exceeds 4 GiB)
};

// Marshals `count` elements into `out`: on success out.value is a new malloc'ed
// buffer of out.length bytes that the caller frees. Results 1 and 3 leave
// `out` untouched; result 4 sets it to {0, null}. Null string and binary
// pointers add nothing, like empty ones.
unsigned int marshalSD(zn_structured_data_element_t* data, int count, sec_buffer_s& out);

}  // namespace WEX_COMMON
