// What node changes do to groups: the delayed recomputation one second
// after the last change, the delayed table sync, and the member lists a
// node's removal or new host name rewrites at once.
#include <algorithm>

#include "orvrm/ORVRMLog.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {

void NodeGroupRccp::queueUpdateExpMemList() {
    schedule_->addOperation("updateExpMemList", &NodeGroupRccp::runUpdateExpMemList, &updateTag_,
                            1);
}

void NodeGroupRccp::queueTableSync() {
    schedule_->addOperation("TableSync", &NodeGroupRccp::runTableSync, &syncTag_, 1);
}

void NodeGroupRccp::scheduleUpdateExpMemList() {
    // A burst of changes gives one recomputation, a second after the last.
    schedule_->removeOperation(&updateTag_);
    queueUpdateExpMemList();
}

void NodeGroupRccp::scheduleTableSync() {
    queueTableSync();
}

void NodeGroupRccp::runUpdateExpMemList(void* tag) {
    static_cast<OpTag*>(tag)->self->updateExpMemListAllWithLock();
}

void NodeGroupRccp::runTableSync(void* tag) {
    NodeGroupRccp* self = static_cast<OpTag*>(tag)->self;
    if (self == nullptr) {
        return;
    }
    tarn_rmf2v::lockRccp guard(self);
    self->tableSync();
}

void NodeGroupRccp::tableSync() {
    try {
        resourceTable()->sync();
    } catch (std::exception& e) {
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRccp::tableSync", err);
        cu_rel_error_1(err);
    }
}

void NodeGroupRccp::nodeAddCB() {
    {
        std::lock_guard<std::mutex> g(pendingMu_);
        pendingAll_ = true;  // which node is not said: all are read again
        pendingNodes_.clear();
    }
    scheduleUpdateExpMemList();
}

void NodeGroupRccp::nodeAttrChangeCB() {
    nodeAddCB();
}

void NodeGroupRccp::nodeAdded(const char* hostname) {
    noteNode(hostname);
    scheduleUpdateExpMemList();
}

void NodeGroupRccp::nodeChanged(const char* hostname) {
    noteNode(hostname);
    scheduleUpdateExpMemList();
}

void NodeGroupRccp::nodeDelOrChangeCB(const char* oldName, const char* newName) {
    if (oldName == nullptr) {
        return;
    }
    noteNode(oldName);
    noteNode(newName);
    // Cancelled before the class lock is taken: a run in progress holds it,
    // and cancelling waits for that run.
    schedule_->removeOperation(&syncTag_);
    schedule_->removeOperation(&updateTag_);
    tarn_rmf2v::lockRccp guard(this);
    // Validating groups with members follow the node; on a new host name
    // every one of them is rewritten, whether it held the old name or not.
    // Groups that do not validate keep their entries.
    for (auto& [row, g] : model_.groups()) {
        if (!g.hasMembers() || g.validate != 1) {
            continue;
        }
        NameList members = g.members;
        if (newName == nullptr) {
            auto end = std::remove(members.begin(), members.end(), oldName);
            if (end == members.end()) {
                continue;
            }
            members.erase(end, members.end());
        } else {
            std::replace(members.begin(), members.end(), std::string(oldName),
                         std::string(newName));
        }
        try {
            writeMembers(g, members);
            NodeGroupRcp* rcp = rcpOf(g);
            if (rcp != nullptr) {
                rcp->notifyMembershipChange(g.members);
            }
            updateExpMemList(g, false, true);
            if (rcp != nullptr) {
                rcp->reportConfigChange();
            }
        } catch (std::exception& e) {
            cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
            orvrmlog_error("NodeGroupRccp::nodeDelOrChangeCB", err);
            cu_rel_error_1(err);
        }
    }
    // Selection groups and the groups containing changed ones catch up a
    // second later.
    queueUpdateExpMemList();
    queueTableSync();
}

}  // namespace orvrm
