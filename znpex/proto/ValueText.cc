#include "znpex/proto/ValueText.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "znpex/proto/ValueCodec.h"

namespace znpex::proto {
namespace {

void writeFloat(JsonWriter& w, double d) {
    if (std::isnan(d)) {
        w.string("nan");
    } else if (std::isinf(d)) {
        w.string(d > 0 ? "inf" : "-inf");
    } else {
        w.number(d);
    }
}

bool scanFloat(JsonScan& s, bool single, double& out) {
    if (s.peek() == '"') {
        std::string_view text;
        if (!s.string(text)) {
            return false;
        }
        if (text == "nan") {
            out = NAN;
        } else if (text == "inf") {
            out = INFINITY;
        } else if (text == "-inf") {
            out = -INFINITY;
        } else {
            return s.fail();
        }
        return true;
    }
    if (!s.number(out)) {
        return false;
    }
    return single && std::fabs(out) > FLT_MAX ? s.fail() : true;
}

}  // namespace

void writeBareValue(JsonWriter& w, zn_data_type_t t, const zn_value_t& v) {
    switch (t) {
        case ZN_UNKNOWN:
        case ZN_NONE:
            w.null();
            return;
        case ZN_INT32:
            w.integer(v.val_int32);
            return;
        case ZN_UINT32:
            w.unsignedInteger(v.val_uint32);
            return;
        case ZN_INT64:
            w.string(decimal(static_cast<int64_t>(v.val_int64)));
            return;
        case ZN_UINT64:
            w.string(decimal(static_cast<uint64_t>(v.val_uint64)));
            return;
        case ZN_FLOAT32:
            writeFloat(w, v.val_float32);
            return;
        case ZN_FLOAT64:
            writeFloat(w, v.val_float64);
            return;
        case ZN_CHAR_PTR:
            if (v.ptr_char == nullptr) {
                w.null();
            } else {
                w.string(v.ptr_char);
            }
            return;
        case ZN_RSRC_HANDLE_PTR:
            if (v.ptr_rsrc_handle == nullptr) {
                w.null();
            } else {
                w.string(handleToHex(*v.ptr_rsrc_handle));
            }
            return;
        default:
            w.raw(dumpJson(encodeBareValue(t, v)));
            return;
    }
}

void writeTypedMembers(JsonWriter& w, zn_data_type_t t, const zn_value_t& v) {
    w.key("t").integer(static_cast<int>(t));
    w.key("v");
    writeBareValue(w, t, v);
}

bool scanTypeCode(JsonScan& s, zn_data_type_t& out) {
    int64_t code = 0;
    if (!s.int64(code) || code < std::numeric_limits<int32_t>::min() ||
        code > std::numeric_limits<int32_t>::max() || !isWireType(static_cast<int>(code))) {
        return s.fail();
    }
    out = static_cast<zn_data_type_t>(code);
    return true;
}

bool scanBareValue(JsonScan& s, zn_data_type_t t, zn::OwnedValue& out) {
    zn_value_t v;
    v.val_uint64 = 0;
    bool pointer = t == ZN_CHAR_PTR || t == ZN_RSRC_HANDLE_PTR;
    if ((t == ZN_UNKNOWN || t == ZN_NONE || pointer) && s.null()) {
        out = zn::OwnedValue(t, v);
        return true;
    }
    if (!s.ok()) {
        return false;
    }
    switch (t) {
        case ZN_INT32: {
            int64_t i = 0;
            if (!s.int64(i) || i < std::numeric_limits<int32_t>::min() ||
                i > std::numeric_limits<int32_t>::max()) {
                return s.fail();
            }
            v.val_int32 = static_cast<int32_t>(i);
            break;
        }
        case ZN_UINT32: {
            uint64_t u = 0;
            if (!s.uint64(u) || u > std::numeric_limits<uint32_t>::max()) {
                return s.fail();
            }
            v.val_uint32 = static_cast<uint32_t>(u);
            break;
        }
        case ZN_INT64: {
            std::string_view text;
            int64_t i = 0;
            if (!s.string(text) || !parseDecimal(text, i)) {
                return s.fail();
            }
            v.val_int64 = i;
            break;
        }
        case ZN_UINT64: {
            std::string_view text;
            uint64_t u = 0;
            if (!s.string(text) || !parseDecimal(text, u)) {
                return s.fail();
            }
            v.val_uint64 = u;
            break;
        }
        case ZN_FLOAT32: {
            double d = 0;
            if (!scanFloat(s, true, d)) {
                return false;
            }
            v.val_float32 = static_cast<float>(d);
            break;
        }
        case ZN_FLOAT64:
            if (!scanFloat(s, false, v.val_float64)) {
                return false;
            }
            break;
        case ZN_CHAR_PTR: {
            std::string_view text;  // printable ASCII: no NUL inside
            if (!s.string(text)) {
                return false;
            }
            v.ptr_char = static_cast<char*>(std::malloc(text.size() + 1));
            if (v.ptr_char == nullptr) {
                throw std::bad_alloc();
            }
            std::memcpy(v.ptr_char, text.data(), text.size());
            v.ptr_char[text.size()] = '\0';
            break;
        }
        case ZN_RSRC_HANDLE_PTR: {
            std::string_view text;
            zn_resource_handle h{};
            if (!s.string(text) || !parseHandleHex(text, h)) {
                return s.fail();
            }
            v.ptr_rsrc_handle = &h;
            out = zn::OwnedValue::copyOf(t, v);
            return true;
        }
        default:
            return s.fail();  // UNKNOWN/NONE with a value, and the rarer types
    }
    out = zn::OwnedValue(t, v);
    return true;
}

}  // namespace znpex::proto
