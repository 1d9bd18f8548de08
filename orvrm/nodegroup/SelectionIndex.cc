#include "orvrm/nodegroup/SelectionIndex.h"

#include <algorithm>
#include <map>

namespace orvrm {
namespace {

using tarn_rmf::RMRowId;
using tarn_rmf::RMRowSet;

constexpr char kHostname[] = "Hostname";

// One row of a row set as the selection evaluator reads it.
class RowOfSet final : public tarn_rmf::RMValueSource {
public:
    RowOfSet(const RMRowSet& rows, unsigned row) : rows_(rows), row_(row) {}
    bool value(int column, tarn_rmf::RMValueView& out) const override {
        if (column < 0) {
            return false;
        }
        out = rows_.viewField(row_, static_cast<unsigned>(column));
        return true;
    }

private:
    const RMRowSet& rows_;
    unsigned row_;
};

void eraseRow(std::unordered_map<std::string, std::vector<RMRowId>>& map, const std::string& key,
              RMRowId row) {
    auto it = map.find(key);
    if (it == map.end()) {
        return;
    }
    auto& rows = it->second;
    rows.erase(std::remove(rows.begin(), rows.end(), row), rows.end());
    if (rows.empty()) {
        map.erase(it);
    }
}

}  // namespace

SelectionIndex::SelectionIndex(const tarn_rmf::RMCachedTable* nodes) : nodes_(nodes) {
    if (nodes_ != nullptr) {
        hostColumn_ = nodes_->getSchema().find(kHostname);
    }
}

void SelectionIndex::evaluateAll(Selection& s) const {
    s.matches.clear();
    if (s.compiled == nullptr || nodes_ == nullptr) {
        return;
    }
    RMRowSet rows = nodes_->select(s.compiled->text().c_str());
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        s.matches.insert(rows.getRowId(r));
    }
}

SelectionIndex::Selection SelectionIndex::compile(const std::string& selectStr) const {
    Selection s;
    if (nodes_ != nullptr) {
        try {
            s.compiled = nodes_->compileSelection(selectStr.c_str());
            s.binding = s.compiled->bind(nullptr);
        } catch (const std::exception&) {
            s = Selection{};  // a selection the table refuses picks nothing
        }
    }
    return s;
}

bool SelectionIndex::setSelection(GroupKey group, const std::string& selectStr) {
    catchUp();
    Selection s = compile(selectStr);
    try {
        evaluateAll(s);
    } catch (const std::exception&) {
        s = Selection{};
    }
    bool usable = s.compiled != nullptr;
    selections_.insert_or_assign(group, std::move(s));
    changed_.insert(group);
    return usable;
}

bool SelectionIndex::addSelection(GroupKey group, const std::string& selectStr) {
    Selection s = compile(selectStr);
    bool usable = s.compiled != nullptr;
    selections_.insert_or_assign(group, std::move(s));
    readAll_ = true;
    return usable;
}

void SelectionIndex::dropSelection(GroupKey group) {
    selections_.erase(group);
    changed_.erase(group);
}

void SelectionIndex::clear() {
    selections_.clear();
    changed_.clear();
    allNodesChanged();
}

void SelectionIndex::nodeChanged(const std::string& hostname) {
    if (!readAll_) {
        dirty_.insert(hostname);
    }
}

void SelectionIndex::allNodesChanged() {
    readAll_ = true;
    dirty_.clear();
}

std::vector<SelectionIndex::GroupKey> SelectionIndex::takeChanged() {
    std::vector<GroupKey> out(changed_.begin(), changed_.end());
    changed_.clear();
    return out;
}

bool SelectionIndex::members(GroupKey group, NameList& out) const {
    out.clear();
    auto it = selections_.find(group);
    if (it == selections_.end() || it->second.compiled == nullptr) {
        return false;
    }
    out.reserve(it->second.matches.size());
    for (RMRowId row : it->second.matches) {
        auto h = hostOf_.find(row);
        if (h != hostOf_.end()) {
            out.push_back(h->second);
        }
    }
    return true;
}

void SelectionIndex::rebuild() {
    hostOf_.clear();
    rowsOf_.clear();
    dirty_.clear();
    readAll_ = false;
    std::vector<std::pair<GroupKey, Selection*>> usable;
    for (auto& [group, s] : selections_) {
        s.matches.clear();
        changed_.insert(group);
        if (s.compiled != nullptr) {
            usable.emplace_back(group, &s);
        }
    }
    if (nodes_ == nullptr || hostColumn_ < 0) {
        return;
    }
    // One pass over the nodes for all selections: each row is read once.
    RMRowSet rows = nodes_->getMetadata();
    auto col = static_cast<unsigned>(hostColumn_);
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        RMRowId id = rows.getRowId(r);
        std::string host(rows.viewField(r, col).text());
        rowsOf_[host].push_back(id);
        hostOf_.emplace(id, std::move(host));
        RowOfSet source(rows, r);
        for (auto& [group, s] : usable) {
            if (s->compiled->evaluate(source, s->binding)) {
                s->matches.insert(s->matches.end(), id);  // rows come in table order
            }
        }
    }
}

void SelectionIndex::catchUp() {
    if (readAll_) {
        rebuild();
        return;
    }
    if (dirty_.empty() || nodes_ == nullptr || hostColumn_ < 0) {
        dirty_.clear();
        return;
    }
    // The rows the changed names had and have now.
    std::set<RMRowId> affected;
    std::vector<RMRowSet> found;
    std::map<RMRowId, std::pair<size_t, unsigned>> current;  // row -> (set, index)
    for (const std::string& host : dirty_) {
        if (auto it = rowsOf_.find(host); it != rowsOf_.end()) {
            affected.insert(it->second.begin(), it->second.end());
        }
        tarn_rmf::RMSelParams p;
        p.setString("H", host.c_str());
        found.push_back(nodes_->select("Hostname == $H", &p));
        for (unsigned r = 0; r < found.back().getRowCount(); ++r) {
            RMRowId id = found.back().getRowId(r);
            affected.insert(id);
            current[id] = {found.size() - 1, r};
        }
    }
    dirty_.clear();
    for (RMRowId id : affected) {
        if (current.count(id) != 0) {
            continue;
        }
        // A row that gave up a name may live on under another one.
        try {
            found.push_back(nodes_->getRow(id));
            current[id] = {found.size() - 1, 0};
        } catch (const std::exception&) {
            // removed
        }
    }
    // Names first, so that rows swapping names do not clobber each other.
    std::map<RMRowId, std::string> before;
    for (RMRowId id : affected) {
        if (auto it = hostOf_.find(id); it != hostOf_.end()) {
            eraseRow(rowsOf_, it->second, id);
            before.emplace(id, std::move(it->second));
            hostOf_.erase(it);
        }
    }
    auto col = static_cast<unsigned>(hostColumn_);
    for (RMRowId id : affected) {
        auto cur = current.find(id);
        if (cur == current.end()) {
            for (auto& [group, s] : selections_) {
                if (s.matches.erase(id) != 0) {
                    changed_.insert(group);
                }
            }
            continue;
        }
        const RMRowSet& rows = found[cur->second.first];
        unsigned r = cur->second.second;
        std::string host(rows.viewField(r, col).text());
        auto old = before.find(id);
        bool renamed = old == before.end() || old->second != host;
        rowsOf_[host].push_back(id);
        hostOf_.emplace(id, std::move(host));
        RowOfSet source(rows, r);
        for (auto& [group, s] : selections_) {
            if (s.compiled == nullptr) {
                continue;
            }
            bool match = s.compiled->evaluate(source, s.binding);
            bool had = s.matches.count(id) != 0;
            if (match && !had) {
                s.matches.insert(id);
            } else if (!match && had) {
                s.matches.erase(id);
            }
            if (match != had || (match && renamed)) {
                changed_.insert(group);
            }
        }
    }
}

}  // namespace orvrm
