// A non-owning, typed view of one attribute value, taken either from a
// zn_value_t or from a packed registry row, so the selection evaluator reads
// both without copying. A view is valid while what it points into lives (the
// row snapshot or the caller's value); it is a plain value, not thread-bound.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/zn_types.h"

namespace tarn_rmf {

struct RMValueView {
    zn_data_type_t type = ZN_UNKNOWN;
    // Scalars widened: signed types in i, unsigned in u, floats in f.
    union {
        int64_t i;
        uint64_t u;
        double f;
    } num{};
    // Strings: the text (NUL-terminated); binaries: the bytes; handles: 20
    // bytes; arrays and structured data: the first element.
    const unsigned char* data = nullptr;
    uint32_t len = 0;     // text or binary length; element count of arrays and SD
    bool isNull = false;  // a null pointer value (reads as empty)
    bool packed = false;  // array/SD elements are packed bytes, else zn_value_t

    std::string_view text() const {
        return {reinterpret_cast<const char*>(data), data != nullptr ? len : 0u};
    }
};

// The view of a zn_value_t of type t (pointer values are not copied).
RMValueView rmViewOf(zn_data_type_t t, const zn_value_t& v);

// True for the integer and floating-point scalar types.
bool rmIsNumericType(zn_data_type_t t);
bool rmIsFloatType(zn_data_type_t t);
bool rmIsSignedType(zn_data_type_t t);

// Walks the elements of an array view in order.
class RMArrayCursor {
public:
    explicit RMArrayCursor(const RMValueView& array);
    // Next element into `out`; false when none is left.
    bool next(RMValueView& out);

private:
    zn_data_type_t elementType_;
    const unsigned char* pos_;
    uint32_t left_;
    bool packed_;
};

}  // namespace tarn_rmf
