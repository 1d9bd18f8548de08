// Membership and containment tests over platform arrays of values, by element
// type: integers by their bits, floats by floating-point equality, texts
// exactly or (flag 4) ignoring letter case; any other type never matches.
// Stateless and thread-safe; each traces its entry and result while
// WEX_COMMON::TRACE_ENABLED is set.
#pragma once

#include "platform/zn_types.h"

namespace WEX_COMMON {

// Text comparisons ignore letter case.
inline constexpr unsigned long long kCompareIgnoreCase = 4;

// 1 when `value` equals an element of `array` (null: empty), else 0.
int isElementOf(zn_value_t value, zn_array* array, int dataType, unsigned long long flags);

// 1 when every element of `first` is an element of `second` (a null or empty
// first array is equal to anything; extra or repeated elements in `second`
// do not matter), else 0.
int areEqual(zn_array* first, zn_array* second, int dataType, unsigned long long flags);

}  // namespace WEX_COMMON
