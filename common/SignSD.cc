#include "common/SignSD.h"

#include <cstdlib>
#include <cstring>

#include "common/MarshalSD.h"
#include "common/WexTrace.h"

namespace WEX_COMMON {

int signSD(zn_structured_data_element_t* data, int count, sec_buffer_s* key,
           sec_buffer_s* signature) {
    wexTrace("WEX_COMMON::signSD() called, count == %d", count);
    sec_buffer_s marshalled = {0, nullptr};
    unsigned int mrc = marshalSD(data, count, marshalled);
    if (mrc != MARSHAL_OK) {
        return -static_cast<int>(mrc);
    }
    wexTrace("signing marshaled data buffer");
    int rc = sec_prepare_message(key, kSignFlags, &marshalled, signature);
    wexTrace("freeing marshalled data buffer");
    std::free(marshalled.value);
    if (rc != 0) {
        wexTrace("sec_prepare_message() call failed with error code == %d, returning that", rc);
        return rc;
    }
    wexTrace("WEX_COMMON::signSD() returning 0");
    return 0;
}

unsigned int verifySD(zn_structured_data_element_t* data, int count, sec_buffer_s* key,
                      sec_buffer_s* signature) {
    sec_buffer_s marshalled = {0, nullptr};
    unsigned int mrc = marshalSD(data, count, marshalled);
    if (mrc != MARSHAL_OK) {
        return mrc;
    }
    int rc = sec_process_message(key, kSignFlags, &marshalled, signature);
    std::free(marshalled.value);
    return rc != 0 ? 5u : 0u;
}

unsigned int sec2binary(sec_buffer_s* src, zn_binary*& dst) {
    wexTrace("WEX_COMMON::sec2binary() called");
    dst = nullptr;
    if (src == nullptr || (src->length > 0 && src->value == nullptr)) {
        wexTrace("WEX_COMMON::sec2binary() allocation error, returing 1");
        return 1;
    }
    // The 4-byte length field, the bytes and slack; never less than the type itself.
    size_t size = static_cast<size_t>(src->length) + 7;
    if (size < sizeof(zn_binary)) {
        size = sizeof(zn_binary);
    }
    auto* b = static_cast<zn_binary*>(std::malloc(size));
    if (b == nullptr) {
        wexTrace("WEX_COMMON::sec2binary() allocation error, returing 1");
        return 1;
    }
    std::memset(b, 0, size);
    if (src->length > 0) {
        std::memcpy(b->data, src->value, src->length);
    }
    b->length = src->length;
    dst = b;
    wexTrace("WEX_COMMON::sec2binary() returing 0");
    return 0;
}

void binary2sec(zn_binary* src, sec_buffer_s* dst) {
    if (dst == nullptr) {
        return;
    }
    if (src == nullptr) {
        *dst = {0, nullptr};
        return;
    }
    *dst = {src->length, src->data};
}

}  // namespace WEX_COMMON
