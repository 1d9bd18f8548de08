#include "tarn_rmf/registry/RMValueCodec.h"

#include <cstdlib>
#include <cstring>

namespace tarn_rmf {
namespace {

constexpr size_t kHandleSize = sizeof(zn_resource_handle);

size_t fixedWidth(zn_data_type_t t) {
    switch (t) {
        case ZN_INT32:
        case ZN_UINT32:
        case ZN_FLOAT32:
            return 4;
        case ZN_INT64:
        case ZN_UINT64:
        case ZN_FLOAT64:
            return 8;
        default:
            return 0;
    }
}

void putLe(uint64_t v, size_t width, std::string& out) {
    for (size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}

uint64_t getLe(const unsigned char* p, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) {
        v |= static_cast<uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

// Walks the elements of a structured-data view, packed or not.
class SdCursor {
public:
    explicit SdCursor(const RMValueView& sd)
        : pos_(sd.data), left_(sd.isNull ? 0 : sd.len), packed_(sd.packed) {}
    bool next(RMValueView& out) {
        if (left_ == 0) {
            return false;
        }
        --left_;
        if (packed_) {
            auto t = static_cast<zn_data_type_t>(*pos_);
            pos_ = rmPackedView(t, pos_ + 1, out);
        } else {
            zn_structured_data_element_t e;
            std::memcpy(&e, pos_, sizeof e);
            pos_ += sizeof e;
            out = rmViewOf(e.data_type, e.value);
        }
        return true;
    }

private:
    const unsigned char* pos_;
    uint32_t left_;
    bool packed_;
};

// `depth`: the structured values around this one.
bool packView(const RMValueView& v, std::string& out, int depth) {
    if (!zn_is_value_type(v.type) || (v.type == ZN_SD_PTR && depth >= kZnMaxSdNesting)) {
        return false;
    }
    zn_data_type_t t = v.type;
    if (size_t w = fixedWidth(t); w != 0) {
        uint64_t bits = 0;
        if (t == ZN_FLOAT32) {
            float f = static_cast<float>(v.num.f);
            uint32_t b32;
            std::memcpy(&b32, &f, 4);
            bits = b32;
        } else if (t == ZN_FLOAT64) {
            std::memcpy(&bits, &v.num.f, 8);
        } else {
            bits = v.num.u;
        }
        putLe(bits, w, out);
        return true;
    }
    if (t == ZN_RSRC_HANDLE_PTR) {
        out.push_back(v.isNull ? '\0' : '\1');
        if (!v.isNull) {
            out.append(reinterpret_cast<const char*>(v.data), kHandleSize);
        }
        return true;
    }
    if (v.isNull) {
        rmPutVarint(0, out);
        return true;
    }
    if (v.len == UINT32_MAX) {
        return false;
    }
    rmPutVarint(v.len + 1, out);
    if (t == ZN_CHAR_PTR || t == ZN_BINARY_PTR) {
        out.append(reinterpret_cast<const char*>(v.data), v.len);
        if (t == ZN_CHAR_PTR) {
            out.push_back('\0');
        }
        return true;
    }
    RMValueView e;
    if (t == ZN_SD_PTR) {
        SdCursor c(v);
        while (c.next(e)) {
            out.push_back(static_cast<char>(e.type));
            if (!packView(e, out, depth + 1)) {
                return false;
            }
        }
        return true;
    }
    RMArrayCursor c(v);
    while (c.next(e)) {
        if (!packView(e, out, depth)) {
            return false;
        }
    }
    return true;
}

const unsigned char* check(zn_data_type_t t, const unsigned char* p, const unsigned char* end,
                           int depth) {
    if (p == nullptr || !zn_is_value_type(t) || (t == ZN_SD_PTR && depth >= kZnMaxSdNesting)) {
        return nullptr;
    }
    auto left = static_cast<size_t>(end - p);
    if (size_t w = fixedWidth(t); w != 0) {
        return left >= w ? p + w : nullptr;
    }
    if (t == ZN_RSRC_HANDLE_PTR) {
        if (left < 1 || *p > 1) {
            return nullptr;
        }
        if (*p == 0) {
            return p + 1;
        }
        return left >= 1 + kHandleSize ? p + 1 + kHandleSize : nullptr;
    }
    uint32_t tag = 0;
    p = rmGetVarint(p, end, tag);
    if (p == nullptr) {
        return nullptr;
    }
    if (tag == 0) {
        return p;
    }
    uint32_t n = tag - 1;
    left = static_cast<size_t>(end - p);
    if (t == ZN_CHAR_PTR) {
        // The text must hold no NUL of its own and end with one.
        if (left < static_cast<size_t>(n) + 1 || p[n] != '\0' || std::memchr(p, 0, n) != nullptr) {
            return nullptr;
        }
        return p + n + 1;
    }
    if (t == ZN_BINARY_PTR) {
        return left >= n ? p + n : nullptr;
    }
    // Every element takes at least one byte, so a count beyond the bytes left
    // is damage; this bounds the loops below by the input's size.
    if (n > left) {
        return nullptr;
    }
    if (t == ZN_SD_PTR) {
        for (uint32_t i = 0; i < n && p != nullptr; ++i) {
            if (p >= end) {
                return nullptr;
            }
            auto et = static_cast<zn_data_type_t>(*p);
            p = check(et, p + 1, end, depth + 1);
        }
        return p;
    }
    zn_data_type_t et = zn_array_element_type(t);
    for (uint32_t i = 0; i < n && p != nullptr; ++i) {
        p = check(et, p, end, depth);
    }
    return p;
}

}  // namespace

void rmPutVarint(uint32_t v, std::string& out) {
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7F) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
}

const unsigned char* rmGetVarint(const unsigned char* p, const unsigned char* end, uint32_t& v) {
    uint64_t acc = 0;
    for (int i = 0; i < 5; ++i) {
        if (p >= end) {
            return nullptr;
        }
        unsigned char b = *p++;
        acc |= static_cast<uint64_t>(b & 0x7F) << (7 * i);
        if ((b & 0x80) == 0) {
            // One encoding per value: a redundant zero byte is damage.
            if (acc > UINT32_MAX || (b == 0 && i > 0)) {
                return nullptr;
            }
            v = static_cast<uint32_t>(acc);
            return p;
        }
    }
    return nullptr;
}

bool rmPackView(const RMValueView& v, std::string& out) {
    return packView(v, out, 0);
}

bool rmPackValue(zn_data_type_t t, const zn_value_t& v, std::string& out) {
    return packView(rmViewOf(t, v), out, 0);
}

const unsigned char* rmCheckPacked(zn_data_type_t t, const unsigned char* p,
                                   const unsigned char* end) {
    return check(t, p, end, 0);
}

const unsigned char* rmPackedView(zn_data_type_t t, const unsigned char* p, RMValueView& out) {
    out = RMValueView{};
    out.type = t;
    if (size_t w = fixedWidth(t); w != 0) {
        uint64_t bits = getLe(p, w);
        if (t == ZN_FLOAT32) {
            float f;
            auto b32 = static_cast<uint32_t>(bits);
            std::memcpy(&f, &b32, 4);
            out.num.f = f;
        } else if (t == ZN_FLOAT64) {
            std::memcpy(&out.num.f, &bits, 8);
        } else if (t == ZN_INT32) {
            out.num.i = static_cast<int32_t>(static_cast<uint32_t>(bits));
        } else {
            out.num.u = bits;
        }
        return p + w;
    }
    if (t == ZN_RSRC_HANDLE_PTR) {
        out.isNull = *p == 0;
        if (out.isNull) {
            return p + 1;
        }
        out.data = p + 1;
        out.len = kHandleSize;
        return p + 1 + kHandleSize;
    }
    uint32_t tag = 0;
    // Checked data: the varint is well formed and in bounds.
    p = rmGetVarint(p, p + 5, tag);
    if (tag == 0) {
        out.isNull = true;
        return p;
    }
    out.len = tag - 1;
    out.data = p;
    out.packed = true;
    if (t == ZN_CHAR_PTR) {
        return p + out.len + 1;
    }
    if (t == ZN_BINARY_PTR) {
        return p + out.len;
    }
    RMValueView e;
    if (t == ZN_SD_PTR) {
        const unsigned char* q = out.data;
        for (uint32_t i = 0; i < out.len; ++i) {
            q = rmPackedView(static_cast<zn_data_type_t>(*q), q + 1, e);
        }
        return q;
    }
    zn_data_type_t et = zn_array_element_type(t);
    if (size_t w = fixedWidth(et); w != 0) {
        return p + static_cast<size_t>(w) * out.len;
    }
    const unsigned char* q = p;
    for (uint32_t i = 0; i < out.len; ++i) {
        q = rmPackedView(et, q, e);
    }
    return q;
}

bool rmCopyOut(const RMValueView& view, zn_value_t& out) {
    out.val_uint64 = 0;
    zn_data_type_t t = view.type;
    switch (t) {
        case ZN_INT32:
            out.val_int32 = static_cast<int32_t>(view.num.i);
            return true;
        case ZN_UINT32:
            out.val_uint32 = static_cast<uint32_t>(view.num.u);
            return true;
        case ZN_INT64:
            out.val_int64 = view.num.i;
            return true;
        case ZN_UINT64:
            out.val_uint64 = view.num.u;
            return true;
        case ZN_FLOAT32:
            out.val_float32 = static_cast<float>(view.num.f);
            return true;
        case ZN_FLOAT64:
            out.val_float64 = view.num.f;
            return true;
        default:
            break;
    }
    if (view.isNull) {
        return true;
    }
    if (t == ZN_CHAR_PTR) {
        auto* s = static_cast<char*>(std::malloc(static_cast<size_t>(view.len) + 1));
        if (s == nullptr) {
            return false;
        }
        if (view.len > 0) {
            std::memcpy(s, view.data, view.len);
        }
        s[view.len] = '\0';
        out.ptr_char = s;
        return true;
    }
    if (t == ZN_BINARY_PTR) {
        out.ptr_binary = zn_binary_new(view.data, view.len);
        return out.ptr_binary != nullptr;
    }
    if (t == ZN_RSRC_HANDLE_PTR) {
        auto* h = static_cast<zn_resource_handle*>(std::malloc(kHandleSize));
        if (h == nullptr) {
            return false;
        }
        std::memcpy(h->bytes, view.data, kHandleSize);
        out.ptr_rsrc_handle = h;
        return true;
    }
    RMValueView e;
    if (t == ZN_SD_PTR) {
        zn_structured_data* sd = zn_sd_new(view.len);
        if (sd == nullptr) {
            return false;
        }
        SdCursor c(view);
        for (uint32_t i = 0; c.next(e); ++i) {
            sd->elements[i].data_type = e.type;
            if (!rmCopyOut(e, sd->elements[i].value)) {
                sd->element_count = i;
                zn_value_t tmp{.ptr_sd = sd};
                zn_value_free(ZN_SD_PTR, tmp);
                return false;
            }
        }
        out.ptr_sd = sd;
        return true;
    }
    if (!zn_is_array_type(t)) {
        return false;
    }
    zn_array* a = zn_array_new(view.len);
    if (a == nullptr) {
        return false;
    }
    RMArrayCursor c(view);
    for (uint32_t i = 0; c.next(e); ++i) {
        if (!rmCopyOut(e, a->elements[i])) {
            a->array_cnt = i;
            zn_value_t tmp{.ptr_array = a};
            zn_value_free(t, tmp);
            return false;
        }
    }
    out.ptr_array = a;
    return true;
}

}  // namespace tarn_rmf
