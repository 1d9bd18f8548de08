// Host-name lists as handed to callers: one zero-filled malloc'ed zn_array
// (count, 8-byte element slots, then the texts packed with their terminators;
// each element points into that text area), released with one free. The
// classic size of 11 slots and 1010 text bytes (1106 bytes in all, texts
// from byte 96) is kept when the names fit and grown when they do not.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/zn_types.h"

namespace WEX_COMMON {

inline constexpr size_t kNameListSlots = 11;
inline constexpr size_t kNameListText = 1010;

// Bytes of the list for `names` (header, slots and text area).
size_t nameListSize(const std::vector<std::string>& names);

// The list of `names` in order, or null when it cannot be allocated.
zn_array* newNameList(const std::vector<std::string>& names);

}  // namespace WEX_COMMON
