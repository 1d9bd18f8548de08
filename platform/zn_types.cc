#include "platform/zn_types.h"

#include <cstdlib>
#include <cstring>

namespace {

bool isArrayCode(int32_t t) {
    return t >= ZN_INT32_ARRAY && t <= ZN_SD_PTR_ARRAY;
}

}  // namespace

bool zn_is_array_type(zn_data_type_t t) {
    return isArrayCode(t);
}

bool zn_is_value_type(zn_data_type_t t) {
    return (t >= ZN_INT32 && t <= ZN_SD_PTR) || isArrayCode(t);
}

zn_data_type_t zn_array_element_type(zn_data_type_t arrayType) {
    if (!isArrayCode(arrayType)) {
        return ZN_UNKNOWN;
    }
    return static_cast<zn_data_type_t>(arrayType - ZN_INT32_ARRAY + ZN_INT32);
}

zn_data_type_t zn_array_type_of(zn_data_type_t elementType) {
    if (elementType < ZN_INT32 || elementType > ZN_SD_PTR) {
        return ZN_UNKNOWN;
    }
    return static_cast<zn_data_type_t>(elementType - ZN_INT32 + ZN_INT32_ARRAY);
}

const char* zn_data_type_name(zn_data_type_t t) {
    static const char* const names[] = {"ZN_UNKNOWN",
                                        "ZN_NONE",
                                        "ZN_INT32",
                                        "ZN_UINT32",
                                        "ZN_INT64",
                                        "ZN_UINT64",
                                        "ZN_FLOAT32",
                                        "ZN_FLOAT64",
                                        "ZN_CHAR_PTR",
                                        "ZN_BINARY_PTR",
                                        "ZN_RSRC_HANDLE_PTR",
                                        "ZN_SD_PTR",
                                        nullptr,
                                        "ZN_INT32_ARRAY",
                                        "ZN_UINT32_ARRAY",
                                        "ZN_INT64_ARRAY",
                                        "ZN_UINT64_ARRAY",
                                        "ZN_FLOAT32_ARRAY",
                                        "ZN_FLOAT64_ARRAY",
                                        "ZN_CHAR_PTR_ARRAY",
                                        "ZN_BINARY_PTR_ARRAY",
                                        "ZN_RSRC_HANDLE_PTR_ARRAY",
                                        "ZN_SD_PTR_ARRAY"};
    if (t < 0 || static_cast<size_t>(t) >= sizeof(names) / sizeof(names[0])) {
        return nullptr;
    }
    return names[t];
}

bool operator==(const zn_resource_handle& a, const zn_resource_handle& b) {
    return std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
}

size_t zn_binary_size(uint32_t length) {
    size_t s = offsetof(zn_binary, data) + length;
    return s < sizeof(zn_binary) ? sizeof(zn_binary) : s;
}

zn_binary* zn_binary_new(const void* data, uint32_t length) {
    auto* b = static_cast<zn_binary*>(std::calloc(1, zn_binary_size(length)));
    if (b == nullptr) {
        return nullptr;
    }
    b->length = length;
    if (length > 0 && data != nullptr) {
        std::memcpy(b->data, data, length);
    }
    return b;
}

zn_array* zn_array_new(uint32_t count) {
    size_t s = offsetof(zn_array, elements) + sizeof(zn_value_t) * (count == 0 ? 1 : count);
    auto* a = static_cast<zn_array*>(std::calloc(1, s));
    if (a != nullptr) {
        a->array_cnt = count;
    }
    return a;
}

zn_structured_data* zn_sd_new(uint32_t count) {
    size_t s = offsetof(zn_structured_data, elements) +
               sizeof(zn_structured_data_element_t) * (count == 0 ? 1 : count);
    auto* sd = static_cast<zn_structured_data*>(std::calloc(1, s));
    if (sd != nullptr) {
        sd->element_count = count;
    }
    return sd;
}

bool zn_value_dup(zn_data_type_t t, const zn_value_t& in, zn_value_t& out) {
    out.val_uint64 = 0;
    switch (t) {
        case ZN_CHAR_PTR:
            if (in.ptr_char == nullptr) {
                return true;
            }
            out.ptr_char = strdup(in.ptr_char);
            return out.ptr_char != nullptr;
        case ZN_BINARY_PTR:
            if (in.ptr_binary == nullptr) {
                return true;
            }
            out.ptr_binary = zn_binary_new(in.ptr_binary->data, in.ptr_binary->length);
            return out.ptr_binary != nullptr;
        case ZN_RSRC_HANDLE_PTR:
            if (in.ptr_rsrc_handle == nullptr) {
                return true;
            }
            out.ptr_rsrc_handle =
                static_cast<zn_resource_handle*>(std::malloc(sizeof(zn_resource_handle)));
            if (out.ptr_rsrc_handle == nullptr) {
                return false;
            }
            *out.ptr_rsrc_handle = *in.ptr_rsrc_handle;
            return true;
        case ZN_SD_PTR: {
            if (in.ptr_sd == nullptr) {
                return true;
            }
            zn_structured_data* sd = zn_sd_new(in.ptr_sd->element_count);
            if (sd == nullptr) {
                return false;
            }
            for (uint32_t i = 0; i < in.ptr_sd->element_count; ++i) {
                sd->elements[i].data_type = in.ptr_sd->elements[i].data_type;
                if (!zn_value_dup(in.ptr_sd->elements[i].data_type, in.ptr_sd->elements[i].value,
                                  sd->elements[i].value)) {
                    sd->element_count = i;
                    zn_value_t tmp;
                    tmp.ptr_sd = sd;
                    zn_value_free(ZN_SD_PTR, tmp);
                    return false;
                }
            }
            out.ptr_sd = sd;
            return true;
        }
        default:
            break;
    }
    if (!isArrayCode(t)) {
        out = in;
        return true;
    }
    if (in.ptr_array == nullptr) {
        return true;
    }
    zn_data_type_t et = zn_array_element_type(t);
    zn_array* a = zn_array_new(in.ptr_array->array_cnt);
    if (a == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < in.ptr_array->array_cnt; ++i) {
        if (!zn_value_dup(et, in.ptr_array->elements[i], a->elements[i])) {
            a->array_cnt = i;
            zn_value_t tmp;
            tmp.ptr_array = a;
            zn_value_free(t, tmp);
            return false;
        }
    }
    out.ptr_array = a;
    return true;
}

void zn_value_free(zn_data_type_t t, zn_value_t& v) {
    switch (t) {
        case ZN_CHAR_PTR:
            std::free(v.ptr_char);
            break;
        case ZN_BINARY_PTR:
            std::free(v.ptr_binary);
            break;
        case ZN_RSRC_HANDLE_PTR:
            std::free(v.ptr_rsrc_handle);
            break;
        case ZN_SD_PTR:
            if (v.ptr_sd != nullptr) {
                for (uint32_t i = 0; i < v.ptr_sd->element_count; ++i) {
                    zn_value_free(v.ptr_sd->elements[i].data_type, v.ptr_sd->elements[i].value);
                }
                std::free(v.ptr_sd);
            }
            break;
        default:
            if (!isArrayCode(t)) {
                return;
            }
            if (v.ptr_array != nullptr) {
                zn_data_type_t et = zn_array_element_type(t);
                for (uint32_t i = 0; i < v.ptr_array->array_cnt; ++i) {
                    zn_value_free(et, v.ptr_array->elements[i]);
                }
                std::free(v.ptr_array);
            }
            break;
    }
    v.val_uint64 = 0;
}

bool zn_value_equal(zn_data_type_t t, const zn_value_t& a, const zn_value_t& b) {
    switch (t) {
        case ZN_INT32:
        case ZN_UINT32:
            return a.val_uint32 == b.val_uint32;
        case ZN_INT64:
        case ZN_UINT64:
            return a.val_uint64 == b.val_uint64;
        case ZN_FLOAT32:
            return a.val_float32 == b.val_float32;
        case ZN_FLOAT64:
            return a.val_float64 == b.val_float64;
        case ZN_CHAR_PTR:
            if (a.ptr_char == nullptr || b.ptr_char == nullptr) {
                return a.ptr_char == b.ptr_char;
            }
            return std::strcmp(a.ptr_char, b.ptr_char) == 0;
        case ZN_BINARY_PTR:
            if (a.ptr_binary == nullptr || b.ptr_binary == nullptr) {
                return a.ptr_binary == b.ptr_binary;
            }
            return a.ptr_binary->length == b.ptr_binary->length &&
                   std::memcmp(a.ptr_binary->data, b.ptr_binary->data, a.ptr_binary->length) == 0;
        case ZN_RSRC_HANDLE_PTR:
            if (a.ptr_rsrc_handle == nullptr || b.ptr_rsrc_handle == nullptr) {
                return a.ptr_rsrc_handle == b.ptr_rsrc_handle;
            }
            return *a.ptr_rsrc_handle == *b.ptr_rsrc_handle;
        case ZN_SD_PTR: {
            if (a.ptr_sd == nullptr || b.ptr_sd == nullptr) {
                return a.ptr_sd == b.ptr_sd;
            }
            if (a.ptr_sd->element_count != b.ptr_sd->element_count) {
                return false;
            }
            for (uint32_t i = 0; i < a.ptr_sd->element_count; ++i) {
                const auto& x = a.ptr_sd->elements[i];
                const auto& y = b.ptr_sd->elements[i];
                if (x.data_type != y.data_type || !zn_value_equal(x.data_type, x.value, y.value)) {
                    return false;
                }
            }
            return true;
        }
        default:
            break;
    }
    if (!isArrayCode(t)) {
        return a.val_uint64 == b.val_uint64;
    }
    if (a.ptr_array == nullptr || b.ptr_array == nullptr) {
        return a.ptr_array == b.ptr_array;
    }
    if (a.ptr_array->array_cnt != b.ptr_array->array_cnt) {
        return false;
    }
    zn_data_type_t et = zn_array_element_type(t);
    for (uint32_t i = 0; i < a.ptr_array->array_cnt; ++i) {
        if (!zn_value_equal(et, a.ptr_array->elements[i], b.ptr_array->elements[i])) {
            return false;
        }
    }
    return true;
}
