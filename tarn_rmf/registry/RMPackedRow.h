// One registry row in its packed form: the row id, a column offset table and
// the encoded bytes, which are also exactly what is stored on disk. Rows are
// immutable once built; a change builds a new row, so readers holding a
// shared_ptr to the old one never see a half-written row.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarn_rmf/registry/RMSchema.h"
#include "tarn_rmf/registry/RMSelSource.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

using RMRowId = int64_t;

class RMPackedRow;
using RMRowPtr = std::shared_ptr<const RMPackedRow>;

// A column to set, already encoded (value bytes without the type byte).
struct RMPackedField {
    unsigned column;
    std::string bytes;
};

class RMPackedRow {
public:
    // Checks stored bytes against the schema. Rows stored with fewer columns
    // (written before an upgrade) get the defaults of the missing ones. Null
    // with `error` set when the bytes are damaged or disagree with the schema.
    static RMRowPtr fromStored(RMRowId id, std::string_view bytes, const RMSchema& schema,
                               std::string& error);

    // A row of `schema` whose columns are `fields`, else those of `base`
    // (when given), else the defaults. Fields must be sorted by column, unique.
    static RMRowPtr build(RMRowId id, const RMSchema& schema, const RMPackedRow* base,
                          const std::vector<RMPackedField>& fields);

    RMRowId rowId() const { return id_; }
    unsigned columnCount() const { return columns_; }
    std::string_view bytes() const { return {reinterpret_cast<const char*>(blob()), size_}; }

    // The view of a column (valid while this row lives).
    RMValueView column(unsigned i) const;
    // The bytes a hash index keys on: text of strings (null = ""), the 20
    // bytes of a handle (null = empty), the little-endian bytes of scalars.
    std::string_view keyBytes(unsigned i) const;

    // Approximate heap bytes held, for memory accounting.
    size_t footprint() const;

    RMPackedRow(RMRowId id, unsigned columns, uint32_t size);

private:
    const unsigned char* blob() const { return mem_.get() + sizeof(uint32_t) * columns_; }
    unsigned char* blob() { return mem_.get() + sizeof(uint32_t) * columns_; }
    uint32_t offset(unsigned i) const;
    static RMRowPtr assemble(RMRowId id, std::string_view bytes,
                             const std::vector<uint32_t>& offsets);

    RMRowId id_;
    unsigned columns_;
    uint32_t size_;
    std::unique_ptr<unsigned char[]> mem_;  // offsets (uint32 each), then the bytes
};

// A packed row as the selection evaluator reads it.
class RMRowSource final : public RMValueSource {
public:
    explicit RMRowSource(const RMPackedRow& row) : row_(row) {}
    bool value(int column, RMValueView& out) const override {
        if (column < 0 || static_cast<unsigned>(column) >= row_.columnCount()) {
            return false;
        }
        out = row_.column(static_cast<unsigned>(column));
        return true;
    }

private:
    const RMPackedRow& row_;
};

}  // namespace tarn_rmf
