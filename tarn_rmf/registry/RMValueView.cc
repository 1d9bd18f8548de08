#include "tarn_rmf/registry/RMValueView.h"

#include <cstring>

#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {

bool rmIsNumericType(zn_data_type_t t) {
    return t >= ZN_INT32 && t <= ZN_FLOAT64;
}
bool rmIsFloatType(zn_data_type_t t) {
    return t == ZN_FLOAT32 || t == ZN_FLOAT64;
}
bool rmIsSignedType(zn_data_type_t t) {
    return t == ZN_INT32 || t == ZN_INT64;
}

RMValueView rmViewOf(zn_data_type_t t, const zn_value_t& v) {
    RMValueView out;
    out.type = t;
    switch (t) {
        case ZN_INT32:
            out.num.i = v.val_int32;
            break;
        case ZN_UINT32:
            out.num.u = v.val_uint32;
            break;
        case ZN_INT64:
            out.num.i = v.val_int64;
            break;
        case ZN_UINT64:
            out.num.u = v.val_uint64;
            break;
        case ZN_FLOAT32:
            out.num.f = v.val_float32;
            break;
        case ZN_FLOAT64:
            out.num.f = v.val_float64;
            break;
        case ZN_CHAR_PTR:
            out.isNull = v.ptr_char == nullptr;
            out.data = reinterpret_cast<const unsigned char*>(v.ptr_char);
            out.len = out.isNull ? 0 : static_cast<uint32_t>(std::strlen(v.ptr_char));
            break;
        case ZN_BINARY_PTR:
            out.isNull = v.ptr_binary == nullptr;
            if (!out.isNull) {
                out.data = v.ptr_binary->data;
                out.len = v.ptr_binary->length;
            }
            break;
        case ZN_RSRC_HANDLE_PTR:
            out.isNull = v.ptr_rsrc_handle == nullptr;
            if (!out.isNull) {
                out.data = v.ptr_rsrc_handle->bytes;
                out.len = sizeof(zn_resource_handle);
            }
            break;
        case ZN_SD_PTR:
            out.isNull = v.ptr_sd == nullptr;
            if (!out.isNull) {
                out.data = reinterpret_cast<const unsigned char*>(v.ptr_sd->elements);
                out.len = v.ptr_sd->element_count;
            }
            break;
        default:
            if (zn_is_array_type(t)) {
                out.isNull = v.ptr_array == nullptr;
                if (!out.isNull) {
                    out.data = reinterpret_cast<const unsigned char*>(v.ptr_array->elements);
                    out.len = v.ptr_array->array_cnt;
                }
            }
            break;
    }
    return out;
}

RMArrayCursor::RMArrayCursor(const RMValueView& array)
    : elementType_(zn_array_element_type(array.type)),
      pos_(array.data),
      left_(array.isNull ? 0 : array.len),
      packed_(array.packed) {}

bool RMArrayCursor::next(RMValueView& out) {
    if (left_ == 0) {
        return false;
    }
    --left_;
    if (packed_) {
        pos_ = rmPackedView(elementType_, pos_, out);
    } else {
        zn_value_t v;
        std::memcpy(&v, pos_, sizeof v);
        pos_ += sizeof(zn_value_t);
        out = rmViewOf(elementType_, v);
    }
    return true;
}

}  // namespace tarn_rmf
