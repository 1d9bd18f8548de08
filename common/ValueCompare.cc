#include "common/ValueCompare.h"

#include <strings.h>

#include "common/WexTrace.h"

namespace WEX_COMMON {

namespace {

const char* shown(const char* s) {
    return s != nullptr ? s : "<null>";
}

bool textEqual(const zn_value_t& a, const zn_value_t& b, bool ignoreCase) {
    wexTrace("comparing [%s] to [%s], case %s", shown(a.ptr_char), shown(b.ptr_char),
             ignoreCase ? "insensitively" : "sensitively");
    if (!ignoreCase || a.ptr_char == nullptr || b.ptr_char == nullptr) {
        return zn_value_equal(ZN_CHAR_PTR, a, b);
    }
    return strcasecmp(a.ptr_char, b.ptr_char) == 0;
}

// Scalars compare as the platform compares them; other types never match here.
bool valueEqual(const zn_value_t& a, const zn_value_t& b, int dataType, unsigned long long flags) {
    switch (dataType) {
        case ZN_INT32:
        case ZN_UINT32:
        case ZN_INT64:
        case ZN_UINT64:
        case ZN_FLOAT32:
        case ZN_FLOAT64:
            return zn_value_equal(static_cast<zn_data_type_t>(dataType), a, b);
        case ZN_CHAR_PTR:
            return textEqual(a, b, (flags & kCompareIgnoreCase) != 0);
        default:
            return false;
    }
}

}  // namespace

int isElementOf(zn_value_t value, zn_array* array, int dataType, unsigned long long flags) {
    wexTrace("%s called", "isElementOf");
    int rc = 0;
    if (array != nullptr) {
        for (uint32_t i = 0; i < array->array_cnt; ++i) {
            if (valueEqual(value, array->elements[i], dataType, flags)) {
                rc = 1;
                break;
            }
        }
    }
    wexTrace("%s exiting, returning %d", "isElementOf", rc);
    return rc;
}

int areEqual(zn_array* first, zn_array* second, int dataType, unsigned long long flags) {
    wexTrace("%s called", "areEqual");
    int rc = 1;
    if (first != nullptr) {
        for (uint32_t i = 0; i < first->array_cnt; ++i) {
            if (isElementOf(first->elements[i], second, dataType, flags) == 0) {
                rc = 0;
                break;
            }
        }
    }
    wexTrace("%s exiting, returning %d", "areEqual", rc);
    return rc;
}

}  // namespace WEX_COMMON
