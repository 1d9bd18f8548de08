// A hash index over one column of a cached table: the column's key bytes
// (see RMPackedRow::keyBytes) to the slots of the rows that hold them, so an
// equality lookup costs O(1) whatever the table's size. Keys are views into
// the rows, which the table keeps alive while they are indexed. Not
// synchronised: the owning table guards it with its state lock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tarn_rmf/registry/RMPackedRow.h"

namespace tarn_rmf {

class RMHashIndex {
public:
    explicit RMHashIndex(unsigned column) : column_(column) {}

    // Columns whose values an index can key: scalars other than floats,
    // strings, handles and binaries.
    static bool canIndex(zn_data_type_t type);

    // The key bytes a column of `type` would hold for the value `key`; false
    // when no value of the column can equal it (say, -1 for an unsigned column).
    static bool keyFor(zn_data_type_t type, const RMValueView& key, std::string& out);

    unsigned column() const { return column_; }
    void insert(const RMPackedRow& row, uint32_t slot);
    void erase(const RMPackedRow& row, uint32_t slot);
    void clear() { map_.clear(); }
    void reserve(size_t n) { map_.reserve(n); }

    // Appends the slots of rows whose key equals `key` (key bytes).
    void find(std::string_view key, std::vector<uint32_t>& out) const;
    // Whether a row other than the one in `exceptSlot` holds `key`.
    bool holdsOther(std::string_view key, uint32_t exceptSlot) const;

private:
    unsigned column_;
    std::unordered_multimap<std::string_view, uint32_t> map_;
};

}  // namespace tarn_rmf
