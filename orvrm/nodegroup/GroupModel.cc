#include "orvrm/nodegroup/GroupModel.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <unordered_set>

#include "orvrm/nodegroup/NodeGroupSpec.h"

namespace orvrm {
namespace {

using tarn_rmf::RMRowId;

NameList nestedOf(const NameList& members) {
    NameList out;
    std::unordered_set<std::string_view> seen;
    for (const std::string& m : members) {
        if (!m.empty() && m[0] == kNgGroupPrefix && seen.insert(m).second) {
            out.push_back(m.substr(1));
        }
    }
    return out;
}

void erase(std::vector<RMRowId>& rows, RMRowId row) {
    auto it = std::find(rows.begin(), rows.end(), row);
    if (it != rows.end()) {
        rows.erase(it);
    }
}

template <typename Map>
void eraseFrom(Map& map, const std::string& key, RMRowId row) {
    auto it = map.find(key);
    if (it == map.end()) {
        return;
    }
    erase(it->second, row);
    if (it->second.empty()) {
        map.erase(it);
    }
}

}  // namespace

GroupRecord GroupModel::read(const tarn_rmf::RMRowSet& rows, unsigned index) const {
    auto view = [&](const char* column) {
        int c = rows.getColumnIndex(column);
        return c >= 0 ? rows.viewField(index, static_cast<unsigned>(c)) : tarn_rmf::RMValueView{};
    };
    GroupRecord g;
    g.row = rows.getRowId(index);
    tarn_rmf::RMValueView h = view("ResourceHandle");
    if (!h.isNull && h.data != nullptr) {
        std::memcpy(g.handle.bytes, h.data, sizeof g.handle.bytes);
    }
    g.name = std::string(view("Name").text());
    g.validate = static_cast<uint32_t>(view("ValidateNodes").num.u);
    g.members = namesOf(view("MemberList"));
    g.nested = nestedOf(g.members);
    g.selectStr = std::string(view("SelectStr").text());
    g.expanded = namesOf(view("ExpMemberList"));
    return g;
}

void GroupModel::load(const tarn_rmf::RMRowSet& rows) {
    *this = GroupModel();
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        GroupRecord g = read(rows, r);
        g.stale = true;
        RMRowId row = g.row;
        index(groups_.emplace(row, std::move(g)).first->second);
    }
}

GroupRecord& GroupModel::add(const tarn_rmf::RMRowSet& rows, unsigned index) {
    GroupRecord g = read(rows, index);
    RMRowId row = g.row;
    if (auto it = groups_.find(row); it != groups_.end()) {
        unindex(it->second);
        groups_.erase(it);
    }
    GroupRecord& out = groups_.emplace(row, std::move(g)).first->second;
    this->index(out);
    markContainersStale(out.name);
    return out;
}

void GroupModel::remove(const zn_resource_handle& handle) {
    GroupRecord* g = find(handle);
    if (g == nullptr) {
        return;
    }
    unindex(*g);
    groups_.erase(g->row);
}

void GroupModel::index(GroupRecord& g) {
    byName_[g.name].push_back(g.row);
    byHandle_[g.handle] = g.row;
    linkNested(g);
    hold(g.row, g.expanded);
}

void GroupModel::unindex(GroupRecord& g) {
    eraseFrom(byName_, g.name, g.row);
    byHandle_.erase(g.handle);
    unlinkNested(g);
    release(g.row, g.expanded);
}

void GroupModel::linkNested(const GroupRecord& g) {
    for (const std::string& n : g.nested) {
        referrers_[n].push_back(g.row);
    }
}

void GroupModel::unlinkNested(const GroupRecord& g) {
    for (const std::string& n : g.nested) {
        eraseFrom(referrers_, n, g.row);
    }
}

void GroupModel::hold(RMRowId row, const NameList& hosts) {
    for (const std::string& h : hosts) {
        holders_[h].push_back(row);
    }
}

void GroupModel::release(RMRowId row, const NameList& hosts) {
    for (const std::string& h : hosts) {
        eraseFrom(holders_, h, row);
    }
}

GroupRecord* GroupModel::find(const zn_resource_handle& handle) {
    auto it = byHandle_.find(handle);
    return it == byHandle_.end() ? nullptr : &groups_.at(it->second);
}

GroupRecord* GroupModel::find(std::string_view name, size_t* count) {
    auto it = byName_.find(std::string(name));
    size_t n = it == byName_.end() ? 0 : it->second.size();
    if (count != nullptr) {
        *count = n;
    }
    return n == 1 ? &groups_.at(it->second.front()) : nullptr;
}

bool GroupModel::listedByOther(const std::string& name) const {
    auto it = referrers_.find(name);
    if (it == referrers_.end()) {
        return false;
    }
    for (RMRowId row : it->second) {
        if (groups_.at(row).name != name) {
            return true;
        }
    }
    return false;
}

NameList GroupModel::holding(const std::string& host) const {
    NameList out;
    auto it = holders_.find(host);
    if (it != holders_.end()) {
        for (RMRowId row : it->second) {
            out.push_back(groups_.at(row).name);
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

void GroupModel::setMembers(GroupRecord& g, NameList members) {
    if (members == g.members) {
        return;
    }
    unlinkNested(g);
    g.members = std::move(members);
    g.nested = nestedOf(g.members);
    linkNested(g);
    g.stale = true;
    markContainersStale(g.name);
}

void GroupModel::setSelectStr(GroupRecord& g, std::string selectStr) {
    if (selectStr == g.selectStr) {
        return;
    }
    g.selectStr = std::move(selectStr);
    g.stale = true;
    // Containers take a selection group's stored list and any other group's
    // member list: which of the two they take may have changed, and a group
    // whose selection was cleared is no longer marked by setExpanded.
    markContainersStale(g.name);
}

void GroupModel::setName(GroupRecord& g, std::string name) {
    if (name == g.name) {
        return;
    }
    eraseFrom(byName_, g.name, g.row);
    g.name = std::move(name);
    byName_[g.name].push_back(g.row);
    markContainersStale(g.name);
}

void GroupModel::setExpanded(GroupRecord& g, NameList expanded, const NameList* added,
                             const NameList* removed) {
    if (added != nullptr && removed != nullptr) {
        release(g.row, *removed);
        hold(g.row, *added);
    } else {
        release(g.row, g.expanded);
        hold(g.row, expanded);
    }
    bool changed = expanded != g.expanded;
    g.expanded = std::move(expanded);
    if (changed && g.hasSelect()) {
        markContainersStale(g.name);
    }
}

void GroupModel::markContainersStale(const std::string& name) {
    std::deque<const std::string*> work{&name};
    std::unordered_set<RMRowId> seen;
    while (!work.empty()) {
        const std::string* n = work.front();
        work.pop_front();
        auto it = referrers_.find(*n);
        if (it == referrers_.end()) {
            continue;
        }
        for (RMRowId row : it->second) {
            if (seen.insert(row).second) {
                GroupRecord& container = groups_.at(row);
                container.stale = true;
                work.push_back(&container.name);
            }
        }
    }
}

}  // namespace orvrm
