#include "common/MarshalSD.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/WexTrace.h"

namespace WEX_COMMON {

namespace {

constexpr size_t kScratch = 50;  // holds any 64-bit decimal with its terminator

// Renders a numeric element into `buf`; returns its length, or -1 when the
// element is not one of the four integer types.
int renderNumber(const zn_structured_data_element_t& e, char (&buf)[kScratch]) {
    switch (e.data_type) {
        case ZN_INT32:
            return std::snprintf(buf, kScratch, "%i", e.value.val_int32);
        case ZN_UINT32:
            return std::snprintf(buf, kScratch, "%u", e.value.val_uint32);
        case ZN_INT64:
            return std::snprintf(buf, kScratch, "%lli", static_cast<long long>(e.value.val_int64));
        case ZN_UINT64:
            return std::snprintf(buf, kScratch, "%llu",
                                 static_cast<unsigned long long>(e.value.val_uint64));
        default:
            return -1;
    }
}

const char* numericTypeName(zn_data_type_t t) {
    switch (t) {
        case ZN_INT32:
            return "ZN_INT32";
        case ZN_UINT32:
            return "ZN_UINT32";
        case ZN_INT64:
            return "ZN_INT64";
        default:
            return "ZN_UINT64";
    }
}

size_t copyBounded(unsigned char* cursor, size_t room, const void* src, size_t len) {
    size_t n = len < room ? len : room;
    std::memcpy(cursor, src, n);
    return n;
}

// Bytes contributed by one element (0 for the skipped types), with its trace.
uint64_t elementSize(const zn_structured_data_element_t& e) {
    char buf[kScratch];
    int n = renderNumber(e, buf);
    if (n >= 0) {
        wexTrace("adding %d to size for ZN_INT32 type [%s]", n, buf);
        return static_cast<uint64_t>(n);
    }
    if (e.data_type == ZN_CHAR_PTR) {
        const char* s = e.value.ptr_char != nullptr ? e.value.ptr_char : "";
        size_t len = std::strlen(s);
        wexTrace("adding %d to size for Char type [%s]", static_cast<int>(len), s);
        return len;
    }
    if (e.data_type == ZN_BINARY_PTR) {
        uint32_t len = e.value.ptr_binary != nullptr ? e.value.ptr_binary->length : 0;
        wexTrace("adding %d to size for Binary type", static_cast<int>(len));
        return len;
    }
    return 0;
}

// Copies one element's bytes at `cursor`, at most `room` of them (the elements
// are not supposed to change between the passes, but a change must not
// overrun the buffer); returns the number copied.
size_t copyElement(const zn_structured_data_element_t& e, unsigned char* cursor, size_t room) {
    char buf[kScratch];
    int n = renderNumber(e, buf);
    if (n >= 0) {
        wexTrace("Copying %d bytes of string [%s], was originally a %s", n, buf,
                 numericTypeName(e.data_type));
        return copyBounded(cursor, room, buf, static_cast<size_t>(n));
    }
    if (e.data_type == ZN_CHAR_PTR) {
        const char* s = e.value.ptr_char;
        if (s == nullptr || *s == '\0') {
            return 0;
        }
        size_t len = std::strlen(s);
        wexTrace("Copying %d bytes of string [%s]", static_cast<int>(len), s);
        return copyBounded(cursor, room, s, len);
    }
    if (e.data_type == ZN_BINARY_PTR) {
        const zn_binary* b = e.value.ptr_binary;
        if (b == nullptr || b->length == 0) {
            return 0;
        }
        wexTrace("Copying %d bytes of binary data", static_cast<int>(b->length));
        return copyBounded(cursor, room, b->data, b->length);
    }
    return 0;
}

}  // namespace

unsigned int marshalSD(zn_structured_data_element_t* data, int count, sec_buffer_s& out) {
    wexTrace("marshalSD() called, count == %d", count);
    if (data == nullptr || count < 1) {
        wexTrace("Data was NULL or count < 1, returning 1");
        return MARSHAL_NO_DATA;
    }
    uint64_t total = 0;
    for (int i = 0; i < count; ++i) {
        total += elementSize(data[i]);
    }
    if (total < 1) {
        wexTrace("Size was zero, returning 3");
        return MARSHAL_EMPTY;
    }
    // The length travels as 32 bits; a longer result cannot be represented.
    auto* buf = total <= UINT32_MAX ? static_cast<unsigned char*>(std::malloc(total)) : nullptr;
    if (buf == nullptr) {
        wexTrace("unable to allocate buffer for munged data");
        out = {0, nullptr};
        return MARSHAL_NO_MEMORY;
    }
    std::memset(buf, 0, total);
    out = {static_cast<uint32_t>(total), buf};
    size_t at = 0;
    for (int i = 0; i < count; ++i) {
        at += copyElement(data[i], buf + at, total - at);
    }
    return MARSHAL_OK;
}

}  // namespace WEX_COMMON
