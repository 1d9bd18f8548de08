#include "tarn_rmf2v/RMTableRccp.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tarn_rmf2v/RMAttrAnswers.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/RMTableRcp.h"

namespace tarn_rmf2v {

using tarn_rmf::RMRowSet;
using tarn_rmf::RMSelParams;

namespace {

using defaults::common;

constexpr char kHandleColumn[] = "ResourceHandle";
constexpr char kVarietyColumn[] = "Variety";
constexpr char kNodeIdsColumn[] = "NodeIDs";

zn::ErrorPtr mapped(std::exception& e) {
    return zn::ErrorPtr(tarn_rmf::RMMapExceptionToError(e));
}

// Mounts the tree for the constructor's table work and unmounts it on every path.
class Mounted {
public:
    explicit Mounted(tarn_rmf::RMTree* tree) : tree_(tree) { tree_->mountTree(); }
    ~Mounted() { tree_->unmountTree(); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;

private:
    tarn_rmf::RMTree* tree_;
};

}  // namespace

const rm_attribute_value* RMTableRccp::DefineRow::find(int id) const {
    for (const rm_attribute_value& v : values) {
        if (v.rm_attribute_id == id) {
            return &v;
        }
    }
    return nullptr;
}

RMTableRccp::RMTableRccp(const char* className, rm_object_type type, RMRmcp* rmcp,
                         const RMClassSpec& spec, Options options)
    : RMRccp(className, type, rmcp), spec_(spec), options_(options) {
    if (options_.entered != nullptr) {
        options_.entered();
    }
    spec_.check();
    setClassDef(spec_.classDef());
    tarn_rmf::RMTree* tree = rmcp != nullptr ? rmcp->getTree() : nullptr;
    if (tree == nullptr || (spec_.classTable == nullptr && spec_.resourceTable == nullptr)) {
        return;
    }
    Mounted mounted(tree);
    try {
        if (spec_.classTable != nullptr) {
            auto cols = spec_.classPersistent.tableColumns();
            classTable_ = tarn_rmf::RMCreateClassTable(tree, spec_.classTable, cols.data(),
                                                       static_cast<unsigned>(cols.size()));
        }
        if (spec_.resourceTable != nullptr) {
            char filter[64] = {};
            if (options_.ownRowsOnly && std::strcmp(rmcp->getClusterName(), "IW") != 0) {
                std::snprintf(filter, sizeof filter, "NodeIDs==0x%016" PRIx64, rmcp->getNodeId());
            }
            auto cols = spec_.persistent.tableColumns();
            resourceTable_ = tarn_rmf::RMCreateResourceTable(
                tree, spec_.resourceTable, cols.data(), static_cast<unsigned>(cols.size()),
                kHandleColumn, filter, tarn_rmf::kRMTableCached);
            if (options_.writeThrough) {
                resourceTable_->setSyncMode(1);
            }
            setResourceTable(resourceTable_);
        }
    } catch (...) {
        tree->closeTable(classTable_);
        classTable_ = nullptr;
        throw;
    }
}

RMTableRccp::~RMTableRccp() {
    tarn_rmf::RMTree* tree = getRmcp() != nullptr ? getRmcp()->getTree() : nullptr;
    if (tree == nullptr) {
        return;
    }
    for (tarn_rmf::RMCachedTable* t : {resourceTable_, classTable_}) {
        try {
            tree->closeTable(t);
        } catch (...) {
            // The store refused the last write: nothing more can be done here,
            // and a destructor must not throw.
        }
    }
}

void RMTableRccp::loadResources() {
    if (resourceTable_ == nullptr) {
        return;
    }
    RMRowSet rows = resourceTable_->getMetadata();
    int handleCol = rows.getColumnIndex(kHandleColumn);
    int varietyCol = rows.getColumnIndex(kVarietyColumn);
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        tarn_rmf::RMValueView h = rows.viewField(r, static_cast<unsigned>(handleCol));
        if (h.isNull || h.data == nullptr) {
            continue;  // a row without a handle names no resource
        }
        zn_resource_handle handle{};
        std::memcpy(handle.bytes, h.data, sizeof handle.bytes);
        unsigned variety =
            varietyCol >= 0
                ? static_cast<unsigned>(rows.viewField(r, static_cast<unsigned>(varietyCol)).num.u)
                : 1u;
        if (findRcpByHandle(&handle) != nullptr) {
            continue;  // a handle stored twice has one control point
        }
        if (RMTableRcp* rcp = makeRcp(handle, variety)) {
            addRcp(rcp);
        }
    }
}

RMRowSet RMTableRccp::rowOf(const zn_resource_handle& handle) const {
    if (resourceTable_ == nullptr) {
        return {};
    }
    RMSelParams params;
    params.setHandle("RH", handle);
    return resourceTable_->select("ResourceHandle == $RH", &params);
}

std::vector<zn_resource_handle> RMTableRccp::handlesOf(const char* selection,
                                                       const RMSelParams* params) const {
    std::vector<zn_resource_handle> out;
    if (resourceTable_ == nullptr) {
        return out;
    }
    RMRowSet rows = resourceTable_->select(selection, params);
    int col = rows.getColumnIndex(kHandleColumn);
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        tarn_rmf::RMValueView h = rows.viewField(r, static_cast<unsigned>(col));
        if (!h.isNull && h.data != nullptr) {
            zn_resource_handle handle{};
            std::memcpy(handle.bytes, h.data, sizeof handle.bytes);
            out.push_back(handle);
        }
    }
    return out;
}

void RMTableRccp::reportClassEvent(const char* name) {
    const RMAttrSpec* a = spec_.classDynamic.byName(name);
    if (a == nullptr || !getMonitor()->isMonitored(nullptr, a->id)) {
        return;
    }
    rm_attribute_value v{a->id, ZN_UINT32, {}};
    v.rm_value.val_uint32 = 1;
    notifyDynamicClassAttrsModified(&v, 1);
}

tarn_rmf::RMBaseTable* RMTableRccp::getClassTable() {
    return classTable_;
}

void RMTableRccp::enumerateResources(RMEnumResourcesResponse* rsp) {
    enumerateSelectResources(rsp, nullptr);
}

void RMTableRccp::enumerateSelectResources(RMEnumResourcesResponse* rsp, char* selectString) {
    lockRccp guard(this);
    std::vector<zn_resource_handle> handles;
    try {
        handles = handlesOf(selectString);
    } catch (std::exception& e) {
        rsp->done(mapped(e).get());
        return;
    }
    rsp->done(handles.data(), static_cast<unsigned int>(handles.size()));
}

void RMTableRccp::validateResourceHandles(RMValidateResourceHandlesResponse* rsp,
                                          zn_resource_handle* handles, unsigned int count) {
    lockRccp guard(this);
    RMRccp::validateResourceHandles(rsp, handles, count);
}

void RMTableRccp::removeResource(RMTableRcp* rcp) {
    RMSelParams params;
    params.setHandle("RH", *rcp->getResourceHandle());
    resourceTable_->deleteRows("ResourceHandle == $RH", &params);
    resourceRemoved(rcp);
    getMonitor()->forget(rcp->getResourceHandle());
    rcp->deleteRcp();
}

void RMTableRccp::notifyUndefined(const std::vector<zn_resource_handle>& handles) {
    // The framework takes handles in batches: as many as were asked for when
    // that is more than 3, else 16.
    size_t capacity = handles.size() > 3 ? handles.size() : 16;
    std::vector<zn_resource_handle*> batch;
    std::vector<zn_resource_handle> copy = handles;
    for (zn_resource_handle& h : copy) {
        batch.push_back(&h);
        if (batch.size() == capacity) {
            notifyResourcesUndefined(batch.data(), static_cast<unsigned int>(batch.size()));
            batch.clear();
        }
    }
    if (!batch.empty()) {
        notifyResourcesUndefined(batch.data(), static_cast<unsigned int>(batch.size()));
    }
}

void RMTableRccp::undefineResources(RMUndefineResourcesResponse* rsp, zn_structured_data*,
                                    zn_resource_handle* handles, unsigned int count) {
    lockRccp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDHANDLE, "undefineResource");
    std::vector<zn_resource_handle> gone;
    for (unsigned int i = 0; handles != nullptr && i < count; ++i) {
        auto* rcp = dynamic_cast<RMTableRcp*>(findRcpByHandle(&handles[i]));
        if (rcp == nullptr) {
            rsp->result(&handles[i], unknown.get());
            continue;
        }
        zn::ErrorPtr refused(checkUndefine(rcp));
        if (refused) {
            rsp->result(&handles[i], refused.get());
            continue;
        }
        try {
            removeResource(rcp);
        } catch (std::exception& e) {
            rsp->result(&handles[i], mapped(e).get());
            continue;
        }
        rsp->result(&handles[i], nullptr);
        gone.push_back(handles[i]);
    }
    rsp->done(nullptr);
    if (!gone.empty()) {
        reportClassEvent("ResourceUndefined");
        notifyUndefined(gone);
    }
}

void RMTableRccp::refreshConfig(RMSimpleResponse* rsp) {
    lockRccp guard(this);
    rsp->done(nullptr);
}

void RMTableRccp::classValues(RMAttributeValueResponse* rsp, const int* ids, unsigned int count,
                              const char* op) {
    RMRowSet row;
    try {
        if (classTable_ != nullptr) {
            row = classTable_->getMetadata();
        }
    } catch (std::exception& e) {
        rsp->done(mapped(e).get());
        return;
    }
    answerRowValues(
        rsp, spec_.classPersistent, row, ids, count, op,
        [this](const char* o, const RMAttrSpec& at) { return repeatedAttributeError(o, at); });
    rsp->done(nullptr);
}

void RMTableRccp::getClassAttributeValues(RMAttributeValueResponse* rsp, int* ids,
                                          unsigned int count) {
    lockRccp guard(this);
    classValues(rsp, ids, count, "getClassAttributeValues");
}

void RMTableRccp::reportPersAttributeValues(int* ids, unsigned int count,
                                            RMAttributeValueResponse* rsp) {
    lockRccp guard(this);
    classValues(rsp, ids, count, "reportPersAttributeValues");
}

void RMTableRccp::setClassAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                          unsigned int count) {
    lockRccp guard(this);
    static const char op[] = "setClassAttributeValues";
    std::vector<rm_attribute_value> accepted = screenSetValues(
        rsp, spec_.classPersistent, classTable_ != nullptr, values, count, op,
        [this](const char* o, const RMAttrSpec& at) { return repeatedAttributeError(o, at); },
        [this](const RMAttrSpec& at, const rm_attribute_value& v) {
            return checkClassValue(at, v);
        });
    zn::ErrorPtr failed;
    if (!accepted.empty()) {
        std::vector<tarn_rmf::RMFieldValue> fields;
        for (const rm_attribute_value& v : accepted) {
            fields.push_back({nullptr, v.rm_attribute_id, v.rm_data_type, v.rm_value});
        }
        try {
            classTable_->changeRow(classTable_->getMetadata().getRowId(0), fields.data(),
                                   static_cast<unsigned>(fields.size()));
        } catch (std::exception& e) {
            failed = mapped(e);
        }
    }
    for (const rm_attribute_value& v : accepted) {
        rsp->result(v.rm_attribute_id, failed.get());
    }
    rsp->done(nullptr);
    if (failed) {
        return;
    }
    std::vector<rm_attribute_value> announced;
    for (const rm_attribute_value& v : accepted) {
        if (getMonitor()->isPersistentEnabled(nullptr, v.rm_attribute_id)) {
            announced.push_back(v);
        }
    }
    if (!announced.empty()) {
        notifyPersistentClassAttrsModified(announced.data(),
                                           static_cast<unsigned int>(announced.size()));
    }
}

void RMTableRccp::enablePersClassAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                                   unsigned int count) {
    lockRccp guard(this);
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        if (spec_.classPersistent.byId(ids[i]) != nullptr) {
            getMonitor()->enablePersistent(nullptr, ids[i]);
        }
    }
    classValues(rsp, ids, count, "enablePersClassAttrsNotification");
}

void RMTableRccp::disablePersClassAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                                    unsigned int count) {
    lockRccp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "disablePersClassAttrsNotification");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        bool known = spec_.classPersistent.byId(ids[i]) != nullptr;
        if (known) {
            getMonitor()->disablePersistent(nullptr, ids[i]);
        }
        rsp->result(ids[i], known ? nullptr : unknown.get());
    }
    rsp->done(nullptr);
}

void RMTableRccp::startMonitoringClassAttrs(RMAttributeValueResponse* rsp,
                                            rm_monitoring_data* attrs, unsigned int count) {
    lockRccp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "startMonitoringClassAttrs");
    for (unsigned int i = 0; attrs != nullptr && i < count; ++i) {
        const RMAttrSpec* a = spec_.classDynamic.byId(attrs[i].rm_attribute_id);
        if (a == nullptr) {
            rsp->addError(attrs[i].rm_attribute_id, unknown.get());
            continue;
        }
        startMonitoring(a->id, attrs[i].rm_options);
        zn::OwnedValue v;
        if (dynamicClassValue(*a, &v)) {
            rm_attribute_value out{a->id, v.type(), v.value()};
            rsp->addValue(&out, 1);
        }
    }
    rsp->done(nullptr);
}

void RMTableRccp::stopMonitoringClassAttrs(RMAttributeIdResponse* rsp, int* ids,
                                           unsigned int count) {
    lockRccp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "stopMonitoringClassAttrs");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        bool known = spec_.classDynamic.byId(ids[i]) != nullptr;
        if (known) {
            stopMonitoring(ids[i]);
        }
        rsp->result(ids[i], known ? nullptr : unknown.get());
    }
    rsp->done(nullptr);
}

void RMTableRccp::reportDynAttributeValues(int* ids, unsigned int count,
                                           RMAttributeValueResponse* rsp) {
    lockRccp guard(this);
    auto unknown = common(tarn_rmf::RM_EINVALIDATTRID, "reportDynAttributeValues");
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        const RMAttrSpec* a = spec_.classDynamic.byId(ids[i]);
        if (a == nullptr) {
            rsp->addError(ids[i], unknown.get());
            continue;
        }
        zn::OwnedValue v;
        if (dynamicClassValue(*a, &v)) {
            rm_attribute_value out{a->id, v.type(), v.value()};
            rsp->addValue(&out, 1);
        }
    }
    rsp->done(nullptr);
}

RMTableRccp::DefineResult RMTableRccp::defineRow(const rm_attribute_value* values,
                                                 unsigned int count, const char* op) {
    DefineResult out;
    const RMAttrTable& attrs = spec_.persistent;
    DefineRow row;
    std::set<int> seen;
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        const rm_attribute_value& v = values[i];
        const RMAttrSpec* a = attrs.byId(v.rm_attribute_id);
        if (a == nullptr) {
            out.error = unknownAttributeError(op, v.rm_attribute_id);
            return out;
        }
        if (seen.count(a->id) != 0) {
            out.error = repeatedAttributeError(op, *a);
            return out;
        }
        if (v.rm_data_type != a->type) {
            // A value of the wrong type ends the walk without an error: what
            // came before it is kept and the request goes on with that.
            break;
        }
        if (a->notAtDefine()) {
            out.error = notAtDefineError(op, *a);
            return out;
        }
        if (zn::ErrorPtr err{checkDefineValue(*a, v)}) {
            out.error = std::move(err);
            return out;
        }
        seen.insert(a->id);
        row.values.push_back(v);
    }
    if (zn::ErrorPtr err{checkDefineRow(row)}) {
        out.error = std::move(err);
        return out;
    }
    for (const RMAttrSpec& a : attrs) {
        if (a.required() && row.find(a.id) == nullptr) {
            out.error = requiredAttributeError(op, a);
            return out;
        }
    }
    makeResourceHandles(1, options_.classCode, 0, &out.handle);
    std::vector<tarn_rmf::RMFieldValue> fields;
    zn_value_t handleValue{};
    handleValue.ptr_rsrc_handle = &out.handle;
    fields.push_back({kHandleColumn, -1, ZN_RSRC_HANDLE_PTR, handleValue});
    unsigned variety = 1;
    bool hasNodeIds = false;
    for (const rm_attribute_value& v : row.values) {
        const RMAttrSpec* a = attrs.byId(v.rm_attribute_id);
        if (std::strcmp(a->name, kVarietyColumn) == 0) {
            variety = v.rm_value.val_uint32;
        }
        hasNodeIds = hasNodeIds || std::strcmp(a->name, kNodeIdsColumn) == 0;
        fields.push_back({nullptr, v.rm_attribute_id, v.rm_data_type, v.rm_value});
    }
    if (attrs.byName(kVarietyColumn) != nullptr &&
        row.find(attrs.byName(kVarietyColumn)->id) == nullptr) {
        zn_value_t one{};
        one.val_uint32 = 1;
        fields.push_back({kVarietyColumn, -1, ZN_UINT32, one});
    }
    zn::OwnedValue nodeIds;
    if (!hasNodeIds && attrs.byName(kNodeIdsColumn) != nullptr) {
        zn_value_t ids{};
        ids.ptr_array = zn_array_new(1);
        ids.ptr_array->elements[0].val_uint64 = getRmcp() != nullptr ? getRmcp()->getNodeId() : 0;
        nodeIds = zn::OwnedValue(ZN_UINT64_ARRAY, ids);
        fields.push_back({kNodeIdsColumn, -1, ZN_UINT64_ARRAY, nodeIds.value()});
    }
    RMTableRcp* rcp = makeRcp(out.handle, variety);
    if (rcp == nullptr) {
        throw tarn_rmf::RMOperError(options_.defineFunction, __LINE__, __FILE__,
                                    (std::string("new ") + options_.rcpName).c_str(), 0);
    }
    addRcp(rcp);
    try {
        resourceTable_->addRow(fields.data(), static_cast<unsigned>(fields.size()));
    } catch (...) {
        rcp->deleteRcp();  // no row, no resource
        throw;
    }
    out.rcp = rcp;
    return out;
}

cu_error_t* RMTableRccp::checkDefineValue(const RMAttrSpec&, const rm_attribute_value&) {
    return nullptr;
}

cu_error_t* RMTableRccp::checkDefineRow(DefineRow&) {
    return nullptr;
}

cu_error_t* RMTableRccp::checkUndefine(RMTableRcp*) {
    return nullptr;
}

void RMTableRccp::resourceRemoved(RMTableRcp*) {}

cu_error_t* RMTableRccp::checkClassValue(const RMAttrSpec&, const rm_attribute_value&) {
    return nullptr;
}

bool RMTableRccp::dynamicClassValue(const RMAttrSpec&, zn::OwnedValue*) {
    return false;
}

zn::ErrorPtr RMTableRccp::unknownAttributeError(const char* op, int) {
    return common(tarn_rmf::RM_EINVALIDATTRID, op);
}

zn::ErrorPtr RMTableRccp::repeatedAttributeError(const char* op, const RMAttrSpec& attr) {
    return common(tarn_rmf::RM_EREPEATEDATTR, attr.name, op);
}

zn::ErrorPtr RMTableRccp::notAtDefineError(const char* op, const RMAttrSpec& attr) {
    return common(tarn_rmf::RM_EREADONLYATTR, attr.name, op);
}

zn::ErrorPtr RMTableRccp::requiredAttributeError(const char* op, const RMAttrSpec& attr) {
    return common(tarn_rmf::RM_EREQUIREDATTR, attr.name, op);
}

}  // namespace tarn_rmf2v
