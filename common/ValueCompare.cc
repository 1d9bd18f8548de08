#include "common/ValueCompare.h"

#include <strings.h>

#include <cstring>

#include "common/WexTrace.h"

namespace WEX_COMMON {

namespace {

const char* shown(const char* s) {
    return s != nullptr ? s : "<null>";
}

bool textEqual(const char* a, const char* b, bool ignoreCase) {
    if (ignoreCase) {
        wexTrace("comparing [%s] to [%s], case insensitively", shown(a), shown(b));
    } else {
        wexTrace("comparing [%s] to [%s], case sensitively", shown(a), shown(b));
    }
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return ignoreCase ? strcasecmp(a, b) == 0 : std::strcmp(a, b) == 0;
}

bool valueEqual(const zn_value_t& a, const zn_value_t& b, int dataType, unsigned long long flags) {
    switch (dataType) {
        case ZN_INT32:
        case ZN_UINT32:
            return a.val_uint32 == b.val_uint32;
        case ZN_INT64:
        case ZN_UINT64:
            return a.val_uint64 == b.val_uint64;
        case ZN_FLOAT32:
            return a.val_float32 == b.val_float32;
        case ZN_FLOAT64:
            return a.val_float64 == b.val_float64;
        case ZN_CHAR_PTR:
            return textEqual(a.ptr_char, b.ptr_char, (flags & kCompareIgnoreCase) != 0);
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
