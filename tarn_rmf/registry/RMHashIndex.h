// A hash index over one column of a cached table: an open-addressing table of
// (hash, slot) pairs, so an equality lookup costs O(1) whatever the table's
// size and an indexed row costs 16-32 bytes, with no allocation of its own.
// Keys are not copied: a probe compares against the row in the table's slot
// (RMPackedRow::keyBytes), so the index must see the table's slot vector as
// it is when find() runs. Not synchronised: the owning table guards it with
// its state lock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarn_rmf/registry/RMPackedRow.h"

namespace tarn_rmf {

class RMHashIndex {
public:
    RMHashIndex(unsigned column, const std::vector<RMRowPtr>& slots)
        : column_(column), slots_(slots) {}

    // Columns whose values an index can key: scalars other than floats,
    // strings, handles and binaries.
    static bool canIndex(zn_data_type_t type);

    // The key bytes a column of `type` would hold for the value `key`; false
    // when no value of the column can equal it (say, -1 for an unsigned column).
    static bool keyFor(zn_data_type_t type, const RMValueView& key, std::string& out);

    unsigned column() const { return column_; }
    size_t size() const { return size_; }
    size_t bytes() const { return entries_.capacity() * sizeof(Entry); }

    void insert(const RMPackedRow& row, uint32_t slot);
    void erase(const RMPackedRow& row, uint32_t slot);
    void clear();
    void reserve(size_t n);

    // Appends the slots of rows whose key equals `key` (key bytes).
    void find(std::string_view key, std::vector<uint32_t>& out) const;

private:
    struct Entry {
        uint32_t hash;
        uint32_t slot;  // kEmpty, kErased or a slot of the table
    };
    static constexpr uint32_t kEmpty = UINT32_MAX;
    static constexpr uint32_t kErased = UINT32_MAX - 1;

    static uint32_t hashOf(std::string_view key);
    void grow(size_t capacity);

    unsigned column_;
    const std::vector<RMRowPtr>& slots_;
    std::vector<Entry> entries_;  // power-of-two size, at most half used
    size_t size_ = 0;
    size_t erased_ = 0;
};

}  // namespace tarn_rmf
