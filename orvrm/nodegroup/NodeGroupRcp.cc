#include "orvrm/nodegroup/NodeGroupRcp.h"

#include <algorithm>
#include <set>

#include "orvrm/ORVRMLog.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

cu_error_t* common(int id, const char* a, const char* b = nullptr) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, a, b);
    return e;
}

// Structured data with one string-array field.
zn::SdPtr membersData(const NameList& names) {
    zn::SdPtr sd(zn_sd_new(1));
    if (!sd) {
        throw std::bad_alloc();
    }
    sd->elements[0].data_type = ZN_CHAR_PTR_ARRAY;
    sd->elements[0].value = stringArray(names).release();
    return sd;
}

}  // namespace

NodeGroupRcp::NodeGroupRcp(const zn_resource_handle* handle, NodeGroupRccp* rccp,
                           unsigned int variety)
    : RMTableRcp(handle, rccp, variety) {}

NodeGroupRccp* NodeGroupRcp::groupRccp() const {
    return static_cast<NodeGroupRccp*>(getRccp());
}

void NodeGroupRcp::notifyPersistent(int id, const zn_value_t& value) {
    if (!getRccp()->getMonitor()->isPersistentEnabled(getResourceHandle(), id)) {
        return;
    }
    rm_attribute_value v{id, spec().persistent.byId(id)->type, value};
    try {
        notifyPersistentResourceAttrsModified(&v, 1);
    } catch (std::exception& e) {
        // What it announces is written: a lost notice neither undoes it nor
        // keeps what follows from running.
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRcp::notifyPersistent", err);
        cu_rel_error_1(err);
    }
}

void NodeGroupRcp::notifyPersistent(int id, const NameList& value) {
    // The array is made only for clients that asked to hear it.
    if (getRccp()->getMonitor()->isPersistentEnabled(getResourceHandle(), id)) {
        notifyPersistent(id, stringArray(value).value());
    }
}

void NodeGroupRcp::notifyMembershipChange(const NameList& memberList) {
    notifyPersistent(kNgMemberList, memberList);
}

void NodeGroupRcp::notifyExpMembershipChange(const NameList& expMemberList) {
    notifyPersistent(kNgExpMemberList, expMemberList);
}

void NodeGroupRcp::reportConfigChange() {
    if (!getRccp()->getMonitor()->isMonitored(getResourceHandle(), kNgConfigChanged)) {
        return;
    }
    configChanged_.store(1);
    zn_value_t v{};
    v.val_uint32 = 1;
    reportDynamic("ConfigChanged", ZN_UINT32, v);
    configChanged_.store(0);
}

void NodeGroupRcp::reportMembershipChange(const NameList& added, const NameList& removed,
                                          const NameList& current) {
    if (!getRccp()->getMonitor()->isMonitored(getResourceHandle(), kNgMembershipChanged)) {
        return;
    }
    zn::SdPtr sd(zn_sd_new(5));
    if (!sd) {
        throw std::bad_alloc();
    }
    sd->elements[kNgAddCount].data_type = ZN_INT32;
    sd->elements[kNgAddCount].value.val_int32 = static_cast<int32_t>(added.size());
    sd->elements[kNgDelCount].data_type = ZN_INT32;
    sd->elements[kNgDelCount].value.val_int32 = static_cast<int32_t>(removed.size());
    const NameList* lists[] = {&added, &removed, &current};
    for (int i = 0; i < 3; ++i) {
        sd->elements[kNgAddList + i].data_type = ZN_CHAR_PTR_ARRAY;
        sd->elements[kNgAddList + i].value = stringArray(*lists[i]).release();
    }
    // Held while it is reported, so that a client starting to watch then
    // reads it; only this thread replaces it.
    zn_value_t v{};
    v.ptr_sd = sd.get();
    {
        std::lock_guard<std::mutex> g(membershipMu_);
        membership_ = std::move(sd);
    }
    reportDynamic("MembershipChanged", ZN_SD_PTR, v);
    std::lock_guard<std::mutex> g(membershipMu_);
    membership_.reset();
}

bool NodeGroupRcp::dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) {
    if (attr.id == kNgConfigChanged) {
        zn_value_t v{};
        v.val_uint32 = configChanged_.load();
        *out = zn::OwnedValue(ZN_UINT32, v);
        return true;
    }
    std::lock_guard<std::mutex> g(membershipMu_);
    if (attr.id == kNgMembershipChanged && membership_) {
        zn_value_t v{};
        v.ptr_sd = membership_.get();
        *out = zn::OwnedValue::copyOf(ZN_SD_PTR, v);
        return true;
    }
    return false;
}

void NodeGroupRcp::invokeAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                                zn_structured_data* input) {
    switch (actionId) {
        case kNgGetMembers:
            returnMembers(rsp);
            return;
        case kNgAddMembers:
            addMembers(rsp, input);
            return;
        case kNgRemMembers:
            remMembers(rsp, input);
            return;
        default: {
            orvrminfo_trace("invokeAction: action %d is not known", actionId);
            zn::ErrorPtr err(common(tarn_rmf::RM_ENOTSUPPORTED, "invokeAction"));
            rsp->done(err.get());
        }
    }
}

void NodeGroupRcp::returnMembers(tarn_rmf2v::RMActionResponse* rsp) {
    try {
        zn::OwnedValue list = get("ExpMemberList");
        NameList names =
            list.type() == ZN_CHAR_PTR_ARRAY ? namesOf(list.value().ptr_array) : NameList{};
        rsp->returnData(membersData(names).get());
        rsp->done(nullptr);
    } catch (std::exception& e) {
        rsp->done(zn::ErrorPtr(tarn_rmf::RMMapExceptionToError(e)).get());
    }
}

GroupRecord* NodeGroupRcp::record() {
    return groupRccp()->model().find(*getResourceHandle());
}

int NodeGroupRcp::gone(const char* op, cu_error_t** err) {
    cu_error_t* e = pkg_error(265, 25, op, 0, op);
    if (err != nullptr) {
        *err = e;
    } else {
        cu_rel_error_1(e);
    }
    return -1;
}

std::optional<NameList> NodeGroupRcp::retExpandedMemberList(bool live) {
    const GroupRecord* g = record();
    NameList out;
    if (g == nullptr || !groupRccp()->expand(*g, live, out)) {
        return std::nullopt;
    }
    return out;
}

int NodeGroupRcp::containsNG() {
    const GroupRecord* g = record();
    return g != nullptr && g->nests() ? 1 : 0;
}

int NodeGroupRcp::isMemListAttrSet(cu_error_t** err) {
    const GroupRecord* g = record();
    return g == nullptr ? gone("isMemListAttrSet", err) : g->hasMembers() ? 1 : 0;
}

int NodeGroupRcp::isSelectStrAttrSet(cu_error_t** err) {
    const GroupRecord* g = record();
    return g == nullptr ? gone("isSelectStrAttrSet", err) : g->hasSelect() ? 1 : 0;
}

int NodeGroupRcp::isValidateMembersSet(cu_error_t** err) {
    const GroupRecord* g = record();
    return g == nullptr ? gone("isValidateMembersSet", err) : g->validate == 1 ? 1 : 0;
}

int NodeGroupRcp::strInList(const std::string& s, const NameList& list) {
    return std::find(list.begin(), list.end(), s) != list.end() ? 1 : 0;
}

void NodeGroupRcp::membershipChanged(GroupRecord& g) {
    NodeGroupRccp* c = groupRccp();
    c->updateExpMemList(g, false, true);
    reportConfigChange();
    if (c->isMemberofOtherNG(g.name.c_str()) == 1) {
        c->updateExpMemListAllmemListNG(true, true, g.name.c_str());
    }
}

void NodeGroupRcp::addMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input) {
    changeMembers(rsp, input, true);
}

void NodeGroupRcp::remMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input) {
    changeMembers(rsp, input, false);
}

void NodeGroupRcp::changeMembers(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input,
                                 bool adding) {
    const char* op = adding ? "AddMembers" : "RemoveMembers";
    if (input == nullptr || input->element_count != 1) {
        rsp->done(zn::ErrorPtr(pkg_error(266, 28, op, 0, op)).get());
        return;
    }
    if (input->elements[0].data_type != ZN_CHAR_PTR_ARRAY) {
        rsp->done(zn::ErrorPtr(pkg_error(266, 29, op, 0, op)).get());
        return;
    }
    NodeGroupRccp* c = groupRccp();
    tarn_rmf2v::lockRccp guard(c);
    GroupRecord* g = record();
    if (g == nullptr) {
        rsp->done(zn::ErrorPtr(common(tarn_rmf::RM_EINVALIDHANDLE, op)).get());
        return;
    }
    NameList given = namesOf(input->elements[0].value.ptr_array);
    NameList members;
    zn::ErrorPtr err;
    if (adding) {
        std::set<std::string> current(g->members.begin(), g->members.end());
        if (checkForDuplicateStrings(given)) {
            err.reset(pkg_error(261, 15, op, 0));
        } else if (std::any_of(given.begin(), given.end(),
                               [&](const std::string& n) { return current.count(n) != 0; })) {
            err.reset(pkg_error(261, 30, op, 0));
        } else if (isSelectStrAttrSet(nullptr) == 1) {
            err.reset(pkg_error(266, 26, op, 0));
        } else {
            cu_error_t* e = nullptr;
            if (c->validateMembers(given, g->validate, g->name.c_str(), &e) == 0) {
                err.reset(e);
            }
        }
        members = g->members;
        members.insert(members.end(), given.begin(), given.end());
    } else {
        if (isSelectStrAttrSet(nullptr) == 1) {
            err.reset(pkg_error(266, 26, op, 0));
        }
        std::set<std::string> gone(given.begin(), given.end());
        for (const std::string& m : g->members) {
            if (gone.count(m) == 0) {
                members.push_back(m);
            }
        }
    }
    if (err) {
        rsp->done(err.get());
        return;
    }
    try {
        c->writeMembers(*g, members);
        notifyMembershipChange(g->members);
        membershipChanged(*g);
    } catch (std::exception& e) {
        err.reset(tarn_rmf::RMMapExceptionToError(e));
        orvrmlog_error(adding ? "NodeGroupRcp::addMembers" : "NodeGroupRcp::remMembers", err.get());
    }
    rsp->done(err.get());
}

}  // namespace orvrm
