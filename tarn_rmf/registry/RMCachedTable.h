// A registry table held in memory: every row of its view, packed, in row
// order, with hash indexes on the key columns, backed by the tree's SQLite
// store. Selections run in memory; changes go to the store either at once
// (sync mode 1, write-through: each change is one transaction, committed
// before the call returns, so it survives kill -9 of the process) or when
// sync() is called (mode 0, deferred, the default for resource tables;
// changes not yet synced are lost if the process dies).
// What sync() adds: it writes what is pending in one transaction committed
// with synchronous=FULL, which forces the WAL to the disk, then copies the
// WAL into the database file (a checkpoint). After sync() returns, everything
// committed to the tree's store so far, by any table, survives a power loss
// or an operating-system crash, not only the death of the process.
// A crash never leaves part of a change behind (one change = one transaction).
// Tests make the store refuse a step with RMStoreFault.h.
//
// Locks: writer_ (one change at a time, held across its store commit) is
// taken before state_ (shared by readers, exclusive only while a committed
// change is swapped into memory); the tree's store mutex nests inside
// writer_. Rows are immutable and shared, so a snapshot stays consistent.
// Owned by its RMTree, released with RMTree::closeTable.
#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarn_rmf/registry/RMBaseTable.h"
#include "tarn_rmf/registry/RMHashIndex.h"
#include "tarn_rmf/registry/RMRegistryDb.h"

namespace tarn_rmf {

class RMCachedTable : public RMBaseTable {
public:
    // Opens or creates table `path` in `db` (see RMTree for the arguments):
    // merges the definition (new columns get their defaults in every row),
    // loads the rows the filter selects, and for a class table adds its one
    // row when there is none. Throws RMTableError.
    RMCachedTable(std::shared_ptr<RMRegistryDb> db, const std::string& path,
                  const RMSchema& defined, const char* key, const char* filter, bool classTable);
    ~RMCachedTable() override;

    // 1: write every change through; 0: defer to sync(). Switching to 1 first
    // writes what is pending.
    void setSyncMode(unsigned mode);
    unsigned getSyncMode() const;
    // Writes the pending changes and makes everything durable on the disk.
    void sync();
    // Changes made in mode 0 and not yet written.
    size_t pendingCount() const;

    // Adds a hash index on a column (the key columns have one already).
    void createIndex(const char* column);
    // Checks a selection without running it; throws kSelection.
    void checkSelection(const char* selection) const { compileSelection(selection); }

    const std::string& getPath() const override { return path_; }
    const RMSchema& getSchema() const override { return *schema_; }
    const std::string& getFilter() const { return filterText_; }
    const std::string& getKey() const { return keyName_; }
    unsigned getRowCount() const;
    // Approximate bytes held by rows and indexes.
    size_t memoryFootprint() const;

    std::shared_ptr<const RMSelection> compileSelection(const char* selection) const override;
    RMRowSet select(const char* selection, const RMSelParams* params = nullptr) const override;
    RMRowSet getMetadata() const override;
    RMRowSet getRow(RMRowId id) const override;
    RMRowId addRow(const RMFieldValue* values, unsigned count) override;
    unsigned changeRows(const char* selection, const RMSelParams* params,
                        const RMFieldValue* values, unsigned count) override;
    void changeRow(RMRowId id, const RMFieldValue* values, unsigned count) override;
    unsigned deleteRows(const char* selection, const RMSelParams* params = nullptr) override;
    void deleteRow(RMRowId id) override;

private:
    void load(bool classTable, const char* filter);
    std::vector<RMPackedField> packFields(const RMFieldValue* values, unsigned count) const;
    std::vector<RMRowPtr> matching(const RMSelection& sel, const RMSelBinding& b) const;
    void checkSize(const RMRowPtr& row) const;  // kBadValue past kRMMaxRowBytes
    RMRowPtr findRow(RMRowId id) const;         // under state_
    int slotOf(RMRowId id) const;               // under state_; -1 when none
    // Writes replacements (null new row = delete) to the store or the pending
    // set, then into memory. Under writer_.
    void apply(const std::vector<RMRowPtr>& olds, const std::vector<RMRowPtr>& news);
    void checkKeys(const std::vector<RMRowPtr>& olds, const std::vector<RMRowPtr>& news) const;
    void writePending(bool durable);
    void compactIfSparse();  // under exclusive state_

    std::shared_ptr<RMRegistryDb> db_;
    std::string path_;
    std::string filterText_;
    std::string keyName_;
    int keyColumn_ = -1;
    int64_t tableId_ = 0;
    std::shared_ptr<const RMSchema> schema_;

    mutable std::shared_mutex state_;
    std::vector<RMRowPtr> slots_;   // row order; null where a row was deleted
    std::vector<RMRowId> slotIds_;  // row id of each slot, ascending
    size_t live_ = 0;
    std::vector<std::unique_ptr<RMHashIndex>> indexes_;  // by column; null: none

    mutable std::mutex writer_;
    unsigned syncMode_ = 0;
    RMRowId nextRowId_ = 1;
    std::unordered_map<RMRowId, RMRowPtr> pending_;  // deferred: newest row, null = deleted

    mutable std::mutex cacheMutex_;
    mutable std::unordered_map<std::string, std::shared_ptr<const RMSelection>> cache_;
};

}  // namespace tarn_rmf
