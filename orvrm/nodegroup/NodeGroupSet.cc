// Changing a node group: each value is checked as a define checks it (with
// the group's own ValidateNodes), then the values are checked together; a
// change that passes is written whole in one write (one refused value
// refuses it all), announced, and followed by the group's new expanded list
// and its publication under a new name.
#include <set>

#include "orvrm/ORVRMLog.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupRcp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

constexpr char kSetOp[] = "setAttributeValues";

cu_error_t* common(int id, const char* a, const char* b = nullptr) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, a, b);
    return e;
}

const char* textOf(const rm_attribute_value& v) {
    return v.rm_value.ptr_char != nullptr ? v.rm_value.ptr_char : "";
}

// The one value's own rule; null accepts.
cu_error_t* checkValue(NodeGroupRccp* c, const GroupRecord& g, const rm_attribute_value& v) {
    switch (v.rm_attribute_id) {
        case kNgMemberList: {
            NameList members = namesOf(v.rm_value.ptr_array);
            if (checkForDuplicateStrings(members)) {
                return pkg_error(261, 15, kSetOp, 0);
            }
            cu_error_t* err = nullptr;
            return c->validateMembers(members, g.validate, g.name.c_str(), &err) == 0 ? err
                                                                                      : nullptr;
        }
        case kNgSelectStr:
            if (g.validate != 1) {
                return pkg_error(0x18000, 53, kSetOp, 0);
            }
            return c->validateSelectStr(v.rm_value.ptr_char) == 0 ? pkg_error(262, 16, kSetOp, 0)
                                                                  : nullptr;
        case kNgName:
            if (textOf(v)[0] == '\0') {
                return common(tarn_rmf::RM_EREQUIREDATTR, "Name", kSetOp);
            }
            if (g.name == textOf(v)) {
                return nullptr;  // its own name
            }
            if (c->ngExist(textOf(v), nullptr) == 1) {
                return pkg_error(259, 13, kSetOp, 0, textOf(v));
            }
            return c->isMemberofOtherNG(g.name.c_str()) != 0 ? pkg_error(264, 19, kSetOp, 0)
                                                             : nullptr;
        default:
            return nullptr;
    }
}

// Checks every value on its own: the refusal of each (null where it is
// accepted), and the accepted values in order.
std::vector<zn::ErrorPtr> checkEach(NodeGroupRccp* c, const GroupRecord& g,
                                    const tarn_rmf2v::RMAttrTable& attrs,
                                    const rm_attribute_value* values, unsigned int count,
                                    std::vector<rm_attribute_value>& accepted) {
    std::set<int> seen;
    std::vector<zn::ErrorPtr> refused(count);
    for (unsigned int i = 0; i < count; ++i) {
        const rm_attribute_value& v = values[i];
        const tarn_rmf2v::RMAttrSpec* a = attrs.byId(v.rm_attribute_id);
        zn::ErrorPtr& err = refused[i];
        if (a == nullptr) {
            err.reset(common(tarn_rmf::RM_EINVALIDATTRID, kSetOp));
        } else if (!seen.insert(a->id).second) {
            err.reset(pkg_error(0x18004, 2, kSetOp, 0, a->name));
        } else if (a->readOnly()) {
            err.reset(common(tarn_rmf::RM_EREADONLYATTR, a->name, kSetOp));
        } else if (v.rm_data_type != a->type) {
            err.reset(common(tarn_rmf::RM_EDATATYPE, kSetOp));
        } else {
            err.reset(checkValue(c, g, v));
        }
        if (!err) {
            accepted.push_back(v);
        }
    }
    return refused;
}

// The rules across the accepted values; null accepts.
cu_error_t* checkTogether(const GroupRecord& g, const std::vector<rm_attribute_value>& accepted) {
    const rm_attribute_value* members = nullptr;
    const rm_attribute_value* select = nullptr;
    for (const rm_attribute_value& v : accepted) {
        members = v.rm_attribute_id == kNgMemberList ? &v : members;
        select = v.rm_attribute_id == kNgSelectStr ? &v : select;
    }
    bool someMembers = members != nullptr && members->rm_value.ptr_array != nullptr &&
                       members->rm_value.ptr_array->array_cnt > 0;
    bool someSelect = select != nullptr && textOf(*select)[0] != '\0';
    if (someMembers && someSelect) {
        return pkg_error(0x18000, 17, kSetOp, 0);
    }
    if (someMembers && g.hasSelect()) {
        return pkg_error(0x18000, 26, kSetOp, 0);
    }
    if (someSelect && members == nullptr && g.hasMembers()) {
        return pkg_error(0x18000, 27, kSetOp, 0);
    }
    return nullptr;
}

// The model takes what was written, as it was written.
void mirror(GroupModel& model, GroupRecord& g, const std::vector<rm_attribute_value>& written) {
    for (const rm_attribute_value& v : written) {
        switch (v.rm_attribute_id) {
            case kNgMemberList:
                model.setMembers(g, namesOf(v.rm_value.ptr_array));
                break;
            case kNgSelectStr:
                model.setSelectStr(g, textOf(v));
                break;
            case kNgName:
                model.setName(g, textOf(v));
                break;
            default:
                break;
        }
    }
}

// One step after a change was written; a failure is logged and ends it.
template <typename Step>
void afterWrite(Step&& step) {
    try {
        step();
    } catch (std::exception& e) {
        cu_error_t* err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("NodeGroupRcp::setAttributeValues", err);
        cu_rel_error_1(err);
    }
}

}  // namespace

void NodeGroupRcp::setAttributeValues(tarn_rmf2v::RMAttributeIdResponse* rsp,
                                      rm_attribute_value* values, unsigned int count) {
    NodeGroupRccp* c = groupRccp();
    tarn_rmf2v::lockRccp guard(c);
    GroupRecord* g = record();
    if (g == nullptr) {
        rsp->done(zn::ErrorPtr(common(tarn_rmf::RM_EINVALIDHANDLE, kSetOp)).get());
        return;
    }
    std::vector<rm_attribute_value> accepted;
    std::vector<zn::ErrorPtr> refused =
        checkEach(c, *g, spec().persistent, values, values != nullptr ? count : 0, accepted);
    cu_error_t* firstRefusal = nullptr;  // owned by `refused`
    for (const zn::ErrorPtr& err : refused) {
        firstRefusal = firstRefusal == nullptr ? err.get() : firstRefusal;
    }
    zn::ErrorPtr failed;
    if (firstRefusal == nullptr) {
        failed.reset(checkTogether(*g, accepted));
    }
    std::string oldName = g->name;
    bool write = firstRefusal == nullptr && !failed && !accepted.empty();
    if (write) {
        try {
            std::vector<tarn_rmf::RMFieldValue> fields;
            for (const rm_attribute_value& v : accepted) {
                fields.push_back({nullptr, v.rm_attribute_id, v.rm_data_type, v.rm_value});
            }
            c->resourceTable()->changeRow(g->row, fields.data(),
                                          static_cast<unsigned>(fields.size()));
        } catch (std::exception& e) {
            failed.reset(tarn_rmf::RMMapExceptionToError(e));
            orvrmlog_error("NodeGroupRcp::setAttributeValues", failed.get());
        }
        if (!failed) {
            mirror(c->model(), *g, accepted);
            c->tableSync();
        }
    }
    // In request order: a refused value its own error, the others what
    // stopped the change (none when it was written).
    cu_error_t* outcome = firstRefusal != nullptr ? firstRefusal : failed.get();
    for (unsigned int i = 0; i < refused.size(); ++i) {
        rsp->result(values[i].rm_attribute_id, refused[i] ? refused[i].get() : outcome);
    }
    if (!write || failed) {
        rsp->done(nullptr);
        return;
    }
    // Then what follows the change. A step that fails is logged and the
    // others still run: the change stands, and what is left undone follows
    // with the next recomputation.
    bool membership = false;
    bool selection = false;
    for (const rm_attribute_value& v : accepted) {
        membership =
            membership || v.rm_attribute_id == kNgMemberList || v.rm_attribute_id == kNgSelectStr;
        selection = selection || v.rm_attribute_id == kNgSelectStr;
    }
    afterWrite([&] {
        if (selection) {
            c->selectionChanged(*g);
        }
    });
    afterWrite([&] {
        for (const rm_attribute_value& v : accepted) {
            notifyPersistent(v.rm_attribute_id, v.rm_value);
        }
    });
    afterWrite([&] {
        if (membership) {
            membershipChanged(*g);
        }
    });
    afterWrite([&] {
        if (g->name != oldName) {
            c->updateNodeGroupPEXD(g->name.c_str(), oldName.c_str());
        }
    });
    rsp->done(nullptr);
}

}  // namespace orvrm
