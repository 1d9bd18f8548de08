// Expanded member lists: expanding a group, writing and reporting a changed
// list, and the recomputation passes over the selection groups and the
// groups that contain others.
#include <string_view>
#include <unordered_set>
#include <utility>

#include "orvrm/ORVRMLog.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {

bool NodeGroupRccp::expand(const GroupRecord& g, bool live, NameList& out) {
    if (expansion() == Expansion::Rescan) {
        return expandRescan(g, live, out);
    }
    if (live && g.hasSelect()) {
        syncNodes();  // a live selection sees every node change so far
    }
    return expandIndexed(g, live, out);
}

bool NodeGroupRccp::expandIndexed(const GroupRecord& g, bool live, NameList& out) {
    // The group's own members, then those of each group it contains, breadth
    // first; each name once, in the order first seen. A contained group gives
    // its member list's host names, and a selection group its stored list;
    // the group itself gives its live selection when asked.
    out.clear();
    if (model_.find(g.name) != &g) {
        return false;  // the name must be the group's alone
    }
    std::unordered_set<std::string_view> hosts;
    std::unordered_set<std::string_view> seenGroups;
    std::vector<const GroupRecord*> work;
    NameList liveNames;
    auto add = [&](const GroupRecord& rec, bool liveSelection) {
        for (const std::string& m : rec.members) {
            if (!m.empty() && m[0] == kNgGroupPrefix) {
                std::string_view name = std::string_view(m).substr(1);
                if (seenGroups.insert(name).second) {
                    const GroupRecord* nested = model_.find(name);
                    if (nested == nullptr) {
                        return false;  // not found exactly once
                    }
                    work.push_back(nested);
                }
            } else if (hosts.insert(m).second) {
                out.push_back(m);
            }
        }
        if (rec.hasSelect()) {
            const NameList* names = &rec.expanded;
            if (liveSelection) {
                if (!index_->members(rec.row, liveNames)) {
                    return false;
                }
                names = &liveNames;
            }
            for (const std::string& h : *names) {
                if (hosts.insert(h).second) {
                    out.push_back(h);
                }
            }
        }
        return true;
    };
    if (!add(g, live)) {
        return false;
    }
    for (size_t i = 0; i < work.size(); ++i) {
        if (!add(*work[i], false)) {
            return false;
        }
    }
    return true;
}

void NodeGroupRccp::writeMembers(GroupRecord& g, const NameList& members) {
    zn::OwnedValue v = stringArray(members);
    tarn_rmf::RMFieldValue f{nullptr, kNgMemberList, ZN_CHAR_PTR_ARRAY, v.value()};
    resourceTable()->changeRow(g.row, &f, 1);
    model_.setMembers(g, members);
}

void NodeGroupRccp::writeExpanded(GroupRecord& g, NameList list, const NameList* added,
                                  const NameList* removed) {
    zn::OwnedValue v = stringArray(list);
    tarn_rmf::RMFieldValue f{nullptr, kNgExpMemberList, ZN_CHAR_PTR_ARRAY, v.value()};
    resourceTable()->changeRow(g.row, &f, 1);
    model_.setExpanded(g, std::move(list), added, removed);
}

void NodeGroupRccp::selectionChanged(GroupRecord& g) {
    if (expansion() == Expansion::Rescan) {
        return;
    }
    syncNodes();
    if (g.hasSelect()) {
        index_->setSelection(g.row, g.selectStr);
    } else {
        index_->dropSelection(g.row);
    }
    index_->takeChanged();  // the others were taken by syncNodes
}

void NodeGroupRccp::noteNode(const char* hostname) {
    if (hostname == nullptr || expansion() == Expansion::Rescan) {
        return;
    }
    std::lock_guard<std::mutex> g(pendingMu_);
    if (!pendingAll_) {
        pendingNodes_.emplace_back(hostname);
    }
}

void NodeGroupRccp::syncNodes() {
    std::vector<std::string> names;
    bool all = false;
    {
        std::lock_guard<std::mutex> g(pendingMu_);
        names.swap(pendingNodes_);
        all = std::exchange(pendingAll_, false);
    }
    if (all) {
        index_->allNodesChanged();
    }
    for (const std::string& n : names) {
        index_->nodeChanged(n);
    }
    index_->catchUp();
    for (SelectionIndex::GroupKey row : index_->takeChanged()) {
        auto it = model_.groups().find(row);
        if (it != model_.groups().end()) {
            it->second.stale = true;
        }
    }
}

int NodeGroupRccp::updateExpMemList(GroupRecord& g, bool reportConfig, bool reportMembership) {
    bool indexed = expansion() == Expansion::Indexed;
    if (indexed && g.hasSelect()) {
        syncNodes();  // a live selection sees every node change so far
    }
    if (indexed && !g.stale) {
        return 0;  // its expansion is what is stored
    }
    NameList now;
    if (!expand(g, g.hasSelect(), now)) {
        orvrminfo_trace("updateExpMemList: the members of %s could not be expanded",
                        g.name.c_str());
        g.stale = true;
        return -1;
    }
    NameList added, removed;
    if (!getDifference(g.expanded, now, &added, &removed)) {
        g.stale = false;
        return 0;
    }
    writeExpanded(g, std::move(now), &added, &removed);
    g.stale = false;
    NodeGroupRcp* rcp = rcpOf(g);
    if (rcp == nullptr) {
        return 1;
    }
    rcp->notifyExpMembershipChange(g.expanded);
    if (reportConfig) {
        rcp->reportConfigChange();
    }
    if (reportMembership) {
        rcp->reportMembershipChange(added, removed, g.expanded);
        updateNodeGroupPEXD(g.name.c_str(), nullptr);
    }
    return 1;
}

namespace {

bool skipped(const GroupRecord& g, const char* skip) {
    return skip != nullptr && g.name == skip;
}

// One group's update inside a pass: a table error ends that group's update
// only.
void updateOne(NodeGroupRccp* c, GroupRecord& g, bool reportConfig, bool reportMembership) {
    try {
        c->updateExpMemList(g, reportConfig, reportMembership);
    } catch (std::exception& e) {
        g.stale = true;
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRccp::updateExpMemList", err);
        cu_rel_error_1(err);
    }
}

}  // namespace

void NodeGroupRccp::updateExpMemListAllSlctStrNG(bool reportConfig, bool reportMembership,
                                                 const char* skip) {
    if (expansion() == Expansion::Indexed) {
        syncNodes();
    }
    for (auto& [row, g] : model_.groups()) {
        if (g.hasSelect() && !skipped(g, skip)) {
            updateOne(this, g, reportConfig, reportMembership);
        }
    }
}

std::vector<GroupRecord*> NodeGroupRccp::nestingOrder() {
    // Depth first from each stale nesting group in table order; a group is
    // placed after the groups it contains (a cycle is cut where it closes).
    std::vector<GroupRecord*> order;
    std::unordered_set<tarn_rmf::RMRowId> visited;
    struct Frame {
        GroupRecord* g;
        size_t next;
    };
    std::vector<Frame> stack;
    for (auto& [row, root] : model_.groups()) {
        if (!root.nests() || !root.stale || !visited.insert(row).second) {
            continue;
        }
        stack.push_back({&root, 0});
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.g->nested.size()) {
                GroupRecord* child = model_.find(f.g->nested[f.next++]);
                if (child != nullptr && visited.insert(child->row).second) {
                    stack.push_back({child, 0});
                }
                continue;
            }
            if (f.g->nests() && f.g->stale) {
                order.push_back(f.g);
            }
            stack.pop_back();
        }
    }
    return order;
}

void NodeGroupRccp::updateExpMemListAllmemListNG(bool reportConfig, bool reportMembership,
                                                 const char* skip) {
    if (expansion() == Expansion::Rescan) {
        for (auto& [row, g] : model_.groups()) {
            if (g.nests() && !skipped(g, skip)) {
                updateOne(this, g, reportConfig, reportMembership);
            }
        }
        return;
    }
    for (GroupRecord* g : nestingOrder()) {
        if (!skipped(*g, skip)) {
            updateOne(this, *g, reportConfig, reportMembership);
        }
    }
}

void NodeGroupRccp::updateExpMemListAll(bool reportConfig, bool reportMembership,
                                        const char* skip) {
    updateExpMemListAllSlctStrNG(reportConfig, reportMembership, skip);
    updateExpMemListAllmemListNG(reportConfig, reportMembership, skip);
}

void NodeGroupRccp::updateExpMemListAllWithLock() {
    tarn_rmf2v::lockRccp guard(this);
    updateExpMemListAll(true, true, nullptr);
}

}  // namespace orvrm
