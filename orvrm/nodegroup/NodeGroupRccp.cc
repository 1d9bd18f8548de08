#include "orvrm/nodegroup/NodeGroupRccp.h"

#include <new>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/ORVRMTrace.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

tarn_rmf2v::RMTableRccp::Options options() {
    tarn_rmf2v::RMTableRccp::Options o;
    // Each server loads the groups it owns (all of them in an "IW" domain);
    // every change is written at once.
    o.ownRowsOnly = true;
    o.writeThrough = true;
    o.classCode = findClass(kNodeGroupClass)->handleCode;
    o.rcpName = "NodeGroupRcp";
    o.defineFunction = "NodeGroupRccp::DefineResource";
    // Before the tables are opened, so that a start that fails there is seen.
    o.entered = [] { traceRecord(0x53, "NodeGroupRccp::NodeGroupRccp entered"); };
    return o;
}

cu_error_t* common(int id, const char* a, const char* b = nullptr) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, a, b);
    return e;
}

}  // namespace

NodeGroupRccp::NodeGroupRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp)
    : OrvTableRccp(className, type, rmcp, nodeGroupSpec(), options()), orvrmcp_(rmcp) {
    loadResources();
    // Lookups by name are the class's most frequent query.
    resourceTable()->createIndex("Name");
    ManagedNodeRccp* mn = nodes();
    index_ = std::make_unique<SelectionIndex>(mn != nullptr ? mn->resourceTable() : nullptr);
    schedule_ = std::make_unique<tarn_rmf2v::RMSchedule>();
    {
        tarn_rmf2v::lockRccp guard(this);
        model_.load(resourceTable()->getMetadata());
        invalidateAll();
        updateExpMemListAll(false, false, nullptr);
        sendAllNodeGroupsPEXD();
    }
    traceRecord(0x54, "NodeGroupRccp::NodeGroupRccp leaving");
}

NodeGroupRccp::~NodeGroupRccp() {
    // The schedule goes first: a recomputation in progress is waited for
    // while everything it uses still stands, the schedule included.
    schedule_->stop();
    schedule_.reset();
}

tarn_rmf2v::RMTableRcp* NodeGroupRccp::makeRcp(const zn_resource_handle& handle,
                                               unsigned int variety) {
    return new NodeGroupRcp(&handle, this, variety);
}

ManagedNodeRccp* NodeGroupRccp::nodes() {
    return dynamic_cast<ManagedNodeRccp*>(getRmcp()->findRccpByName(kManagedNodeClass));
}

NodeGroupRcp* NodeGroupRccp::rcpOf(const GroupRecord& g) {
    return dynamic_cast<NodeGroupRcp*>(findRcpByHandle(&g.handle));
}

void NodeGroupRccp::coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp) {
    rsp->done(nullptr);
}

void NodeGroupRccp::connectionChanged(rm_conn_changed state) {
    if (state == RM_CONNECTION_ESTABLISHED) {
        tarn_rmf2v::lockRccp guard(this);
        sendAllNodeGroupsPEXD();
    }
}

void NodeGroupRccp::setExpansion(Expansion e) {
    tarn_rmf2v::lockRccp guard(this);
    if (expansion_.exchange(e) != e && e == Expansion::Indexed) {
        invalidateAll();
    }
}

void NodeGroupRccp::invalidateAll() {
    index_->clear();
    for (auto& [row, g] : model_.groups()) {
        g.stale = true;
        if (g.hasSelect()) {
            index_->addSelection(row, g.selectStr);
        }
    }
    std::lock_guard<std::mutex> p(pendingMu_);
    pendingNodes_.clear();
    pendingAll_ = false;
}

int NodeGroupRccp::ngExist(const char* name, cu_error_t**) {
    size_t count = 0;
    model_.find(name != nullptr ? name : "", &count);
    return count > 0 ? 1 : 0;
}

int NodeGroupRccp::isMemberofOtherNG(const char* name) {
    return model_.listedByOther(name != nullptr ? name : "") ? 1 : 0;
}

int NodeGroupRccp::isValidateMembersSet(const char* name, cu_error_t** err) {
    const GroupRecord* g = model_.find(name != nullptr ? name : "");
    if (g == nullptr) {
        cu_error_t* e = pkg_error(265, 25, "isValidateMembersSet", 0, "isValidateMembersSet");
        if (err != nullptr) {
            *err = e;
        } else {
            cu_rel_error_1(e);
        }
        return -1;
    }
    return g->validate == 1 ? 1 : 0;
}

NameList NodeGroupRccp::groupsOfNode(const std::string& hostname) {
    return model_.holding(hostname);
}

void NodeGroupRccp::invokeClassAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                                      zn_structured_data* input) {
    static const char op[] = "GroupsOfNode";
    if (actionId != kNgGroupsOfNode) {
        orvrminfo_trace("invokeClassAction: action %d is not known", actionId);
        zn::ErrorPtr err(common(tarn_rmf::RM_ENOTSUPPORTED, "invokeClassAction"));
        rsp->done(err.get());
        return;
    }
    if (input == nullptr || input->element_count != 1) {
        zn::ErrorPtr err(pkg_error(266, 28, op, 0, op));
        rsp->done(err.get());
        return;
    }
    if (input->elements[0].data_type != ZN_CHAR_PTR ||
        input->elements[0].value.ptr_char == nullptr) {
        zn::ErrorPtr err(pkg_error(266, 29, op, 0, op));
        rsp->done(err.get());
        return;
    }
    NameList groups;
    {
        tarn_rmf2v::lockRccp guard(this);
        groups = groupsOfNode(input->elements[0].value.ptr_char);
    }
    try {
        zn::SdPtr out(zn_sd_new(1));
        if (!out) {
            throw std::bad_alloc();
        }
        out->elements[0].data_type = ZN_CHAR_PTR_ARRAY;
        out->elements[0].value = stringArray(groups).release();
        rsp->returnData(out.get());
        rsp->done(nullptr);
    } catch (std::exception& e) {
        rsp->done(zn::ErrorPtr(tarn_rmf::RMMapExceptionToError(e)).get());
    }
}

}  // namespace orvrm
