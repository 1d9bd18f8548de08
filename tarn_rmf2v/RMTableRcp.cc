#include "tarn_rmf2v/RMTableRcp.h"

#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMAttrAnswers.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMTableRccp.h"

namespace tarn_rmf2v {

using defaults::common;

namespace {

zn::ErrorPtr resourceRepeated(const char* op, const RMAttrSpec& attr) {
    return common(tarn_rmf::RM_EREPEATEDATTR, attr.name, op);
}

}  // namespace

RMTableRcp::RMTableRcp(const zn_resource_handle* handle, RMTableRccp* rccp, unsigned int variety)
    : RMRcp(handle, rccp, variety) {}

RMTableRccp* RMTableRcp::tableRccp() const {
    return static_cast<RMTableRccp*>(getRccp());
}

const RMClassSpec& RMTableRcp::spec() const {
    return tableRccp()->spec();
}

tarn_rmf::RMRowSet RMTableRcp::row() const {
    return tableRccp()->rowOf(*getResourceHandle());
}

zn::OwnedValue RMTableRcp::get(const char* name) const {
    tarn_rmf::RMRowSet r = row();
    if (r.empty()) {
        return {};
    }
    int col = r.getColumnIndex(name);
    zn_data_type_t t = col >= 0 ? r.getColumnType(static_cast<unsigned>(col)) : ZN_UNKNOWN;
    return zn::OwnedValue(t, r.getField(0, name));
}

void RMTableRcp::change(const std::vector<rm_attribute_value>& values) {
    std::vector<tarn_rmf::RMFieldValue> fields;
    for (const rm_attribute_value& v : values) {
        fields.push_back({nullptr, v.rm_attribute_id, v.rm_data_type, v.rm_value});
    }
    tarn_rmf::RMRowSet r = row();
    if (r.empty()) {
        throw tarn_base::CErrorException("the resource's row is gone", 0);
    }
    tableRccp()->resourceTable()->changeRow(r.getRowId(0), fields.data(),
                                            static_cast<unsigned>(fields.size()));
}

void RMTableRcp::reportDynamic(const char* name, zn_data_type_t type, const zn_value_t& value) {
    const RMAttrSpec* a = spec().dynamic.byName(name);
    if (a == nullptr || !getRccp()->getMonitor()->isMonitored(getResourceHandle(), a->id)) {
        return;
    }
    rm_attribute_value v{a->id, type, value};
    notifyDynamicResourceAttrsModified(&v, 1);
}

void RMTableRcp::values(RMAttributeValueResponse* rsp, const int* ids, unsigned int count,
                        const char* op) {
    tarn_rmf::RMRowSet r;
    try {
        r = row();
    } catch (std::exception& e) {
        rsp->done(zn::ErrorPtr(tarn_rmf::RMMapExceptionToError(e)).get());
        return;
    }
    if (r.empty()) {
        rsp->done(common(tarn_rmf::RM_EINVALIDHANDLE, op).get());
        return;
    }
    answerRowValues(rsp, spec().persistent, r, ids, count, op, &resourceRepeated);
    rsp->done(nullptr);
}

void RMTableRcp::getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) {
    lockRcp guard(this);
    values(rsp, ids, count, "getAttributeValues");
}

void RMTableRcp::reportPersAttributeValues(int* ids, unsigned int count,
                                           RMAttributeValueResponse* rsp) {
    lockRcp guard(this);
    values(rsp, ids, count, "reportPersAttributeValues");
}

void RMTableRcp::setAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                    unsigned int count) {
    lockRcp guard(this);
    static const char op[] = "setAttributeValues";
    std::vector<rm_attribute_value> accepted = screenSetValues(
        rsp, spec().persistent, true, values, count, op, &resourceRepeated,
        [this](const RMAttrSpec& at, const rm_attribute_value& v) { return checkSetValue(at, v); });
    zn::ErrorPtr failed;
    if (!accepted.empty()) {
        try {
            change(accepted);
        } catch (std::exception& e) {
            failed.reset(tarn_rmf::RMMapExceptionToError(e));
        }
    }
    for (const rm_attribute_value& v : accepted) {
        rsp->result(v.rm_attribute_id, failed.get());
    }
    if (!failed && !accepted.empty()) {
        valuesSet(accepted);
    }
    rsp->done(nullptr);
    if (failed) {
        return;
    }
    RMMonitor* monitor = getRccp()->getMonitor();
    std::vector<rm_attribute_value> announced;
    for (const rm_attribute_value& v : accepted) {
        if (monitor->isPersistentEnabled(getResourceHandle(), v.rm_attribute_id)) {
            announced.push_back(v);
        }
    }
    if (!announced.empty()) {
        notifyPersistentResourceAttrsModified(announced.data(),
                                              static_cast<unsigned int>(announced.size()));
    }
    // Clients that monitor the resource's dynamic attributes hear them again
    // after a change, since a change may move them.
    std::vector<zn::OwnedValue> held;
    std::vector<rm_attribute_value> dynamic;
    for (int id : monitor->monitoredIds(getResourceHandle())) {
        const RMAttrSpec* a = spec().dynamic.byId(id);
        zn::OwnedValue v;
        if (a != nullptr && dynamicValue(*a, &v)) {
            dynamic.push_back({a->id, v.type(), v.value()});
            held.push_back(std::move(v));
        }
    }
    if (!dynamic.empty()) {
        notifyDynamicResourceAttrsModified(dynamic.data(),
                                           static_cast<unsigned int>(dynamic.size()));
    }
}

void RMTableRcp::enablePersResourceAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                                     unsigned int count) {
    lockRcp guard(this);
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        if (spec().persistent.byId(ids[i]) != nullptr) {
            getRccp()->getMonitor()->enablePersistent(getResourceHandle(), ids[i]);
        }
    }
    values(rsp, ids, count, "enablePersResourceAttrsNotification");
}

void RMTableRcp::disablePersResourceAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                                      unsigned int count) {
    lockRcp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "disablePersResourceAttrsNotification");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        bool known = spec().persistent.byId(ids[i]) != nullptr;
        if (known) {
            getRccp()->getMonitor()->disablePersistent(getResourceHandle(), ids[i]);
        }
        rsp->result(ids[i], known ? nullptr : unknown.get());
    }
    rsp->done(nullptr);
}

void RMTableRcp::startMonitoringResourceAttrs(RMAttributeValueResponse* rsp,
                                              rm_monitoring_data* attrs, unsigned int count) {
    lockRcp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "startMonitoringResourceAttrs");
    for (unsigned int i = 0; attrs != nullptr && i < count; ++i) {
        const RMAttrSpec* a = spec().dynamic.byId(attrs[i].rm_attribute_id);
        if (a == nullptr) {
            rsp->addError(attrs[i].rm_attribute_id, unknown.get());
            continue;
        }
        startMonitoring(a->id, attrs[i].rm_options);
        zn::OwnedValue v;
        if (dynamicValue(*a, &v)) {
            rm_attribute_value out{a->id, v.type(), v.value()};
            rsp->addValue(&out, 1);
        }
    }
    rsp->done(nullptr);
}

void RMTableRcp::stopMonitoringResourceAttrs(RMAttributeIdResponse* rsp, int* ids,
                                             unsigned int count) {
    lockRcp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "stopMonitoringResourceAttrs");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        bool known = spec().dynamic.byId(ids[i]) != nullptr;
        if (known) {
            stopMonitoring(ids[i]);
        }
        rsp->result(ids[i], known ? nullptr : unknown.get());
    }
    rsp->done(nullptr);
}

void RMTableRcp::reportDynAttributeValues(int* ids, unsigned int count,
                                          RMAttributeValueResponse* rsp) {
    lockRcp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "reportDynAttributeValues");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        const RMAttrSpec* a = spec().dynamic.byId(ids[i]);
        if (a == nullptr) {
            rsp->addError(ids[i], unknown.get());
            continue;
        }
        zn::OwnedValue v;
        if (dynamicValue(*a, &v)) {
            rm_attribute_value out{a->id, v.type(), v.value()};
            rsp->addValue(&out, 1);
        }
    }
    rsp->done(nullptr);
}

cu_error_t* RMTableRcp::checkSetValue(const RMAttrSpec&, const rm_attribute_value&) {
    return nullptr;
}

void RMTableRcp::valuesSet(const std::vector<rm_attribute_value>&) {}

bool RMTableRcp::dynamicValue(const RMAttrSpec&, zn::OwnedValue*) {
    return false;
}

}  // namespace tarn_rmf2v
