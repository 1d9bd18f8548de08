#include "tarn_rmf/registry/RMHashIndex.h"

#include <algorithm>
#include <cmath>
#include <functional>

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

uint32_t RMHashIndex::hashOf(std::string_view key) {
    auto h = static_cast<uint64_t>(std::hash<std::string_view>{}(key));
    return static_cast<uint32_t>(h ^ (h >> 32));
}

void RMHashIndex::clear() {
    std::fill(entries_.begin(), entries_.end(), Entry{0, kEmpty});
    size_ = 0;
    erased_ = 0;
}

void RMHashIndex::reserve(size_t n) {
    size_t want = 16;
    while (want < 2 * n) {
        want *= 2;
    }
    if (want > entries_.size()) {
        grow(want);
    }
}

void RMHashIndex::grow(size_t capacity) {
    std::vector<Entry> old;
    old.swap(entries_);
    entries_.assign(capacity, Entry{0, kEmpty});
    size_t mask = capacity - 1;
    for (const Entry& e : old) {
        if (e.slot < kErased) {
            size_t i = e.hash & mask;
            while (entries_[i].slot != kEmpty) {
                i = (i + 1) & mask;
            }
            entries_[i] = e;
        }
    }
    erased_ = 0;
}

void RMHashIndex::insert(const RMPackedRow& row, uint32_t slot) {
    if (2 * (size_ + erased_ + 1) > entries_.size()) {
        // Erased entries are dropped by rebuilding; the size only doubles
        // when live entries need it.
        grow(entries_.empty()                    ? 16
             : 4 * (size_ + 1) > entries_.size() ? 2 * entries_.size()
                                                 : entries_.size());
    }
    uint32_t h = hashOf(row.keyBytes(column_));
    size_t mask = entries_.size() - 1;
    size_t i = h & mask;
    while (entries_[i].slot < kErased) {
        i = (i + 1) & mask;
    }
    if (entries_[i].slot == kErased) {
        --erased_;
    }
    entries_[i] = Entry{h, slot};
    ++size_;
}

void RMHashIndex::erase(const RMPackedRow& row, uint32_t slot) {
    if (entries_.empty()) {
        return;
    }
    uint32_t h = hashOf(row.keyBytes(column_));
    size_t mask = entries_.size() - 1;
    for (size_t i = h & mask; entries_[i].slot != kEmpty; i = (i + 1) & mask) {
        if (entries_[i].slot == slot && entries_[i].hash == h) {
            entries_[i].slot = kErased;
            --size_;
            ++erased_;
            return;
        }
    }
}

void RMHashIndex::find(std::string_view key, std::vector<uint32_t>& out) const {
    if (entries_.empty()) {
        return;
    }
    uint32_t h = hashOf(key);
    size_t mask = entries_.size() - 1;
    for (size_t i = h & mask; entries_[i].slot != kEmpty; i = (i + 1) & mask) {
        const Entry& e = entries_[i];
        if (e.slot < kErased && e.hash == h && slots_[e.slot] != nullptr &&
            slots_[e.slot]->keyBytes(column_) == key) {
            out.push_back(e.slot);
        }
    }
}

}  // namespace tarn_rmf
