// Builds owned typed values for codec tests: scalars, strings, binaries,
// handles, arrays and structured data, each a zn::OwnedValue that frees what
// it holds.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/zn_owned.h"

namespace testsupport::zv {

inline zn::OwnedValue scalar(zn_data_type_t t, uint64_t bits) {
    zn_value_t v;
    v.val_uint64 = bits;
    return zn::OwnedValue(t, v);
}
inline zn::OwnedValue i32(int32_t x) {
    zn_value_t v{};
    v.val_int32 = x;
    return zn::OwnedValue(ZN_INT32, v);
}
inline zn::OwnedValue u32(uint32_t x) {
    zn_value_t v{};
    v.val_uint32 = x;
    return zn::OwnedValue(ZN_UINT32, v);
}
inline zn::OwnedValue i64(int64_t x) {
    zn_value_t v{};
    v.val_int64 = x;
    return zn::OwnedValue(ZN_INT64, v);
}
inline zn::OwnedValue u64(uint64_t x) {
    zn_value_t v{};
    v.val_uint64 = x;
    return zn::OwnedValue(ZN_UINT64, v);
}
inline zn::OwnedValue f32(float x) {
    zn_value_t v{};
    v.val_float32 = x;
    return zn::OwnedValue(ZN_FLOAT32, v);
}
inline zn::OwnedValue f64(double x) {
    zn_value_t v{};
    v.val_float64 = x;
    return zn::OwnedValue(ZN_FLOAT64, v);
}
inline zn::OwnedValue str(const std::string& s) {
    zn_value_t v{};
    v.ptr_char = strdup(s.c_str());
    return zn::OwnedValue(ZN_CHAR_PTR, v);
}
inline zn::OwnedValue null(zn_data_type_t t) {
    zn_value_t v{};
    v.val_uint64 = 0;
    return zn::OwnedValue(t, v);
}
inline zn::OwnedValue bin(const std::string& bytes) {
    zn_value_t v{};
    v.ptr_binary = zn_binary_new(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return zn::OwnedValue(ZN_BINARY_PTR, v);
}
inline zn_resource_handle handleOf(unsigned char seed) {
    zn_resource_handle h{};
    for (size_t i = 0; i < sizeof h.bytes; ++i) {
        h.bytes[i] = static_cast<unsigned char>(seed + i * 13);
    }
    return h;
}
inline zn::OwnedValue handle(const zn_resource_handle& h) {
    zn_value_t v{};
    v.ptr_rsrc_handle = static_cast<zn_resource_handle*>(std::malloc(sizeof h));
    *v.ptr_rsrc_handle = h;
    return zn::OwnedValue(ZN_RSRC_HANDLE_PTR, v);
}
// Takes the elements' ownership.
inline zn::OwnedValue sd(std::vector<zn::OwnedValue> elems) {
    zn_value_t v{};
    v.ptr_sd = zn_sd_new(static_cast<uint32_t>(elems.size()));
    for (size_t i = 0; i < elems.size(); ++i) {
        v.ptr_sd->elements[i].data_type = elems[i].type();
        v.ptr_sd->elements[i].value = elems[i].release();
    }
    return zn::OwnedValue(ZN_SD_PTR, v);
}
// Elements must be of the array's element type.
inline zn::OwnedValue array(zn_data_type_t arrayType, std::vector<zn::OwnedValue> elems) {
    zn_value_t v{};
    v.ptr_array = zn_array_new(static_cast<uint32_t>(elems.size()));
    for (size_t i = 0; i < elems.size(); ++i) {
        v.ptr_array->elements[i] = elems[i].release();
    }
    return zn::OwnedValue(arrayType, v);
}
template <typename... T>
std::vector<zn::OwnedValue> list(T&&... v) {
    std::vector<zn::OwnedValue> out;
    (out.push_back(std::forward<T>(v)), ...);
    return out;
}

}  // namespace testsupport::zv
