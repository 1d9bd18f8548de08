#include "znpex/cli/BulkValue.h"

#include <cstdio>

#include "znpex/cli/ValueText.h"

namespace znpex::cli {
namespace {

using proto::Json;

bool isIntegerType(zn_data_type_t t) {
    return t == ZN_INT32 || t == ZN_UINT32 || t == ZN_INT64 || t == ZN_UINT64;
}

bool isFloatType(zn_data_type_t t) {
    return t == ZN_FLOAT32 || t == ZN_FLOAT64;
}

// A JSON value as a message shows it: at most 40 characters.
std::string shown(const Json& v) {
    std::string s = proto::dumpJson(v);
    return s.size() <= 40 ? s : s.substr(0, 37) + "...";
}

// The text of a JSON scalar as ValueText reads it for the scalar type t.
std::optional<std::string> scalarText(zn_data_type_t t, const Json& v, std::string* why) {
    if (v.is_string()) {
        const auto& s = v.get_ref<const std::string&>();
        if (s.find('\0') != std::string::npos) {
            *why = "a NUL character in a value";
            return std::nullopt;
        }
        return s;
    }
    if (v.is_number() && isIntegerType(t)) {
        if (v.is_number_unsigned()) {
            return std::to_string(v.get<uint64_t>());
        }
        if (v.is_number_integer()) {
            return std::to_string(v.get<int64_t>());
        }
        *why = shown(v) + " is not an integer";
        return std::nullopt;
    }
    if (v.is_number() && isFloatType(t)) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.17g", v.get<double>());
        return std::string(buf);
    }
    *why = shown(v) + " is not a valid " + typeLabel(t) + " value";
    return std::nullopt;
}

}  // namespace

std::optional<zn::OwnedValue> bulkValue(zn_data_type_t t, const Json& v, std::string* why) {
    if (!v.is_array()) {
        if (v.is_string() || !zn_is_array_type(t)) {
            auto text = scalarText(zn_is_array_type(t) ? ZN_CHAR_PTR : t, v, why);
            return text ? parseValue(t, *text, why) : std::nullopt;
        }
        *why = shown(v) + " is not a valid " + typeLabel(t) + " value (give an array)";
        return std::nullopt;
    }
    if (!zn_is_array_type(t)) {
        *why = "an array where a " + typeLabel(t) + " value is expected";
        return std::nullopt;
    }
    zn_data_type_t et = zn_array_element_type(t);
    zn_value_t out;
    out.ptr_array = zn_array_new(static_cast<uint32_t>(v.size()));
    if (out.ptr_array == nullptr) {
        throw std::bad_alloc();
    }
    zn::OwnedValue array(t, out);
    for (size_t i = 0; i < v.size(); ++i) {
        std::string elementWhy;
        std::optional<std::string> text = scalarText(et, v[i], &elementWhy);
        std::optional<zn::OwnedValue> e;
        if (text) {
            e = parseValue(et, *text, &elementWhy);
        }
        if (!e) {
            *why = "element " + std::to_string(i + 1) + ": " + elementWhy;
            return std::nullopt;
        }
        array.value().ptr_array->elements[i] = e->release();
    }
    return array;
}

}  // namespace znpex::cli
