#include "tarn_rmf/registry/RMHashIndex.h"

#include <cmath>

namespace tarn_rmf {
namespace {

void putLe(uint64_t v, size_t width, std::string& out) {
    for (size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}

// The key as an exact integer, when it is one: sign and magnitude.
bool exactInteger(const RMValueView& key, bool& negative, uint64_t& magnitude) {
    if (rmIsFloatType(key.type)) {
        double f = key.num.f;
        if (!std::isfinite(f) || std::floor(f) != f || std::fabs(f) >= 18446744073709551616.0) {
            return false;
        }
        negative = f < 0;
        magnitude = static_cast<uint64_t>(std::fabs(f));
        return true;
    }
    if (rmIsSignedType(key.type) && key.num.i < 0) {
        negative = true;
        magnitude = 0 - static_cast<uint64_t>(key.num.i);
        return true;
    }
    negative = false;
    magnitude = key.num.u;
    return true;
}

}  // namespace

bool RMHashIndex::canIndex(zn_data_type_t type) {
    switch (type) {
        case ZN_INT32:
        case ZN_UINT32:
        case ZN_INT64:
        case ZN_UINT64:
        case ZN_CHAR_PTR:
        case ZN_BINARY_PTR:
        case ZN_RSRC_HANDLE_PTR:
            return true;
        default:
            return false;
    }
}

bool RMHashIndex::keyFor(zn_data_type_t type, const RMValueView& key, std::string& out) {
    out.clear();
    if (type == ZN_CHAR_PTR || type == ZN_RSRC_HANDLE_PTR) {
        if (key.type != type) {
            return false;
        }
        out.assign(key.text());
        return true;
    }
    if (type == ZN_BINARY_PTR) {
        if (key.type != type) {
            return false;
        }
        // Binary key bytes are the whole encoding: the length tag, then the bytes.
        if (key.isNull) {
            out.push_back('\0');
            return true;
        }
        uint32_t tag = key.len + 1;
        while (tag >= 0x80) {
            out.push_back(static_cast<char>((tag & 0x7F) | 0x80));
            tag >>= 7;
        }
        out.push_back(static_cast<char>(tag));
        out.append(key.text());
        return true;
    }
    bool negative = false;
    uint64_t mag = 0;
    if (!rmIsNumericType(key.type) || !exactInteger(key, negative, mag)) {
        return false;
    }
    switch (type) {
        case ZN_UINT32:
            if (negative || mag > UINT32_MAX)
                return false;
            putLe(mag, 4, out);
            return true;
        case ZN_UINT64:
            if (negative)
                return false;
            putLe(mag, 8, out);
            return true;
        case ZN_INT32:
            if (negative ? mag > uint64_t{1} << 31 : mag > INT32_MAX)
                return false;
            putLe(static_cast<uint32_t>(negative ? 0 - mag : mag), 4, out);
            return true;
        case ZN_INT64:
            if (negative ? mag > uint64_t{1} << 63 : mag > INT64_MAX)
                return false;
            putLe(negative ? 0 - mag : mag, 8, out);
            return true;
        default:
            return false;
    }
}

void RMHashIndex::insert(const RMPackedRow& row, uint32_t slot) {
    map_.emplace(row.keyBytes(column_), slot);
}

void RMHashIndex::erase(const RMPackedRow& row, uint32_t slot) {
    auto [b, e] = map_.equal_range(row.keyBytes(column_));
    for (auto it = b; it != e; ++it) {
        if (it->second == slot) {
            map_.erase(it);
            return;
        }
    }
}

void RMHashIndex::find(std::string_view key, std::vector<uint32_t>& out) const {
    auto [b, e] = map_.equal_range(key);
    for (auto it = b; it != e; ++it) {
        out.push_back(it->second);
    }
}

bool RMHashIndex::holdsOther(std::string_view key, uint32_t exceptSlot) const {
    auto [b, e] = map_.equal_range(key);
    for (auto it = b; it != e; ++it) {
        if (it->second != exceptSlot) {
            return true;
        }
    }
    return false;
}

}  // namespace tarn_rmf
