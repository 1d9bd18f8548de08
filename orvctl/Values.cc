#include "orvctl/Values.h"

#include <cstring>
#include <new>

namespace orvctl {

zn::OwnedValue textValue(const std::string& s) {
    zn_value_t v;
    v.ptr_char = strdup(s.c_str());
    if (v.ptr_char == nullptr) {
        throw std::bad_alloc();
    }
    return zn::OwnedValue(ZN_CHAR_PTR, v);
}

zn::OwnedValue textArray(const std::vector<std::string>& list) {
    zn_value_t v;
    v.ptr_array = zn_array_new(static_cast<uint32_t>(list.size()));
    if (v.ptr_array == nullptr) {
        throw std::bad_alloc();
    }
    zn::OwnedValue out(ZN_CHAR_PTR_ARRAY, v);
    for (size_t i = 0; i < list.size(); ++i) {
        out.value().ptr_array->elements[i] = textValue(list[i]).release();
    }
    return out;
}

zn::SdPtr oneElement(zn::OwnedValue v) {
    zn::SdPtr sd(zn_sd_new(1));
    if (!sd) {
        throw std::bad_alloc();
    }
    sd->elements[0].data_type = v.type();
    sd->elements[0].value = v.release();
    return sd;
}

std::vector<std::string> textsOf(const zn_array* list) {
    std::vector<std::string> out;
    for (uint32_t i = 0; list != nullptr && i < list->array_cnt; ++i) {
        if (list->elements[i].ptr_char != nullptr) {
            out.emplace_back(list->elements[i].ptr_char);
        }
    }
    return out;
}

std::vector<std::string> textsOf(const zn_structured_data* sd) {
    if (sd == nullptr || sd->element_count < 1 || sd->elements[0].data_type != ZN_CHAR_PTR_ARRAY) {
        return {};
    }
    return textsOf(sd->elements[0].value.ptr_array);
}

}  // namespace orvctl
