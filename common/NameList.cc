#include "common/NameList.h"

#include <cstdlib>
#include <cstring>

namespace WEX_COMMON {

namespace {

constexpr size_t kHeader = offsetof(zn_array, elements);

size_t slotsFor(const std::vector<std::string>& names) {
    return names.size() > kNameListSlots ? names.size() : kNameListSlots;
}

size_t textFor(const std::vector<std::string>& names) {
    size_t text = 0;
    for (const auto& n : names) {
        text += n.size() + 1;
    }
    return text > kNameListText ? text : kNameListText;
}

}  // namespace

size_t nameListSize(const std::vector<std::string>& names) {
    return kHeader + slotsFor(names) * sizeof(zn_value_t) + textFor(names);
}

zn_array* newNameList(const std::vector<std::string>& names) {
    if (names.size() > UINT32_MAX) {
        return nullptr;
    }
    size_t size = nameListSize(names);
    void* block = std::calloc(1, size);
    if (block == nullptr) {
        return nullptr;
    }
    auto* list = static_cast<zn_array*>(block);
    char* text = static_cast<char*>(block) + kHeader + slotsFor(names) * sizeof(zn_value_t);
    for (const auto& n : names) {
        std::memcpy(text, n.c_str(), n.size() + 1);
        list->elements[list->array_cnt++].ptr_char = text;
        text += n.size() + 1;
    }
    return list;
}

}  // namespace WEX_COMMON
