// One column of a registry table as a class declares it: the attribute's name,
// data type, default value and the framework's property mask. A class keeps a
// static array of these; the table copies what it needs, so the array and the
// strings it points to only have to live through the create call.
#pragma once

#include <cstdint>

#include "platform/zn_types.h"

namespace tarn_rmf {

struct RMPersAttrDefs {
    const char* name;
    zn_data_type_t dataType;
    zn_value_t defaultValue;  // of dataType; pointers may be null (empty default)
    uint32_t properties;
};

// Default-value helpers for static definition tables.
constexpr zn_value_t rmNoDefault() {
    return zn_value_t{.val_uint64 = 0};
}
constexpr zn_value_t rmIntDefault(int32_t v) {
    return zn_value_t{.val_int32 = v};
}
constexpr zn_value_t rmUintDefault(uint32_t v) {
    return zn_value_t{.val_uint32 = v};
}
constexpr zn_value_t rmInt64Default(int64_t v) {
    return zn_value_t{.val_int64 = v};
}
constexpr zn_value_t rmUint64Default(uint64_t v) {
    return zn_value_t{.val_uint64 = v};
}
constexpr zn_value_t rmDoubleDefault(double v) {
    return zn_value_t{.val_float64 = v};
}
// The table copies the text; the literal is never written through.
inline zn_value_t rmStrDefault(const char* s) {
    return zn_value_t{.ptr_char = const_cast<char*>(s)};
}

}  // namespace tarn_rmf
