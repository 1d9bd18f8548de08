// The monitoring service's value types, in their C layouts: the type codes,
// the 8-byte value union, arrays, binaries, structured data and resource
// handles. Requests, responses, registry rows and signed data all carry these.
// Memory: values built with the zn_* helpers below are malloc'ed in one block
// per array/binary/structured value (strings separately) and released with
// zn_value_free; zn_value_dup makes a deep copy the caller owns.
#pragma once

#include <cstddef>
#include <cstdint>

enum zn_data_type_t : int32_t {
    ZN_UNKNOWN = 0,
    ZN_NONE = 1,
    ZN_INT32 = 2,
    ZN_UINT32 = 3,
    ZN_INT64 = 4,
    ZN_UINT64 = 5,
    ZN_FLOAT32 = 6,
    ZN_FLOAT64 = 7,
    ZN_CHAR_PTR = 8,
    ZN_BINARY_PTR = 9,
    ZN_RSRC_HANDLE_PTR = 10,
    ZN_SD_PTR = 11,
    ZN_INT32_ARRAY = 13,
    ZN_UINT32_ARRAY = 14,
    ZN_INT64_ARRAY = 15,
    ZN_UINT64_ARRAY = 16,
    ZN_FLOAT32_ARRAY = 17,
    ZN_FLOAT64_ARRAY = 18,
    ZN_CHAR_PTR_ARRAY = 19,
    ZN_BINARY_PTR_ARRAY = 20,
    ZN_RSRC_HANDLE_PTR_ARRAY = 21,
    ZN_SD_PTR_ARRAY = 22,
};

// The types a value may have, on the wire and in the registry alike: 2..11
// and their arrays 13..22. (The wire adds 0 and 1 for an absent value.)
bool zn_is_value_type(zn_data_type_t t);

// How deep structured data may nest, everywhere values travel or are kept:
// a structured value counts one level, and each structured value inside it
// one more; arrays add no level of their own.
inline constexpr int kZnMaxSdNesting = 8;

// True for the array codes; zn_array_element_type gives the element's code.
bool zn_is_array_type(zn_data_type_t t);
zn_data_type_t zn_array_element_type(zn_data_type_t arrayType);
zn_data_type_t zn_array_type_of(zn_data_type_t elementType);  // ZN_UNKNOWN if none
// A type code the service knows ("ZN_UINT64_ARRAY" style name, or null).
const char* zn_data_type_name(zn_data_type_t t);

// A resource handle: 20 opaque bytes, compared and copied whole.
struct zn_resource_handle {
    unsigned char bytes[20];
};
static_assert(sizeof(zn_resource_handle) == 20);
bool operator==(const zn_resource_handle& a, const zn_resource_handle& b);

struct zn_binary;
struct zn_array;
struct zn_structured_data;

union zn_value_t {
    int32_t val_int32;
    uint32_t val_uint32;
    int64_t val_int64;
    uint64_t val_uint64;
    float val_float32;
    double val_float64;
    char* ptr_char;
    zn_binary* ptr_binary;
    zn_resource_handle* ptr_rsrc_handle;
    zn_structured_data* ptr_sd;
    zn_array* ptr_array;
};
static_assert(sizeof(zn_value_t) == 8);

// A length followed by the bytes, in one allocation.
struct zn_binary {
    uint32_t length;
    unsigned char data[1];
};

// A count followed by 8-byte elements, in one allocation (elements at offset 8).
struct zn_array {
    uint32_t array_cnt;
    zn_value_t elements[1];
};
static_assert(offsetof(zn_array, elements) == 8);

struct zn_structured_data_element_t {
    zn_data_type_t data_type;
    zn_value_t value;
};

struct zn_structured_data {
    uint32_t element_count;
    zn_structured_data_element_t elements[1];
};

// Allocation helpers (malloc; null on allocation failure).
zn_binary* zn_binary_new(const void* data, uint32_t length);
size_t zn_binary_size(uint32_t length);
zn_array* zn_array_new(uint32_t count);         // elements zeroed
zn_structured_data* zn_sd_new(uint32_t count);  // elements ZN_UNKNOWN
// Deep copy of a value of type t (strings, binaries, handles, arrays, SD).
// Returns false on allocation failure (out is then zeroed).
bool zn_value_dup(zn_data_type_t t, const zn_value_t& in, zn_value_t& out);
// Releases what a value of type t owns; scalars are left alone.
void zn_value_free(zn_data_type_t t, zn_value_t& v);
// Deep equality of two values of type t (strings by text, arrays element-wise).
bool zn_value_equal(zn_data_type_t t, const zn_value_t& a, const zn_value_t& b);
