// What the node-group class knows of its groups, mirrored from its resource
// table so that lookups, cycle checks and expansions need no table query:
// each group's name, validation flag, member list, selection string and
// stored expanded list, in table order, with indexes over them (by name, by
// handle, which groups list a group, which groups hold a node) and a mark on
// the groups whose stored expanded list may differ from what an expansion
// gives now ("stale"). The class changes it right after each write of a
// group's row, with the values written. Not thread-safe: the class lock
// guards it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orvrm/nodegroup/MemberLists.h"
#include "tarn_rmf/registry/RMRowSet.h"
#include "tarn_rmf2v/RMRccp.h"

namespace orvrm {

struct GroupRecord {
    zn_resource_handle handle{};
    tarn_rmf::RMRowId row = 0;
    std::string name;
    uint32_t validate = 1;
    NameList members;  // MemberList
    NameList nested;   // the groups MemberList names, without "+", in order
    std::string selectStr;
    NameList expanded;  // ExpMemberList as stored
    // The stored expanded list may differ from what an expansion gives now.
    bool stale = false;

    bool hasMembers() const { return !members.empty(); }
    bool hasSelect() const { return !selectStr.empty(); }
    bool nests() const { return !nested.empty(); }
};

class GroupModel {
public:
    // Replaces everything with the rows of the group table; every group is stale.
    void load(const tarn_rmf::RMRowSet& rows);
    // A new group as its row stores it. Groups that already name it (and
    // their own containers) become stale: their expansion no longer fails.
    GroupRecord& add(const tarn_rmf::RMRowSet& rows, unsigned index);
    void remove(const zn_resource_handle& handle);

    GroupRecord* find(const zn_resource_handle& handle);
    // The group of this name when exactly one has it, else null; *count
    // says how many have it.
    GroupRecord* find(std::string_view name, size_t* count = nullptr);
    // Whether a group other than the one of this name lists "+name".
    bool listedByOther(const std::string& name) const;
    // Every group, in table order.
    std::map<tarn_rmf::RMRowId, GroupRecord>& groups() { return groups_; }
    size_t size() const { return groups_.size(); }
    // The names of the groups whose stored expanded list holds `host`, in
    // name order.
    NameList holding(const std::string& host) const;

    // Mirror of a write. A new member list makes the group and the groups
    // containing it stale when it differs from the old one.
    void setMembers(GroupRecord& g, NameList members);
    // A new selection makes the group and the groups containing it stale.
    void setSelectStr(GroupRecord& g, std::string selectStr);
    // A new name: groups that named it before it existed become stale.
    void setName(GroupRecord& g, std::string name);
    // A new expanded list, with what it added and removed when known. For a
    // selection group, the groups containing it become stale: they take its
    // stored list.
    void setExpanded(GroupRecord& g, NameList expanded, const NameList* added = nullptr,
                     const NameList* removed = nullptr);
    // Marks every group that contains the named one, at any depth.
    void markContainersStale(const std::string& name);

private:
    GroupRecord read(const tarn_rmf::RMRowSet& rows, unsigned index) const;
    void index(GroupRecord& g);    // into byName_, byHandle_, referrers_, holders_
    void unindex(GroupRecord& g);  // the reverse
    void linkNested(const GroupRecord& g);
    void unlinkNested(const GroupRecord& g);
    void hold(tarn_rmf::RMRowId row, const NameList& hosts);
    void release(tarn_rmf::RMRowId row, const NameList& hosts);

    std::map<tarn_rmf::RMRowId, GroupRecord> groups_;  // table order
    std::unordered_map<std::string, std::vector<tarn_rmf::RMRowId>> byName_;
    std::unordered_map<zn_resource_handle, tarn_rmf::RMRowId, tarn_rmf2v::HandleHash> byHandle_;
    // For each group name, the groups whose member list names it.
    std::unordered_map<std::string, std::vector<tarn_rmf::RMRowId>> referrers_;
    // For each host name, the groups whose stored expanded list holds it
    // (once per entry).
    std::unordered_map<std::string, std::vector<tarn_rmf::RMRowId>> holders_;
};

}  // namespace orvrm
