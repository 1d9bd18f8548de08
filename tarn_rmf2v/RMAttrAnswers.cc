#include "tarn_rmf2v/RMAttrAnswers.h"

#include <set>

#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMDefaults.h"

namespace tarn_rmf2v {

using defaults::common;

void answerRowValues(RMAttributeValueResponse* rsp, const RMAttrTable& attrs,
                     const tarn_rmf::RMRowSet& row, const int* ids, unsigned int count,
                     const char* op, const RMRepeatedError& repeated) {
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, op);
    std::set<int> seen;
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        const RMAttrSpec* a = attrs.byId(ids[i]);
        if (a == nullptr || row.empty()) {
            rsp->addError(ids[i], unknown.get());
            continue;
        }
        if (!seen.insert(a->id).second) {
            rsp->addError(ids[i], repeated(op, *a).get());
            continue;
        }
        zn::OwnedValue v(a->type, row.getField(0, a->name));
        rm_attribute_value out{a->id, a->type, v.value()};
        rsp->addValue(&out, 1);
    }
}

std::vector<rm_attribute_value> screenSetValues(RMAttributeIdResponse* rsp,
                                                const RMAttrTable& attrs, bool available,
                                                const rm_attribute_value* values,
                                                unsigned int count, const char* op,
                                                const RMRepeatedError& repeated,
                                                const RMSetCheck& check) {
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, op);
    std::set<int> seen;
    std::vector<rm_attribute_value> accepted;
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        const rm_attribute_value& v = values[i];
        const RMAttrSpec* a = attrs.byId(v.rm_attribute_id);
        if (a == nullptr || !available) {
            rsp->result(v.rm_attribute_id, unknown.get());
            continue;
        }
        if (!seen.insert(a->id).second) {
            rsp->result(a->id, repeated(op, *a).get());
            continue;
        }
        if (a->readOnly()) {
            rsp->result(a->id, common(tarn_rmf::RM_EREADONLYATTR, a->name, op).get());
            continue;
        }
        if (v.rm_data_type != a->type) {
            rsp->result(a->id, common(tarn_rmf::RM_EDATATYPE, op).get());
            continue;
        }
        if (zn::ErrorPtr err{check(*a, v)}) {
            rsp->result(a->id, err.get());
            continue;
        }
        accepted.push_back(v);
    }
    return accepted;
}

}  // namespace tarn_rmf2v
