#include "orvctl/NodeWords.h"

#include "znpex/cli/ValueText.h"

namespace orvctl {

std::string statusWord(uint32_t status) {
    switch (status) {
        case 1:
            return "up";
        case 0:
            return "down";
        case 127:
            return "unknown";
        default:
            return std::to_string(status);
    }
}

std::string powerWord(uint32_t power) {
    switch (power) {
        case 1:
            return "on";
        case 0:
            return "off";
        case 127:
            return "unknown";
        default:
            return std::to_string(power);
    }
}

std::string cellText(zn_data_type_t t, const zn_value_t& v) {
    if ((t == ZN_CHAR_PTR && v.ptr_char == nullptr) ||
        (zn_is_array_type(t) && v.ptr_array == nullptr)) {
        return "";  // never given
    }
    std::string s = znpex::cli::formatValue(t, v);
    if (zn_is_array_type(t) && s.size() >= 2 && s.front() == '{' && s.back() == '}') {
        return s.substr(1, s.size() - 2);
    }
    return s;
}

std::string attrText(const std::string& name, zn_data_type_t t, const zn_value_t& v) {
    if (t == ZN_UINT32 && name == "Status") {
        return statusWord(v.val_uint32);
    }
    if (t == ZN_UINT32 && name == "PowerStatus") {
        return powerWord(v.val_uint32);
    }
    return cellText(t, v);
}

}  // namespace orvctl
