// The row operations of RMCachedTable: selections in memory, and changes that
// are committed to the store (or queued) before they are swapped into memory.
#include <algorithm>
#include <unordered_set>

#include "tarn_rmf/registry/RMCachedTable.h"
#include "tarn_rmf/registry/RMStoreFault.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {
namespace {

constexpr size_t kMinTombstones = 1024;

const char* typeName(zn_data_type_t t) {
    const char* n = zn_data_type_name(t);
    return n != nullptr ? n : "an unknown type";
}

}  // namespace

std::vector<RMPackedField> RMCachedTable::packFields(const RMFieldValue* values,
                                                     unsigned count) const {
    std::vector<RMPackedField> fields;
    fields.reserve(count);
    for (unsigned k = 0; k < count; ++k) {
        const RMFieldValue& v = values[k];
        int c = v.name != nullptr ? schema_->find(v.name) : v.column;
        if (c < 0 || static_cast<unsigned>(c) >= schema_->size()) {
            std::string name = v.name != nullptr ? v.name : std::to_string(v.column);
            throw RMTableError::build(RMTableErrc::kUnknownColumn, path_.c_str(), name.c_str());
        }
        const RMColumn& col = schema_->column(static_cast<unsigned>(c));
        if (v.type != col.type) {
            throw RMTableError::build(RMTableErrc::kTypeMismatch, path_.c_str(), col.name.c_str(),
                                      typeName(col.type), typeName(v.type));
        }
        RMPackedField f{static_cast<unsigned>(c), {}};
        if (!rmPackValue(v.type, v.value, f.bytes)) {
            throw RMTableError::build(RMTableErrc::kBadValue, path_.c_str(), col.name.c_str(),
                                      "it nests too deeply or holds a type that can't be stored");
        }
        if (f.bytes.size() > kRMMaxRowBytes) {
            throw RMTableError::build(RMTableErrc::kBadValue, path_.c_str(), col.name.c_str(),
                                      "it is larger than a row may be (16 MiB)");
        }
        fields.push_back(std::move(f));
    }
    std::sort(fields.begin(), fields.end(),
              [](const RMPackedField& a, const RMPackedField& b) { return a.column < b.column; });
    for (size_t i = 1; i < fields.size(); ++i) {
        if (fields[i].column == fields[i - 1].column) {
            throw RMTableError::build(RMTableErrc::kBadValue, path_.c_str(),
                                      schema_->column(fields[i].column).name.c_str(),
                                      "the column is given twice");
        }
    }
    return fields;
}

void RMCachedTable::checkSize(const RMRowPtr& row) const {
    if (row->bytes().size() > kRMMaxRowBytes) {
        throw RMTableError::build(RMTableErrc::kBadValue, path_.c_str(), "(all)",
                                  "the row would be larger than a row may be (16 MiB)");
    }
}

int RMCachedTable::slotOf(RMRowId id) const {
    auto it = std::lower_bound(slotIds_.begin(), slotIds_.end(), id);
    if (it == slotIds_.end() || *it != id) {
        return -1;
    }
    auto s = static_cast<size_t>(it - slotIds_.begin());
    return slots_[s] != nullptr ? static_cast<int>(s) : -1;
}

RMRowPtr RMCachedTable::findRow(RMRowId id) const {
    int s = slotOf(id);
    return s < 0 ? nullptr : slots_[static_cast<size_t>(s)];
}

std::vector<RMRowPtr> RMCachedTable::matching(const RMSelection& sel, const RMSelBinding& b) const {
    std::vector<RMRowPtr> out;
    if (sel.selectsAll()) {
        out.reserve(live_);
        for (const RMRowPtr& r : slots_) {
            if (r != nullptr) {
                out.push_back(r);
            }
        }
        return out;
    }
    std::vector<RMSelProbe> probes;
    auto indexed = [this](int c) { return indexes_[static_cast<size_t>(c)] != nullptr; };
    if (sel.plan(b, indexed, probes)) {
        std::vector<uint32_t> candidates;
        std::string key;
        for (const RMSelProbe& p : probes) {
            zn_data_type_t t = schema_->column(static_cast<unsigned>(p.column)).type;
            if (RMHashIndex::keyFor(t, p.key, key)) {
                indexes_[static_cast<size_t>(p.column)]->find(key, candidates);
            }
        }
        std::sort(candidates.begin(), candidates.end());
        candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
        for (uint32_t s : candidates) {
            const RMRowPtr& r = slots_[s];
            if (r != nullptr && sel.evaluate(RMRowSource(*r), b)) {
                out.push_back(r);
            }
        }
        return out;
    }
    // Rows are far larger than a cache line and spread over the heap: fetch
    // the offsets of the row kFar ahead and the columns of the row kNear
    // ahead, so the reads below rarely wait on memory.
    constexpr size_t kFar = 16, kNear = 8;
    const std::vector<int>& cols = sel.columns();
    size_t n = slots_.size();
    for (size_t i = 0; i < n; ++i) {
        if (i + kFar < n && slots_[i + kFar] != nullptr) {
            slots_[i + kFar]->prefetchOffsets(cols);
        }
        if (i + kNear < n && slots_[i + kNear] != nullptr) {
            slots_[i + kNear]->prefetchColumns(cols);
        }
        const RMRowPtr& r = slots_[i];
        if (r != nullptr && sel.evaluate(RMRowSource(*r), b)) {
            out.push_back(r);
        }
    }
    return out;
}

RMRowSet RMCachedTable::select(const char* selection, const RMSelParams* params) const {
    std::shared_ptr<const RMSelection> sel = compileSelection(selection);
    RMSelBinding b = sel->bind(params);
    std::shared_lock<std::shared_mutex> lock(state_);
    return RMRowSet(schema_, path_, matching(*sel, b));
}

RMRowSet RMCachedTable::getMetadata() const {
    return select("*");
}

RMRowSet RMCachedTable::getRow(RMRowId id) const {
    std::shared_lock<std::shared_mutex> lock(state_);
    RMRowPtr r = findRow(id);
    if (r == nullptr) {
        throw RMTableError::build(RMTableErrc::kNoSuchRow, path_.c_str(),
                                  static_cast<long long>(id));
    }
    return RMRowSet(schema_, path_, {r});
}

RMRowId RMCachedTable::addRow(const RMFieldValue* values, unsigned count) {
    std::vector<RMPackedField> fields = packFields(values, count);
    std::lock_guard<std::mutex> lock(writer_);
    RMRowPtr row = RMPackedRow::build(nextRowId_, *schema_, nullptr, fields);
    checkSize(row);
    apply({nullptr}, {row});
    return nextRowId_++;
}

unsigned RMCachedTable::changeRows(const char* selection, const RMSelParams* params,
                                   const RMFieldValue* values, unsigned count) {
    std::vector<RMPackedField> fields = packFields(values, count);
    std::shared_ptr<const RMSelection> sel = compileSelection(selection);
    RMSelBinding b = sel->bind(params);
    std::lock_guard<std::mutex> lock(writer_);
    std::vector<RMRowPtr> olds;
    {
        std::shared_lock<std::shared_mutex> state(state_);
        olds = matching(*sel, b);
    }
    std::vector<RMRowPtr> news;
    news.reserve(olds.size());
    for (const RMRowPtr& old : olds) {
        news.push_back(RMPackedRow::build(old->rowId(), *schema_, old.get(), fields));
        checkSize(news.back());
    }
    if (!olds.empty()) {
        apply(olds, news);
    }
    return static_cast<unsigned>(olds.size());
}

void RMCachedTable::changeRow(RMRowId id, const RMFieldValue* values, unsigned count) {
    std::vector<RMPackedField> fields = packFields(values, count);
    std::lock_guard<std::mutex> lock(writer_);
    RMRowPtr old;
    {
        std::shared_lock<std::shared_mutex> state(state_);
        old = findRow(id);
    }
    if (old == nullptr) {
        throw RMTableError::build(RMTableErrc::kNoSuchRow, path_.c_str(),
                                  static_cast<long long>(id));
    }
    RMRowPtr row = RMPackedRow::build(id, *schema_, old.get(), fields);
    checkSize(row);
    apply({old}, {row});
}

unsigned RMCachedTable::deleteRows(const char* selection, const RMSelParams* params) {
    std::shared_ptr<const RMSelection> sel = compileSelection(selection);
    RMSelBinding b = sel->bind(params);
    std::lock_guard<std::mutex> lock(writer_);
    std::vector<RMRowPtr> olds;
    {
        std::shared_lock<std::shared_mutex> state(state_);
        olds = matching(*sel, b);
    }
    if (!olds.empty()) {
        apply(olds, std::vector<RMRowPtr>(olds.size()));
    }
    return static_cast<unsigned>(olds.size());
}

void RMCachedTable::deleteRow(RMRowId id) {
    std::lock_guard<std::mutex> lock(writer_);
    RMRowPtr old;
    {
        std::shared_lock<std::shared_mutex> state(state_);
        old = findRow(id);
    }
    if (old == nullptr) {
        throw RMTableError::build(RMTableErrc::kNoSuchRow, path_.c_str(),
                                  static_cast<long long>(id));
    }
    apply({old}, {nullptr});
}

void RMCachedTable::checkKeys(const std::vector<RMRowPtr>& olds,
                              const std::vector<RMRowPtr>& news) const {
    if (keyColumn_ < 0) {
        return;
    }
    auto kc = static_cast<unsigned>(keyColumn_);
    const RMHashIndex& idx = *indexes_[kc];
    std::shared_lock<std::shared_mutex> state(state_);
    std::unordered_set<uint32_t> replaced;
    for (const RMRowPtr& old : olds) {
        if (old != nullptr) {
            replaced.insert(static_cast<uint32_t>(slotOf(old->rowId())));
        }
    }
    std::unordered_set<std::string_view> seen;
    std::vector<uint32_t> hits;
    for (const RMRowPtr& row : news) {
        if (row == nullptr) {
            continue;
        }
        std::string_view key = row->keyBytes(kc);
        hits.clear();
        idx.find(key, hits);
        bool clash = !seen.insert(key).second;
        for (uint32_t s : hits) {
            clash = clash || replaced.count(s) == 0;
        }
        if (clash) {
            throw RMTableError::build(RMTableErrc::kDuplicateKey, path_.c_str(), keyName_.c_str());
        }
    }
}

void RMCachedTable::apply(const std::vector<RMRowPtr>& olds, const std::vector<RMRowPtr>& news) {
    checkKeys(olds, news);
    if (syncMode_ == 1) {
        RMCheckStoreFault(path_, RMStoreStep::kWrite);
        RMRegistryDb::Txn txn(*db_);
        for (size_t i = 0; i < news.size(); ++i) {
            if (news[i] != nullptr) {
                db_->putRow(tableId_, news[i]->rowId(), news[i]->bytes());
            } else {
                db_->deleteRow(tableId_, olds[i]->rowId());
            }
        }
        txn.commit();
    } else {
        pending_.reserve(pending_.size() + news.size());
        for (size_t i = 0; i < news.size(); ++i) {
            pending_[news[i] != nullptr ? news[i]->rowId() : olds[i]->rowId()] = news[i];
        }
    }
    std::unique_lock<std::shared_mutex> state(state_);
    for (size_t i = 0; i < news.size(); ++i) {
        const RMRowPtr& row = news[i];
        if (olds[i] == nullptr) {
            auto s = static_cast<uint32_t>(slots_.size());
            slots_.push_back(row);
            slotIds_.push_back(row->rowId());
            for (auto& idx : indexes_) {
                if (idx != nullptr) {
                    idx->insert(*row, s);
                }
            }
            ++live_;
            continue;
        }
        auto s = static_cast<uint32_t>(slotOf(olds[i]->rowId()));
        for (auto& idx : indexes_) {
            if (idx == nullptr) {
                continue;
            }
            unsigned c = idx->column();
            if (row == nullptr || olds[i]->keyBytes(c) != row->keyBytes(c)) {
                idx->erase(*olds[i], s);
                if (row != nullptr) {
                    idx->insert(*row, s);
                }
            }
        }
        slots_[s] = row;
        if (row == nullptr) {
            --live_;
        }
    }
    compactIfSparse();
}

void RMCachedTable::compactIfSparse() {
    size_t dead = slots_.size() - live_;
    if (dead < kMinTombstones || dead < live_) {
        return;
    }
    size_t w = 0;
    for (size_t r = 0; r < slots_.size(); ++r) {
        if (slots_[r] != nullptr) {
            slots_[w] = std::move(slots_[r]);
            slotIds_[w] = slotIds_[r];
            ++w;
        }
    }
    slots_.resize(w);
    slotIds_.resize(w);
    for (auto& idx : indexes_) {
        if (idx != nullptr) {
            idx->clear();
            for (size_t s = 0; s < slots_.size(); ++s) {
                idx->insert(*slots_[s], static_cast<uint32_t>(s));
            }
        }
    }
}

}  // namespace tarn_rmf
