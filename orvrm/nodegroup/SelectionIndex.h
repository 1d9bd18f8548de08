// Which managed nodes each selection group's selection string picks, kept as
// nodes come, change and go: a changed node is tested against each selection
// once, instead of every selection rescanning the node table. Selections are
// compiled once by the node table itself (its own selection language, so a
// selection picks here exactly the rows a query of the table picks), and
// matches are held by row id, so a group's host names come out in table
// order, as a query gives them. The node table is only read.
// Not thread-safe: the node-group class lock guards it.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "orvrm/nodegroup/MemberLists.h"
#include "tarn_rmf/registry/RMCachedTable.h"

namespace orvrm {

class SelectionIndex {
public:
    using GroupKey = tarn_rmf::RMRowId;  // the group's row in its own table

    // `nodes` is the managed-node table; null stands for a domain without
    // nodes (no selection matches).
    explicit SelectionIndex(const tarn_rmf::RMCachedTable* nodes);

    // Compiles a group's selection and evaluates it over every node (after
    // catching up). False when the table refuses it: the group then has no
    // live members, as a query of it would fail.
    bool setSelection(GroupKey group, const std::string& selectStr);
    // The same without evaluating it: the next catch-up reads every node
    // once for all the selections added so (start-up, and after clear()).
    bool addSelection(GroupKey group, const std::string& selectStr);
    void dropSelection(GroupKey group);
    void clear();

    // A node named so was added, changed, took this name or gave it up.
    void nodeChanged(const std::string& hostname);
    // Nodes changed without saying which: the next catch-up reads them all.
    void allNodesChanged();
    size_t pendingNodes() const { return dirty_.size(); }

    // Brings every selection's matches up to date with the node table, and
    // adds the groups whose host names changed to those takeChanged() gives.
    void catchUp();
    std::vector<GroupKey> takeChanged();

    // The host names a group's selection picks, in table order, as of the
    // last catch-up; false when the group has no usable selection.
    bool members(GroupKey group, NameList& out) const;

private:
    struct Selection {
        std::shared_ptr<const tarn_rmf::RMSelection> compiled;  // null: refused
        tarn_rmf::RMSelBinding binding;
        std::set<tarn_rmf::RMRowId> matches;  // table order
    };

    void rebuild();
    void evaluateAll(Selection& s) const;
    Selection compile(const std::string& selectStr) const;

    const tarn_rmf::RMCachedTable* nodes_;
    int hostColumn_ = -1;
    std::unordered_map<GroupKey, Selection> selections_;
    // The nodes as of the last catch-up.
    std::unordered_map<tarn_rmf::RMRowId, std::string> hostOf_;
    std::unordered_map<std::string, std::vector<tarn_rmf::RMRowId>> rowsOf_;
    // Host names changed since then; all of them when readAll_.
    std::unordered_set<std::string> dirty_;
    bool readAll_ = true;
    std::set<GroupKey> changed_;
};

}  // namespace orvrm
