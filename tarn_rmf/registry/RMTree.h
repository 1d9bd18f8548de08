// The daemon's registry tree ("/var/zn/IW/registry/local_tree", rooted by
// ZN_ROOT through platform/paths.h): a directory holding the SQLite store of
// every registry table, and the tables opened on it. mountTree/unmountTree
// bracket table creation; the store stays open while the tree is mounted or
// any table is open. The tree owns its tables: closeTable (or the tree's
// destructor) syncs and releases them. Thread safe: an internal mutex guards
// the mount count and the open-table list.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "tarn_rmf/registry/RMCachedTable.h"
#include "tarn_rmf/registry/RMPersAttrDefs.h"

namespace tarn_rmf {

// Option bit of RMCreateResourceTable: keep the table's rows in memory. Every
// table here is cached, so it is accepted and changes nothing.
inline constexpr unsigned kRMTableCached = 0x1;

class RMTree {
public:
    // `path` is a fixed path of the system; it is rooted by ZN_ROOT.
    explicit RMTree(const char* path);
    ~RMTree();
    RMTree(const RMTree&) = delete;
    RMTree& operator=(const RMTree&) = delete;

    // Opens the store on the first mount; throws RMTableError kStorage.
    void mountTree();
    void unmountTree();
    bool isMounted() const;

    // Writes the table's pending changes durably and releases it (null is
    // ignored). When that write fails the table stays open and the error is
    // thrown, so nothing is lost.
    void closeTable(RMBaseTable* table);

    // The directory of the store (after rooting).
    const std::string& getPath() const { return dir_; }
    // SQLite's integrity check of the store: "ok" when sound. Needs the
    // store open (mounted or a table open).
    std::string checkIntegrity();

    // Opens a table (see RMCreateClassTable and RMCreateResourceTable).
    // Opening a path that is already open with the same definition, key and
    // filter returns the same table (closeTable then releases one use); with
    // anything else, kAlreadyOpen.
    RMCachedTable* openTable(const char* tablePath, const RMPersAttrDefs* columns, unsigned count,
                             const char* key, const char* filter, bool classTable);

private:
    struct Open {
        std::unique_ptr<RMCachedTable> table;
        RMSchema defined;
        std::string key;
        std::string filter;
        bool classTable;
        unsigned uses;
    };
    void releaseStoreIfIdle();  // under mutex_

    std::string dir_;
    mutable std::mutex mutex_;
    unsigned mounts_ = 0;
    std::shared_ptr<RMRegistryDb> db_;
    std::map<std::string, Open> open_;
};

// Creates or opens the one-row class table `tablePath` ("/Kor/<Class>/Class")
// with these columns; a new table gets one row of defaults. Class tables
// write every change through (sync mode 1). `reserved` is not used. The tree
// must be mounted. Throws RMTableError.
RMCachedTable* RMCreateClassTable(RMTree* tree, const char* tablePath,
                                  const RMPersAttrDefs* columns, unsigned count,
                                  const char* reserved = nullptr);

// Creates or opens the resource table `tablePath` ("/Kor/<Class>/Resources"),
// one row per resource. `key` names the column that identifies a row (unique
// among the rows the table holds; null for none). `filter`, when not null or
// empty, is a selection: only matching rows are loaded, rows added through
// the table join its view whatever they hold, and stored rows outside the view
// are kept as they are. `option` is 0 or kRMTableCached.
// Resource tables start deferred (sync mode 0). Throws RMTableError.
RMCachedTable* RMCreateResourceTable(RMTree* tree, const char* tablePath,
                                     const RMPersAttrDefs* columns, unsigned count, const char* key,
                                     const char* filter, unsigned option);

}  // namespace tarn_rmf
