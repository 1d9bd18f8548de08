#include "tarn_rmf/registry/RMTree.h"

#include "platform/paths.h"
#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {

RMTree::RMTree(const char* path) : dir_(zn::paths::resolve(path != nullptr ? path : "")) {}

RMTree::~RMTree() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [path, open] : open_) {
        try {
            open.table->sync();
        } catch (...) {
            // Nothing can report it here; the table's own destructor tries once more.
        }
    }
    open_.clear();
    db_.reset();
}

void RMTree::mountTree() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (db_ == nullptr) {
        db_ = std::make_shared<RMRegistryDb>(dir_);
    }
    ++mounts_;
}

void RMTree::unmountTree() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mounts_ > 0) {
        --mounts_;
    }
    releaseStoreIfIdle();
}

bool RMTree::isMounted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mounts_ > 0;
}

void RMTree::releaseStoreIfIdle() {
    if (mounts_ == 0 && open_.empty()) {
        db_.reset();
    }
}

std::string RMTree::checkIntegrity() {
    std::shared_ptr<RMRegistryDb> db;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        db = db_;
    }
    if (db == nullptr) {
        throw RMTableError::build(RMTableErrc::kNotMounted, dir_.c_str());
    }
    return db->integrityCheck();
}

RMCachedTable* RMTree::openTable(const char* tablePath, const RMPersAttrDefs* columns,
                                 unsigned count, const char* key, const char* filter,
                                 bool classTable) {
    std::string path = tablePath != nullptr ? tablePath : "";
    if (path.empty() || path.front() != '/') {
        throw RMTableError::build(RMTableErrc::kBadDefinition, path.c_str(),
                                  "a table path starts with \"/\"");
    }
    RMSchema defined(path, columns, count);
    std::string keyText = key != nullptr ? key : "";
    std::string filterText = filter != nullptr ? filter : "";
    std::lock_guard<std::mutex> lock(mutex_);
    if (mounts_ == 0 || db_ == nullptr) {
        throw RMTableError::build(RMTableErrc::kNotMounted, dir_.c_str());
    }
    auto it = open_.find(path);
    if (it != open_.end()) {
        Open& o = it->second;
        if (!o.defined.sameAs(defined) || o.key != keyText || o.filter != filterText ||
            o.classTable != classTable) {
            throw RMTableError::build(RMTableErrc::kAlreadyOpen, path.c_str());
        }
        ++o.uses;
        return o.table.get();
    }
    auto table = std::make_unique<RMCachedTable>(db_, path, defined, key, filter, classTable);
    RMCachedTable* raw = table.get();
    open_.emplace(path,
                  Open{std::move(table), std::move(defined), keyText, filterText, classTable, 1});
    return raw;
}

void RMTree::closeTable(RMBaseTable* table) {
    if (table == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = open_.begin(); it != open_.end(); ++it) {
        if (it->second.table.get() != table) {
            continue;
        }
        if (--it->second.uses > 0) {
            return;
        }
        try {
            it->second.table->sync();
        } catch (...) {
            ++it->second.uses;
            throw;
        }
        open_.erase(it);
        releaseStoreIfIdle();
        return;
    }
}

RMCachedTable* RMCreateClassTable(RMTree* tree, const char* tablePath,
                                  const RMPersAttrDefs* columns, unsigned count,
                                  const char* reserved) {
    (void)reserved;
    if (tree == nullptr) {
        throw RMTableError::build(RMTableErrc::kNotMounted, "(null)");
    }
    return tree->openTable(tablePath, columns, count, nullptr, nullptr, true);
}

RMCachedTable* RMCreateResourceTable(RMTree* tree, const char* tablePath,
                                     const RMPersAttrDefs* columns, unsigned count, const char* key,
                                     const char* filter, unsigned option) {
    if (tree == nullptr) {
        throw RMTableError::build(RMTableErrc::kNotMounted, "(null)");
    }
    if ((option & ~kRMTableCached) != 0) {
        std::string detail = "option " + std::to_string(option) + " is not known";
        throw RMTableError::build(RMTableErrc::kBadDefinition,
                                  tablePath != nullptr ? tablePath : "(null)", detail.c_str());
    }
    return tree->openTable(tablePath, columns, count, key, filter, false);
}

}  // namespace tarn_rmf
