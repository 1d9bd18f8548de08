#include "znpex/proto/ValueCodec.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "znpex/proto/Base64.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {
namespace {

std::string at(const std::string& where, size_t i) {
    return where + "[" + std::to_string(i) + "]";
}

bool isPointerType(zn_data_type_t t) {
    return (t >= ZN_CHAR_PTR && t <= ZN_SD_PTR) || zn_is_array_type(t);
}

Json encodeFloat(double d) {
    if (std::isnan(d)) {
        return "nan";
    }
    if (std::isinf(d)) {
        return d > 0 ? "inf" : "-inf";
    }
    return d;
}

double decodeFloat(const Json& j, const std::string& where, bool single) {
    double d = 0;
    if (j.is_number()) {
        d = j.get<double>();
        if (single && std::fabs(d) > FLT_MAX) {
            throw ProtocolError(where + ": out of range for a 32-bit float");
        }
        return d;
    }
    if (j.is_string()) {
        const auto& s = j.get_ref<const std::string&>();
        if (s == "nan") {
            return NAN;
        }
        if (s == "inf") {
            return INFINITY;
        }
        if (s == "-inf") {
            return -INFINITY;
        }
    }
    throw ProtocolError(where + ": expected a number (or \"nan\", \"inf\", \"-inf\")");
}

Json encodeBare(zn_data_type_t t, const zn_value_t& v, int depth);

Json encodeSdBody(const zn_structured_data* sd, int depth) {
    if (depth > kMaxSdDepth) {
        throw ProtocolError("structured data nested deeper than " + std::to_string(kMaxSdDepth),
                            kInternalError);
    }
    Json out = Json::array();
    for (uint32_t i = 0; i < sd->element_count; ++i) {
        const auto& e = sd->elements[i];
        out.push_back(Json{{"t", static_cast<int>(e.data_type)},
                           {"v", encodeBare(e.data_type, e.value, depth)}});
    }
    return out;
}

Json encodeBare(zn_data_type_t t, const zn_value_t& v, int depth) {
    switch (t) {
        case ZN_UNKNOWN:
        case ZN_NONE:
            return nullptr;
        case ZN_INT32:
            return v.val_int32;
        case ZN_UINT32:
            return v.val_uint32;
        case ZN_INT64:
            return decimal(static_cast<int64_t>(v.val_int64));
        case ZN_UINT64:
            return decimal(static_cast<uint64_t>(v.val_uint64));
        case ZN_FLOAT32:
            return encodeFloat(v.val_float32);
        case ZN_FLOAT64:
            return encodeFloat(v.val_float64);
        case ZN_CHAR_PTR:
            return v.ptr_char == nullptr ? Json(nullptr) : Json(v.ptr_char);
        case ZN_BINARY_PTR:
            if (v.ptr_binary == nullptr) {
                return nullptr;
            }
            return base64Encode(v.ptr_binary->data, v.ptr_binary->length);
        case ZN_RSRC_HANDLE_PTR:
            if (v.ptr_rsrc_handle == nullptr) {
                return nullptr;
            }
            return handleToHex(*v.ptr_rsrc_handle);
        case ZN_SD_PTR:
            if (v.ptr_sd == nullptr) {
                return nullptr;
            }
            return encodeSdBody(v.ptr_sd, depth + 1);
        default:
            break;
    }
    if (!zn_is_array_type(t)) {
        throw ProtocolError(
            "data type " + std::to_string(static_cast<int>(t)) + " has no wire form",
            kInternalError);
    }
    if (v.ptr_array == nullptr) {
        return nullptr;
    }
    zn_data_type_t et = zn_array_element_type(t);
    Json out = Json::array();
    for (uint32_t i = 0; i < v.ptr_array->array_cnt; ++i) {
        out.push_back(encodeBare(et, v.ptr_array->elements[i], depth));
    }
    return out;
}

zn::OwnedValue decodeTyped(const Json& j, const std::string& where, int depth);

zn::OwnedValue decodeBare(zn_data_type_t t, const Json& v, const std::string& where, int depth) {
    zn_value_t out;
    out.val_uint64 = 0;
    if (v.is_null()) {
        if (t == ZN_UNKNOWN || t == ZN_NONE || isPointerType(t)) {
            return zn::OwnedValue(t, out);
        }
        throw ProtocolError(where + ": null is not a value of type " +
                            std::to_string(static_cast<int>(t)));
    }
    switch (t) {
        case ZN_UNKNOWN:
        case ZN_NONE:
            throw ProtocolError(where + ": type " + std::to_string(t) + " carries no value");
        case ZN_INT32:
            out.val_int32 = asInt32(v, where);
            break;
        case ZN_UINT32:
            out.val_uint32 = asUInt32(v, where);
            break;
        case ZN_INT64:
            out.val_int64 = asDecimalInt64(v, where);
            break;
        case ZN_UINT64:
            out.val_uint64 = asDecimalUInt64(v, where);
            break;
        case ZN_FLOAT32:
            out.val_float32 = static_cast<float>(decodeFloat(v, where, true));
            break;
        case ZN_FLOAT64:
            out.val_float64 = decodeFloat(v, where, false);
            break;
        case ZN_CHAR_PTR: {
            std::string s = asString(v, where);
            if (s.find('\0') != std::string::npos) {
                throw ProtocolError(where + ": text contains a NUL character");
            }
            out.ptr_char = strdup(s.c_str());
            if (out.ptr_char == nullptr) {
                throw std::bad_alloc();
            }
            break;
        }
        case ZN_BINARY_PTR: {
            auto bytes = base64Decode(asString(v, where));
            if (!bytes) {
                throw ProtocolError(where + ": expected base64 text");
            }
            out.ptr_binary = zn_binary_new(bytes->data(), static_cast<uint32_t>(bytes->size()));
            if (out.ptr_binary == nullptr) {
                throw std::bad_alloc();
            }
            break;
        }
        case ZN_RSRC_HANDLE_PTR: {
            zn_resource_handle h = handleFromHex(v, where);
            out.ptr_rsrc_handle =
                static_cast<zn_resource_handle*>(std::malloc(sizeof(zn_resource_handle)));
            if (out.ptr_rsrc_handle == nullptr) {
                throw std::bad_alloc();
            }
            *out.ptr_rsrc_handle = h;
            break;
        }
        case ZN_SD_PTR: {
            if (depth + 1 > kMaxSdDepth) {
                throw ProtocolError(where + ": structured data nested deeper than " +
                                    std::to_string(kMaxSdDepth));
            }
            const Json& arr = requireArray(v, where);
            zn::SdPtr sd(zn_sd_new(static_cast<uint32_t>(arr.size())));
            if (!sd) {
                throw std::bad_alloc();
            }
            for (size_t i = 0; i < arr.size(); ++i) {
                zn::OwnedValue e = decodeTyped(arr[i], at(where, i), depth + 1);
                sd->elements[i].data_type = e.type();
                sd->elements[i].value = e.release();
            }
            out.ptr_sd = sd.release();
            break;
        }
        default: {
            if (!zn_is_array_type(t)) {
                throw ProtocolError(where + ": unknown data type " + std::to_string(t));
            }
            const Json& arr = requireArray(v, where);
            if (arr.size() > UINT32_MAX) {
                throw ProtocolError(where + ": too many elements");
            }
            zn_value_t av;
            av.ptr_array = zn_array_new(static_cast<uint32_t>(arr.size()));
            if (av.ptr_array == nullptr) {
                throw std::bad_alloc();
            }
            zn::OwnedValue holder(t, av);  // frees what is filled if an element fails
            zn_data_type_t et = zn_array_element_type(t);
            for (size_t i = 0; i < arr.size(); ++i) {
                holder.value().ptr_array->elements[i] =
                    decodeBare(et, arr[i], at(where, i), depth).release();
            }
            return holder;
        }
    }
    return zn::OwnedValue(t, out);
}

zn::OwnedValue decodeTyped(const Json& j, const std::string& where, int depth) {
    requireObject(j, where);
    int code = asInt32(requireField(j, "t", where), where + ".t");
    if (!isWireType(code)) {
        throw ProtocolError(where + ".t: unknown data type " + std::to_string(code));
    }
    const Json* v = findField(j, "v");
    if (v == nullptr) {
        throw ProtocolError(where + ": missing field \"v\"");
    }
    return decodeBare(static_cast<zn_data_type_t>(code), *v, where + ".v", depth);
}

}  // namespace

bool isWireType(int code) {
    return code == ZN_UNKNOWN || code == ZN_NONE ||
           zn_is_value_type(static_cast<zn_data_type_t>(code));
}

Json encodeValue(zn_data_type_t t, const zn_value_t& v) {
    return Json{{"t", static_cast<int>(t)}, {"v", encodeBare(t, v, 0)}};
}

Json encodeBareValue(zn_data_type_t t, const zn_value_t& v) {
    return encodeBare(t, v, 0);
}

zn::OwnedValue decodeValue(const Json& j, const std::string& where) {
    return decodeTyped(j, where, 0);
}

zn::OwnedValue decodeBareValue(zn_data_type_t t, const Json& v, const std::string& where) {
    if (!isWireType(t)) {
        throw ProtocolError(where + ": unknown data type " + std::to_string(t));
    }
    return decodeBare(t, v, where, 0);
}

Json encodeSd(const zn_structured_data* sd) {
    zn_value_t v;
    v.ptr_sd = const_cast<zn_structured_data*>(sd);
    return encodeValue(ZN_SD_PTR, v);
}

zn::SdPtr decodeSd(const Json& j, const std::string& where) {
    zn::OwnedValue v = decodeValue(j, where);
    if (v.type() != ZN_SD_PTR) {
        throw ProtocolError(where + ": expected structured data (type 11)");
    }
    return zn::SdPtr(v.release().ptr_sd);
}

std::string handleToHex(const zn_resource_handle& h) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(40);
    for (unsigned char b : h.bytes) {
        s.push_back(digits[b >> 4]);
        s.push_back(digits[b & 15]);
    }
    return s;
}

bool parseHandleHex(std::string_view text, zn_resource_handle& out) {
    if (text.size() != 2 * sizeof out.bytes) {
        return false;
    }
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        return -1;
    };
    zn_resource_handle h{};
    for (size_t i = 0; i < sizeof h.bytes; ++i) {
        int hi = nibble(text[2 * i]);
        int lo = nibble(text[2 * i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        h.bytes[i] = static_cast<unsigned char>((hi << 4) | lo);
    }
    out = h;
    return true;
}

zn_resource_handle handleFromHex(const Json& j, const std::string& where) {
    zn_resource_handle h{};
    if (!j.is_string() || !parseHandleHex(j.get_ref<const std::string&>(), h)) {
        throw ProtocolError(where + ": expected a resource handle (40 lowercase hex digits)");
    }
    return h;
}

Json encodeAttr(int32_t id, zn_data_type_t t, const zn_value_t& v) {
    return Json{{"id", id}, {"t", static_cast<int>(t)}, {"v", encodeBare(t, v, 0)}};
}

Json encodeAttr(const tarn_rmf2v::RMReplyAttr& a) {
    return encodeAttr(a.id, a.value.type(), a.value.value());
}

tarn_rmf2v::RMReplyAttr decodeAttr(const Json& j, const std::string& where) {
    tarn_rmf2v::RMReplyAttr a;
    a.id = asInt32(requireField(j, "id", where), where + ".id");
    a.value = decodeTyped(j, where, 0);
    return a;
}

Json encodeAttrs(const std::vector<tarn_rmf2v::RMReplyAttr>& attrs) {
    Json out = Json::array();
    for (const auto& a : attrs) {
        out.push_back(encodeAttr(a));
    }
    return out;
}

Json encodeAttrs(const rm_attribute_value* values, unsigned int count) {
    Json out = Json::array();
    for (unsigned int i = 0; i < count; ++i) {
        out.push_back(
            encodeAttr(values[i].rm_attribute_id, values[i].rm_data_type, values[i].rm_value));
    }
    return out;
}

std::vector<tarn_rmf2v::RMReplyAttr> decodeAttrs(const Json& j, const std::string& where) {
    std::vector<tarn_rmf2v::RMReplyAttr> out;
    const Json& arr = requireArray(j, where);
    out.reserve(arr.size());
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(decodeAttr(arr[i], at(where, i)));
    }
    return out;
}

}  // namespace znpex::proto
