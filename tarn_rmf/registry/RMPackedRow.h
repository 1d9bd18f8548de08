// One registry row in its packed form: the row id, a column offset table and
// the encoded bytes, which are also exactly what is stored on disk, all in
// one allocation. Rows are immutable once built; a change builds a new row,
// so readers holding an RMRowPtr to the old one never see a half-written row.
// RMRowPtr counts references atomically, so rows are shared across threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarn_rmf/registry/RMRowArena.h"
#include "tarn_rmf/registry/RMSchema.h"
#include "tarn_rmf/registry/RMSelSource.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

using RMRowId = int64_t;

// Largest row a table holds or loads, so damaged sizes can't run away.
inline constexpr size_t kRMMaxRowBytes = 16 * 1024 * 1024;

class RMPackedRow;

// A shared, counted reference to an immutable row (null by default).
class RMRowPtr {
public:
    RMRowPtr() = default;
    RMRowPtr(std::nullptr_t) {}  // NOLINT: null converts implicitly, as for pointers
    RMRowPtr(const RMRowPtr& o) : p_(o.p_) { retain(); }
    RMRowPtr(RMRowPtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    RMRowPtr& operator=(RMRowPtr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }
    ~RMRowPtr() { release(); }

    const RMPackedRow* get() const { return p_; }
    const RMPackedRow* operator->() const { return p_; }
    const RMPackedRow& operator*() const { return *p_; }
    friend bool operator==(const RMRowPtr& a, std::nullptr_t) { return a.p_ == nullptr; }

private:
    friend class RMPackedRow;
    explicit RMRowPtr(RMPackedRow* adopt) : p_(adopt) {}
    void retain();
    void release();
    RMPackedRow* p_ = nullptr;
};

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
    // With a pool, the row's memory comes from its blocks.
    static RMRowPtr fromStored(RMRowId id, std::string_view bytes, const RMSchema& schema,
                               std::string& error, RMRowArenaPool* pool = nullptr);

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
    // bytes of a handle (null = empty), the encoded bytes of other values.
    std::string_view keyBytes(unsigned i) const;

    // Heap bytes held.
    size_t footprint() const;

    // Scans over rows much larger than the caches wait on memory; they ask
    // for a later row's column offsets, then for its column bytes, ahead of
    // reading them. Hints only: nothing is read or written.
    void prefetchOffsets(const std::vector<int>& columns) const;
    void prefetchColumns(const std::vector<int>& columns) const;

    RMPackedRow(const RMPackedRow&) = delete;
    RMPackedRow& operator=(const RMPackedRow&) = delete;

private:
    friend class RMRowPtr;
    RMPackedRow(RMRowId id, unsigned columns, uint32_t size)
        : id_(id), columns_(columns), size_(size) {}
    // The offsets, then the bytes, follow the object in its allocation.
    const unsigned char* tail() const { return reinterpret_cast<const unsigned char*>(this + 1); }
    unsigned char* tail() { return reinterpret_cast<unsigned char*>(this + 1); }
    const unsigned char* blob() const { return tail() + sizeof(uint32_t) * columns_; }
    unsigned char* blob() { return tail() + sizeof(uint32_t) * columns_; }
    uint32_t offset(unsigned i) const;
    static RMRowPtr assemble(RMRowId id, std::string_view bytes, const uint32_t* offsets,
                             unsigned columns, RMRowArenaPool* pool = nullptr);

    RMRowId id_;
    unsigned columns_;
    uint32_t size_;
    mutable std::atomic<uint32_t> refs_{1};
    RMRowArena* arena_ = nullptr;  // the block holding this row, or null: heap
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
