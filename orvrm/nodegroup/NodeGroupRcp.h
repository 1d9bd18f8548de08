// The resource control point of one node group. Its persistent attributes
// are the columns of its row in the class's table (mirrored by the class in
// memory); it keeps only what a report in progress carries. It runs the
// group's actions (GetMembers, AddMembers, RemMembers), changes the group
// under the define rules, and reports ConfigChanged and MembershipChanged
// while clients monitor them.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

#include "orvrm/nodegroup/MemberLists.h"
#include "tarn_rmf2v/RMTableRcp.h"

namespace orvrm {

class NodeGroupRccp;
struct GroupRecord;

class NodeGroupRcp : public tarn_rmf2v::RMTableRcp {
public:
    NodeGroupRcp(const zn_resource_handle* handle, NodeGroupRccp* rccp, unsigned int variety);

    NodeGroupRccp* groupRccp() const;

    void invokeAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                      zn_structured_data* input) override;
    // Takes the class lock; each value is checked as a define checks it,
    // then across the request. All or nothing: the change is written whole
    // in one write, or nothing is written when any value is refused; each
    // value is answered, a refused one with its own error.
    void setAttributeValues(tarn_rmf2v::RMAttributeIdResponse* rsp, rm_attribute_value* values,
                            unsigned int count) override;

    // What the group is, from the class's mirror of its row; call with the
    // class lock held. The expanded member list an expansion gives now
    // (the group's own selection live when `live`); none when a contained
    // group is not found exactly once.
    std::optional<NameList> retExpandedMemberList(bool live);
    // 1 when the member list names a group ("+name"), else 0.
    int containsNG();
    // 1 when the member list is non-empty, the selection string non-empty,
    // ValidateNodes 1; else 0; -1 with error 265 when the group is gone.
    int isMemListAttrSet(cu_error_t** err);
    int isSelectStrAttrSet(cu_error_t** err);
    int isValidateMembersSet(cu_error_t** err);
    // 1 when `list` holds `s`, else 0.
    static int strInList(const std::string& s, const NameList& list);

    // Reports, each made only while clients monitor the attribute (or
    // asked to hear changes of the persistent one). A persistent change
    // notice that cannot be sent is logged and dropped.
    void reportConfigChange();
    void reportMembershipChange(const NameList& added, const NameList& removed,
                                const NameList& current);
    void notifyMembershipChange(const NameList& memberList);
    void notifyExpMembershipChange(const NameList& expMemberList);

protected:
    bool dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) override;

private:
    void returnMembers(tarn_rmf2v::RMActionResponse* rsp);
    void addMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void remMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    // AddMembers (adding) and RemMembers: the checks, the new member list,
    // and what follows a membership change.
    void changeMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input, bool adding);
    // The group's record in the class's mirror (null when gone); -1 with
    // error 265 naming `op` when gone.
    GroupRecord* record();
    int gone(const char* op, cu_error_t** err);
    // After the member list or selection changed: the group's own list, its
    // ConfigChanged, and the groups that contain it.
    void membershipChanged(GroupRecord& g);
    void notifyPersistent(int id, const zn_value_t& value);
    void notifyPersistent(int id, const NameList& value);

    std::atomic<uint32_t> configChanged_{0};
    // The MembershipChanged value while it is being reported.
    std::mutex membershipMu_;
    zn::SdPtr membership_;
};

}  // namespace orvrm
