// The rows a selection (or getMetadata) found: a consistent snapshot taken
// under the table's read lock, in row order. Reading from it needs no lock and
// sees no later change; values handed out are copies the caller owns
// (release each with zn_value_free of its type). Movable, not thread-bound;
// readers may share a const RMRowSet.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMPackedRow.h"
#include "tarn_rmf/registry/RMSchema.h"

namespace tarn_rmf {

class RMRowSet {
public:
    RMRowSet() = default;
    RMRowSet(std::shared_ptr<const RMSchema> schema, std::string table, std::vector<RMRowPtr> rows)
        : schema_(std::move(schema)), table_(std::move(table)), rows_(std::move(rows)) {}

    unsigned getRowCount() const { return static_cast<unsigned>(rows_.size()); }
    bool empty() const { return rows_.empty(); }
    RMRowId getRowId(unsigned row) const;

    // Copies the named columns of row `row` into out[0..count) and, when
    // `types` is given, their types into types[]. All or nothing: throws
    // RMTableError (kRowIndex, kUnknownColumn) before copying, CNoMemory
    // after freeing what was copied.
    void getFieldsByIndexV(unsigned row, const char* const* names, unsigned count, zn_value_t* out,
                           zn_data_type_t* types = nullptr) const;
    // The same by column position (the attribute id).
    void getFieldsByIdV(unsigned row, const int* columns, unsigned count, zn_value_t* out,
                        zn_data_type_t* types = nullptr) const;
    // One column of one row, copied; its type is getColumnType.
    zn_value_t getField(unsigned row, const char* name) const;

    // A view of one column (no copy), valid while this set lives.
    RMValueView viewField(unsigned row, unsigned column) const;

    // Column position (-1 when none) and type.
    int getColumnIndex(const char* name) const;
    zn_data_type_t getColumnType(unsigned column) const;

private:
    const RMPackedRow& rowAt(unsigned row) const;
    unsigned columnAt(int column) const;

    std::shared_ptr<const RMSchema> schema_;
    std::string table_;
    std::vector<RMRowPtr> rows_;
};

}  // namespace tarn_rmf
