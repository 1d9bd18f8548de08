// Defining and undefining node groups, and the rules a group's members and
// selection must meet (also applied by changes and by AddMembers).
#include <cstring>
#include <deque>
#include <optional>
#include <unordered_set>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

constexpr char kDefineOp[] = "defineResource";
constexpr char kValidateOp[] = "validateMembers";

bool isText(const rm_attribute_value& v) {
    return v.rm_data_type == ZN_CHAR_PTR && v.rm_value.ptr_char != nullptr;
}

bool nonEmptyText(const rm_attribute_value* v) {
    return v != nullptr && isText(*v) && v->rm_value.ptr_char[0] != '\0';
}

bool nonEmptyList(const rm_attribute_value* v) {
    return v != nullptr && v->rm_data_type == ZN_CHAR_PTR_ARRAY &&
           v->rm_value.ptr_array != nullptr && v->rm_value.ptr_array->array_cnt > 0;
}

int fail(cu_error_t* e, cu_error_t** err) {
    if (err != nullptr) {
        *err = e;
    } else {
        cu_rel_error_1(e);
    }
    return 0;
}

}  // namespace

cu_error_t* NodeGroupRccp::checkDefineValue(const tarn_rmf2v::RMAttrSpec& attr,
                                            const rm_attribute_value& value) {
    switch (attr.id) {
        case kNgName:
            if (!isText(value) || value.rm_value.ptr_char[0] == '\0') {
                // A group is found by its name: an empty one names nothing.
                return pkg_error(0x18006, 5, kDefineOp, 0, attr.name);
            }
            return ngExist(value.rm_value.ptr_char, nullptr) == 1
                       ? pkg_error(259, 13, kDefineOp, 0, value.rm_value.ptr_char)
                       : nullptr;
        case kNgValidateNodes:
            return value.rm_value.val_uint32 > 1 ? pkg_error(260, 14, kDefineOp, 0) : nullptr;
        case kNgMemberList:
            return checkForDuplicateStrings(namesOf(value.rm_value.ptr_array))
                       ? pkg_error(261, 15, kDefineOp, 0)
                       : nullptr;
        case kNgSelectStr:
            return validateSelectStr(value.rm_value.ptr_char) == 0
                       ? pkg_error(262, 16, kDefineOp, 0)
                       : nullptr;
        default:
            return nullptr;
    }
}

cu_error_t* NodeGroupRccp::checkDefineRow(DefineRow& row) {
    const rm_attribute_value* members = row.find(kNgMemberList);
    const rm_attribute_value* select = row.find(kNgSelectStr);
    const rm_attribute_value* validate = row.find(kNgValidateNodes);
    const rm_attribute_value* name = row.find(kNgName);
    if (nonEmptyList(members) && nonEmptyText(select)) {
        return pkg_error(0x18000, 17, kDefineOp, 0);
    }
    if (nonEmptyList(members)) {
        // Without ValidateNodes in the request node names go unchecked here,
        // though the stored default is 1.
        cu_error_t* err = nullptr;
        if (validateMembers(namesOf(members->rm_value.ptr_array),
                            validate != nullptr ? validate->rm_value.val_uint32 : 0,
                            name != nullptr ? name->rm_value.ptr_char : nullptr, &err) == 0) {
            return err;
        }
    } else if (nonEmptyText(select)) {
        if (validate == nullptr) {
            rm_attribute_value one{kNgValidateNodes, ZN_UINT32, {}};
            one.rm_value.val_uint32 = 1;
            row.values.push_back(one);
        } else if (validate->rm_value.val_uint32 == 0) {
            return pkg_error(0x18000, 53, kDefineOp, 0);
        }
    }
    return nullptr;
}

void NodeGroupRccp::defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp, zn_structured_data*,
                                   rm_attribute_value* values, unsigned int count) {
    tarn_rmf2v::lockRccp guard(this);
    DefineResult r;
    try {
        r = defineRow(values, count, kDefineOp);
    } catch (std::exception& e) {
        r.error.reset(tarn_rmf::RMMapExceptionToError(e));
        orvrmlog_error("NodeGroupRccp::defineResource", r.error.get());
    }
    if (r.error) {
        rsp->done(nullptr, r.error.get());
        return;
    }
    // The model takes the row as soon as it is written, so that the two
    // agree whatever fails after.
    std::string name;
    GroupRecord* g = nullptr;
    try {
        g = &model_.add(rowOf(r.handle), 0);
        name = g->name;
        g->stale = true;  // until its expanded list is written
    } catch (std::exception& e) {
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRccp::defineResource", err);
        cu_rel_error_1(err);
    }
    tableSync();
    try {
        if (g != nullptr && g->hasSelect()) {
            selectionChanged(*g);
        }
        NodeGroupRcp* rcp = g != nullptr ? rcpOf(*g) : nullptr;
        std::optional<NameList> list;
        if (rcp != nullptr) {
            list = rcp->retExpandedMemberList(g->hasSelect());
        }
        if (list) {
            writeExpanded(*g, std::move(*list), nullptr, nullptr);
            g->stale = false;
        }
    } catch (std::exception& e) {
        // The group stands; its list follows with the next recomputation.
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRccp::defineResource", err);
        cu_rel_error_1(err);
    }
    addNodeGroupPEXD(name.c_str());
    rsp->done(&r.handle, nullptr);
    reportClassEvent("ResourceDefined");
}

cu_error_t* NodeGroupRccp::checkUndefine(tarn_rmf2v::RMTableRcp* rcp) {
    const GroupRecord* g = model_.find(*rcp->getResourceHandle());
    if (g != nullptr && isMemberofOtherNG(g->name.c_str()) != 0) {
        return pkg_error(264, 19, "undefineResource", 0);
    }
    return nullptr;
}

void NodeGroupRccp::resourceRemoved(tarn_rmf2v::RMTableRcp* rcp) {
    GroupRecord* g = model_.find(*rcp->getResourceHandle());
    std::string name = g != nullptr ? g->name : std::string();
    if (g != nullptr) {
        index_->dropSelection(g->row);
        model_.remove(g->handle);
    }
    tableSync();
    removeNodeGroupPEXD(name.c_str());
}

int NodeGroupRccp::validateSelectStr(const char* selectStr) {
    if (selectStr == nullptr || selectStr[0] == '\0' || std::strcmp(selectStr, "*") == 0) {
        return 1;
    }
    ManagedNodeRccp* mn = nodes();
    if (mn == nullptr) {
        return 0;
    }
    try {
        if (expansion() == Expansion::Rescan) {
            mn->selectStrMembers(selectStr);  // an empty result is fine
        } else {
            // Compiled and bound as a query would, without running it.
            mn->resourceTable()->compileSelection(selectStr)->bind(nullptr);
        }
        return 1;
    } catch (const std::exception& e) {
        orvrminfo_trace("validateSelectStr: %s", e.what());
        return 0;
    }
}

int NodeGroupRccp::checkForCyclicDep(const char* group, const char* candidate, cu_error_t** err) {
    int cyclic = -1;
    if (candidate != nullptr && expansion() == Expansion::Rescan) {
        cyclic = cyclicRescan(group, candidate);
    } else if (candidate != nullptr) {
        // Breadth first over "contains", from the candidate.
        std::deque<std::string_view> work{candidate};
        std::unordered_set<std::string_view> seen{candidate};
        cyclic = 0;
        while (!work.empty()) {
            const GroupRecord* g = model_.find(work.front());
            work.pop_front();
            if (g == nullptr) {
                cyclic = -1;
                break;
            }
            for (const std::string& n : g->nested) {
                if (seen.insert(n).second) {
                    work.push_back(n);
                }
            }
        }
        if (cyclic == 0 && group != nullptr && seen.count(group) != 0) {
            cyclic = 1;
        }
    }
    if (cyclic < 0) {
        cu_error_t* e = pkg_error(265, 25, "checkForCyclicDep", 0, "checkForCyclicDep");
        if (err != nullptr) {
            *err = e;
        } else {
            cu_rel_error_1(e);
        }
    }
    return cyclic;
}

int NodeGroupRccp::validateMembers(const NameList& members, uint32_t validate, const char* group,
                                   cu_error_t** err) {
    ManagedNodeRccp* mn = nodes();
    for (const std::string& m : members) {
        if (!m.empty() && m[0] == kNgGroupPrefix) {
            const char* name = m.c_str() + 1;
            if (ngExist(name, nullptr) == 0) {
                return fail(pkg_error(261, 56, kValidateOp, 0, name), err);
            }
            cu_error_t* e = nullptr;
            int cyclic = checkForCyclicDep(group, name, &e);
            if (cyclic != 0) {
                if (cyclic < 0) {
                    orvrminfo_trace("validateNGMembers");
                    return fail(e, err);
                }
                return fail(pkg_error(261, 23, kValidateOp, 0, name), err);
            }
            if (validate == 1) {
                int set = isValidateMembersSet(name, &e);
                if (set < 0) {
                    orvrminfo_trace("validateNGMembers");
                    return fail(e, err);
                }
                if (set == 0) {
                    return fail(pkg_error(261, 24, kValidateOp, 0, name), err);
                }
            }
            continue;
        }
        // An empty member names no node, whatever the validation.
        if (m.empty()) {
            return fail(pkg_error(261, 22, kValidateOp, 0, m.c_str()), err);
        }
        if (validate != 1) {
            continue;
        }
        cu_error_t* e = nullptr;
        int found = mn != nullptr ? mn->hostnameExists(m.c_str(), &e) : 0;
        if (found < 0) {
            orvrminfo_trace("validateNGMembers");
            return fail(e, err);
        }
        if (found == 0) {
            return fail(pkg_error(261, 22, kValidateOp, 0, m.c_str()), err);
        }
    }
    return 1;
}

}  // namespace orvrm
