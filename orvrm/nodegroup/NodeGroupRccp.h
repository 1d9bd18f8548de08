// The class control point of "Kor.NodeGroup": named groups of managed nodes,
// one resource per row of "/Kor/NodeGroup/Resources" (each server loads the
// groups it owns). A group is given by a member list (host names, and other
// groups written "+name") or by a selection string over the managed nodes;
// the class keeps each group's expanded member list (ExpMemberList) current
// as nodes come, change names and go, reports membership changes to the
// clients that watch, and publishes every group's expanded list to the
// distributed-information node-group table.
//
// Recomputation is incremental: the class mirrors its groups in memory
// (GroupModel), keeps which nodes each selection picks (SelectionIndex), is
// told which nodes changed, and expands only the groups whose expanded list
// may have moved ("stale"), selection groups first, then the groups that
// contain others in dependency order. What is written and reported is what
// re-expanding every selection and nesting group would write and report;
// Expansion::Rescan does exactly that, from the tables, for comparison.
//
// Locks: the class lock guards the model, the index and every group row
// change; delayed operations run on the class's schedule and take it. The
// managed-node class calls the hooks holding its own lock, so this class
// never takes that lock (its lookups take none). Publication takes the
// control point's distributed-information mutex inside the class lock.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvrm/NodeGroupHooks.h"
#include "orvrm/OrvTableRccp.h"
#include "orvrm/nodegroup/GroupModel.h"
#include "orvrm/nodegroup/SelectionIndex.h"
#include "orvrm/strent.h"
#include "tarn_rmf2v/RMSchedule.h"
#include "znpex/di/DiTypes.h"

class ORVRMRmcp;

namespace orvrm {

class ManagedNodeRccp;
class NodeGroupRcp;

class NodeGroupRccp : public OrvTableRccp, public NodeGroupHooks {
public:
    NodeGroupRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp);
    ~NodeGroupRccp() override;

    // How recomputations expand groups.
    enum class Expansion {
        Indexed,  // only stale groups, from memory and the selection index
        Rescan,   // every selection and nesting group, from table queries
    };
    // Takes the class lock; switching to Indexed reads every node again
    // and marks every group stale.
    void setExpansion(Expansion e);
    Expansion expansion() const { return expansion_.load(); }

    void defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp, zn_structured_data* options,
                        rm_attribute_value* values, unsigned int count) override;
    // GroupsOfNode: the groups whose expanded list holds the host name given.
    void invokeClassAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                           zn_structured_data* input) override;
    virtual void coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp);
    // Once the link to the service is up, the whole table is published
    // again: the publication at start precedes the link, and a service
    // that lost its table is filled again.
    void connectionChanged(rm_conn_changed state) override;

    // Lookups; call with the class lock held.
    // 1 when a group has this name, else 0.
    int ngExist(const char* name, cu_error_t** err);
    // 1 when another group lists "+name", else 0.
    int isMemberofOtherNG(const char* name);
    // 1 when the group's ValidateNodes is 1, 0 when not; -1 with error 265
    // when the name is not held by exactly one group.
    int isValidateMembersSet(const char* name, cu_error_t** err);
    // 1 when adding `candidate` to `group` closes a cycle, 0 when not; -1
    // with error 265 when a group on the way is not found exactly once.
    int checkForCyclicDep(const char* group, const char* candidate, cu_error_t** err);
    // 1 when the members may be given to the group, else 0 with *err set.
    int validateMembers(const NameList& members, uint32_t validate, const char* group,
                        cu_error_t** err);
    // 1 when the managed-node table takes the selection (null, "" and "*"
    // always), else 0.
    int validateSelectStr(const char* selectStr);
    // The groups whose expanded list holds the host, in name order.
    NameList groupsOfNode(const std::string& hostname);

    // Recomputation; call with the class lock held. `skip` names a group
    // left out (null: none). Both report flags set: changed groups report
    // ConfigChanged and MembershipChanged and are published.
    void updateExpMemListAll(bool reportConfig, bool reportMembership, const char* skip);
    void updateExpMemListAllSlctStrNG(bool reportConfig, bool reportMembership, const char* skip);
    void updateExpMemListAllmemListNG(bool reportConfig, bool reportMembership, const char* skip);
    // Takes the class lock, then updateExpMemListAll with both reports.
    void updateExpMemListAllWithLock();
    // One group: expands it (live selection for a selection group), and when
    // the result differs from the stored list writes it and reports. 1 when
    // written, 0 when nothing differed, -1 when the expansion failed.
    int updateExpMemList(GroupRecord& g, bool reportConfig, bool reportMembership);
    // Marks every group stale and every node unread, so the next
    // recomputation is a full one (start-up does this).
    void invalidateAll();

    // Delayed operations, due one second from now. Cancelling may wait for
    // a run in progress, which takes the class lock: never call these with
    // the class lock held.
    void scheduleUpdateExpMemList();
    void scheduleTableSync();
    // Syncs the group table (class lock held). A failure is logged and
    // nothing else: what was written stays in the table and the model, and
    // a later sync makes it durable.
    void tableSync();
    tarn_rmf2v::RMSchedule& schedule() { return *schedule_; }

    // NodeGroupHooks: the managed-node class's news.
    void nodeAddCB() override;
    void nodeAttrChangeCB() override;
    void nodeDelOrChangeCB(const char* oldName, const char* newName) override;
    void nodeAdded(const char* hostname) override;
    void nodeChanged(const char* hostname) override;

    // The stored expanded list of the group of this name; null unless
    // exactly one group has it. Valid while the class lock is held and the
    // group unchanged.
    const NameList* getExpMemList(const char* name);
    // The entries' strings as the table calls take them (not copies; the
    // count is the size).
    static std::vector<char*> getNodeList(const NameList& names);

    // Publication to the node-group table (operations 1, 2 and 4).
    void sendAllNodeGroupsPEXD();
    void addNodeGroupPEXD(const char* name);
    void updateNodeGroupPEXD(const char* name, const char* oldName);
    void removeNodeGroupPEXD(const char* name);
    int updatePEXNGInfo(di_table_op_t op, const char* name, char** names, unsigned int count);

    // For the resources (class lock held).
    GroupModel& model() { return model_; }
    // The expansion of a group (its own selection live when `live`, seeing
    // every node change reported so far): indexed from memory, or
    // straightforward. False when a contained group is not found exactly
    // once or the live selection does not hold.
    bool expand(const GroupRecord& g, bool live, NameList& out);
    // Writes a group's member list or expanded list, and mirrors it.
    void writeMembers(GroupRecord& g, const NameList& members);
    // The group's resource control point (null when gone).
    NodeGroupRcp* rcpOf(const GroupRecord& g);
    // After a change of a group's selection string.
    void selectionChanged(GroupRecord& g);
    ManagedNodeRccp* nodes();

    // The straightforward expansion, as the tables hold the groups: the
    // group's members (live selection when asked) added to the lists
    // without duplicates. 1, or -1 when the group is not found exactly once
    // or its selection does not hold.
    int getandAddMembersToLst(const char* name, strent** groups, strent** nodes, int live);

protected:
    tarn_rmf2v::RMTableRcp* makeRcp(const zn_resource_handle& handle,
                                    unsigned int variety) override;
    cu_error_t* checkDefineValue(const tarn_rmf2v::RMAttrSpec& attr,
                                 const rm_attribute_value& value) override;
    cu_error_t* checkDefineRow(DefineRow& row) override;
    cu_error_t* checkUndefine(tarn_rmf2v::RMTableRcp* rcp) override;
    void resourceRemoved(tarn_rmf2v::RMTableRcp* rcp) override;

private:
    struct OpTag {
        NodeGroupRccp* self;
    };
    static void runTableSync(void* tag);
    static void runUpdateExpMemList(void* tag);
    void queueUpdateExpMemList();
    void queueTableSync();

    bool expandIndexed(const GroupRecord& g, bool live, NameList& out);
    bool expandRescan(const GroupRecord& g, bool live, NameList& out);
    int cyclicRescan(const char* group, const char* candidate);
    // Writes a new expanded list and mirrors it.
    void writeExpanded(GroupRecord& g, NameList list, const NameList* added,
                       const NameList* removed);
    // Takes in the nodes named since the last call and marks the selection
    // groups whose members moved.
    void syncNodes();
    void noteNode(const char* hostname);
    // The nesting groups to recompute, contained ones first.
    std::vector<GroupRecord*> nestingOrder();

    ORVRMRmcp* orvrmcp_;
    GroupModel model_;
    std::unique_ptr<SelectionIndex> index_;
    std::atomic<Expansion> expansion_{Expansion::Indexed};

    // Host names the managed-node class reported since the last sync; the
    // hooks fill it without the class lock.
    std::mutex pendingMu_;
    std::vector<std::string> pendingNodes_;
    bool pendingAll_ = false;

    OpTag syncTag_{this};
    OpTag updateTag_{this};
    std::unique_ptr<tarn_rmf2v::RMSchedule> schedule_;  // last: stopped first
};

}  // namespace orvrm
