#include "tarn_rmf/registry/RMCachedTable.h"

#include <algorithm>

#include "tarn_rmf/registry/RMStoreFault.h"
#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

// The columns the classes look rows up by; each gets a hash index when the
// table has it.
constexpr const char* kKeyColumns[] = {"ResourceHandle", "Hostname", "UniversalId", "Name",
                                       "IPAddress"};

// Cached compiled selections per table; past this the cache starts afresh.
constexpr size_t kMaxCachedSelections = 256;

}  // namespace

RMCachedTable::RMCachedTable(std::shared_ptr<RMRegistryDb> db, const std::string& path,
                             const RMSchema& defined, const char* key, const char* filter,
                             bool classTable)
    : db_(std::move(db)),
      path_(path),
      filterText_(filter != nullptr ? filter : ""),
      keyName_(key != nullptr ? key : ""),
      schema_(std::make_shared<const RMSchema>(defined)) {
    load(classTable, filter);
    indexes_.resize(schema_->size());
    std::vector<int> wanted;
    if (keyColumn_ >= 0) {
        wanted.push_back(keyColumn_);
    }
    for (const char* name : kKeyColumns) {
        wanted.push_back(schema_->find(name));
    }
    for (int c : wanted) {
        if (c >= 0 && indexes_[static_cast<size_t>(c)] == nullptr &&
            RMHashIndex::canIndex(schema_->column(static_cast<unsigned>(c)).type)) {
            auto idx = std::make_unique<RMHashIndex>(static_cast<unsigned>(c), slots_);
            idx->reserve(slots_.size());
            for (size_t s = 0; s < slots_.size(); ++s) {
                idx->insert(*slots_[s], static_cast<uint32_t>(s));
            }
            indexes_[static_cast<size_t>(c)] = std::move(idx);
        }
    }
    syncMode_ = classTable ? 1 : 0;
}

RMCachedTable::~RMCachedTable() {
    // RMTree::closeTable syncs first; this is the last chance for the rest.
    try {
        std::lock_guard<std::mutex> lock(writer_);
        if (!pending_.empty()) {
            writePending(true);
        }
    } catch (...) {
    }
}

void RMCachedTable::load(bool classTable, const char* filter) {
    RMCheckStoreFault(path_, RMStoreStep::kOpen);
    RMRegistryDb::Txn txn(*db_);
    bool existed = false;
    std::string stored;
    tableId_ = db_->ensureTable(path_, existed, stored);
    RMSchema schema = *schema_;
    if (existed) {
        if (!RMSchema::fromStored(stored, schema)) {
            throw RMTableError::build(RMTableErrc::kBadDefinition, path_.c_str(),
                                      "the stored definition is damaged");
        }
        RMSchema before = schema;
        schema.mergeDefinition(path_, *schema_);
        if (!schema.sameAs(before)) {
            db_->saveDefinition(tableId_, schema.serialize());
        }
    } else {
        db_->saveDefinition(tableId_, schema.serialize());
    }
    schema_ = std::make_shared<const RMSchema>(std::move(schema));
    if (!keyName_.empty()) {
        keyColumn_ = schema_->find(keyName_);
        if (keyColumn_ < 0 ||
            !RMHashIndex::canIndex(schema_->column(static_cast<unsigned>(keyColumn_)).type)) {
            throw RMTableError::build(
                RMTableErrc::kBadDefinition, path_.c_str(),
                ("the key " + keyName_ + " is not a column that can be a key").c_str());
        }
    }
    std::shared_ptr<const RMSelection> sel;
    RMSelBinding binding;
    if (filter != nullptr && *filter != '\0') {
        sel = RMSelection::compile(filter, RMSchemaSource(*schema_));
        binding = sel->bind(nullptr);
    }
    RMRowId maxId = 0;
    std::vector<RMRowPtr> upgraded;
    RMRowArenaPool pool;
    db_->loadRows(tableId_, [&](int64_t id, std::string_view bytes) {
        maxId = std::max(maxId, id);
        std::string error;
        RMRowPtr row = RMPackedRow::fromStored(id, bytes, *schema_, error, &pool);
        if (row == nullptr) {
            throw RMTableError::build(RMTableErrc::kDamagedRow, path_.c_str(),
                                      static_cast<long long>(id), error.c_str());
        }
        if (row->bytes().size() != bytes.size()) {
            upgraded.push_back(row);
        }
        if (sel == nullptr || sel->evaluate(RMRowSource(*row), binding)) {
            slots_.push_back(std::move(row));
            slotIds_.push_back(id);
        }
    });
    // Rows stored before columns were added are rewritten with the defaults,
    // in this same transaction.
    for (const RMRowPtr& row : upgraded) {
        db_->putRow(tableId_, row->rowId(), row->bytes());
    }
    nextRowId_ = maxId + 1;
    if (classTable && slots_.empty()) {
        RMRowPtr row = RMPackedRow::build(nextRowId_++, *schema_, nullptr, {});
        db_->putRow(tableId_, row->rowId(), row->bytes());
        slotIds_.push_back(row->rowId());
        slots_.push_back(std::move(row));
    }
    live_ = slots_.size();
    txn.commit();
}

void RMCachedTable::setSyncMode(unsigned mode) {
    std::lock_guard<std::mutex> lock(writer_);
    if (mode != 0 && !pending_.empty()) {
        RMCheckStoreFault(path_, RMStoreStep::kWrite);
        writePending(false);
    }
    syncMode_ = mode != 0 ? 1 : 0;
}

unsigned RMCachedTable::getSyncMode() const {
    std::lock_guard<std::mutex> lock(writer_);
    return syncMode_;
}

size_t RMCachedTable::pendingCount() const {
    std::lock_guard<std::mutex> lock(writer_);
    return pending_.size();
}

void RMCachedTable::sync() {
    std::lock_guard<std::mutex> lock(writer_);
    RMCheckStoreFault(path_, RMStoreStep::kSync);
    writePending(true);
    db_->checkpoint();
}

void RMCachedTable::writePending(bool durable) {
    RMRegistryDb::Txn txn(*db_, durable);
    for (const auto& [id, row] : pending_) {
        if (row != nullptr) {
            db_->putRow(tableId_, id, row->bytes());
        } else {
            db_->deleteRow(tableId_, id);
        }
    }
    if (durable) {
        db_->bumpSyncCount();
    }
    txn.commit();
    pending_.clear();
}

void RMCachedTable::createIndex(const char* column) {
    int c = column != nullptr ? schema_->find(column) : -1;
    if (c < 0) {
        throw RMTableError::build(RMTableErrc::kUnknownColumn, path_.c_str(),
                                  column != nullptr ? column : "(null)");
    }
    if (!RMHashIndex::canIndex(schema_->column(static_cast<unsigned>(c)).type)) {
        throw RMTableError::build(RMTableErrc::kBadDefinition, path_.c_str(),
                                  "this column's type can't be indexed");
    }
    std::lock_guard<std::mutex> lock(writer_);
    std::unique_lock<std::shared_mutex> state(state_);
    auto& idx = indexes_[static_cast<size_t>(c)];
    if (idx != nullptr) {
        return;
    }
    idx = std::make_unique<RMHashIndex>(static_cast<unsigned>(c), slots_);
    for (size_t s = 0; s < slots_.size(); ++s) {
        if (slots_[s] != nullptr) {
            idx->insert(*slots_[s], static_cast<uint32_t>(s));
        }
    }
}

unsigned RMCachedTable::getRowCount() const {
    std::shared_lock<std::shared_mutex> lock(state_);
    return static_cast<unsigned>(live_);
}

size_t RMCachedTable::memoryFootprint() const {
    std::shared_lock<std::shared_mutex> lock(state_);
    size_t total = slots_.capacity() * (sizeof(RMRowPtr) + sizeof(RMRowId));
    for (const auto& idx : indexes_) {
        total += idx != nullptr ? idx->bytes() : 0;
    }
    for (const RMRowPtr& r : slots_) {
        if (r != nullptr) {
            total += r->footprint();
        }
    }
    return total;
}

std::shared_ptr<const RMSelection> RMCachedTable::compileSelection(const char* selection) const {
    std::string text = selection != nullptr ? selection : "";
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        auto it = cache_.find(text);
        if (it != cache_.end()) {
            return it->second;
        }
    }
    auto sel = RMSelection::compile(text, RMSchemaSource(*schema_));
    std::lock_guard<std::mutex> lock(cacheMutex_);
    if (cache_.size() >= kMaxCachedSelections) {
        cache_.clear();
    }
    cache_.emplace(std::move(text), sel);
    return sel;
}

}  // namespace tarn_rmf
