// A class control point whose resources are the rows of its registry
// resource table and whose class attributes are the one row of its class
// table, both described by one RMClassSpec. It answers enumeration, handle
// validation, undefinition, the class attribute requests and their
// notification and monitoring bookkeeping from the tables, and offers the
// define walk that a class's own defineResource calls. A class adds its own
// rules and side effects through the hooks below, and words refusals its own
// way through the error hooks. Every request handler holds the class lock
// for its whole run.
//
//   class ExampleRccp : public RMTableRccp {
//   public:
//       ExampleRccp(char* name, rm_object_type t, RMRmcp* m)
//           : RMTableRccp(name, t, m, kExampleSpec, {.rcpName = "ExampleRcp"}) {
//           loadResources();  // one ExampleRcp per row, through makeRcp
//       }
//       void defineResource(RMDefineResourceResponse* rsp, zn_structured_data*,
//                           rm_attribute_value* v, unsigned n) override {
//           lockRccp guard(this);
//           DefineResult r = defineRow(v, n, "defineResource");
//           rsp->done(r.error ? nullptr : &r.handle, r.error.get());
//       }
//   protected:
//       RMTableRcp* makeRcp(const zn_resource_handle& h, unsigned v) override {
//           return new ExampleRcp(&h, this, v);
//       }
//   };
#pragma once

#include <cstdint>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf/registry/RMCachedTable.h"
#include "tarn_rmf2v/RMAttrSpec.h"
#include "tarn_rmf2v/RMRccp.h"

namespace tarn_rmf2v {

class RMTableRcp;

class RMTableRccp : public RMRccp {
public:
    struct Options {
        // Load only the rows this server owns ("NodeIDs==0x%016llx" for its
        // node id) unless the management domain is "IW".
        bool ownRowsOnly = true;
        // Write every resource-table change through at once; otherwise
        // changes wait for the table's sync().
        bool writeThrough = false;
        // Stored in the class's resource handles.
        unsigned int classCode = 0;
        // Names for the framework's operation error when a control point
        // cannot be made ("new <rcpName>" in "<defineFunction>").
        const char* rcpName = "RMTableRcp";
        const char* defineFunction = "defineResource";
        // Called once the class object's base stands, before its tables are
        // opened: where a class writes its entry trace.
        void (*entered)() = nullptr;
    };

    // Opens the class's tables on the control point's registry tree (throws
    // RMTableError when they cannot be opened, std::logic_error when the
    // spec is malformed) and registers the class definition.
    RMTableRccp(const char* className, rm_object_type type, RMRmcp* rmcp, const RMClassSpec& spec,
                Options options);
    // Writes pending changes and closes the tables.
    ~RMTableRccp() override;

    const RMClassSpec& spec() const { return spec_; }
    tarn_rmf::RMCachedTable* classTable() const { return classTable_; }
    tarn_rmf::RMCachedTable* resourceTable() const { return resourceTable_; }
    // The row of a resource (empty when it has none).
    tarn_rmf::RMRowSet rowOf(const zn_resource_handle& handle) const;
    // The handles of the rows matching `selection`; throws RMTableError.
    std::vector<zn_resource_handle> handlesOf(const char* selection,
                                              const tarn_rmf::RMSelParams* params = nullptr) const;
    // Reports a dynamic class attribute that carries no value (an event such
    // as "ResourceDefined") to clients monitoring it.
    void reportClassEvent(const char* name);

    tarn_rmf::RMBaseTable* getClassTable() override;
    void enumerateResources(RMEnumResourcesResponse* rsp) override;
    void enumerateSelectResources(RMEnumResourcesResponse* rsp, char* selectString) override;
    void validateResourceHandles(RMValidateResourceHandlesResponse* rsp,
                                 zn_resource_handle* handles, unsigned int count) override;
    void undefineResources(RMUndefineResourcesResponse* rsp, zn_structured_data* options,
                           zn_resource_handle* handles, unsigned int count) override;
    void refreshConfig(RMSimpleResponse* rsp) override;
    void getClassAttributeValues(RMAttributeValueResponse* rsp, int* ids,
                                 unsigned int count) override;
    void setClassAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                                 unsigned int count) override;
    void enablePersClassAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                          unsigned int count) override;
    void disablePersClassAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                           unsigned int count) override;
    void reportPersAttributeValues(int* ids, unsigned int count,
                                   RMAttributeValueResponse* rsp) override;
    void startMonitoringClassAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                   unsigned int count) override;
    void stopMonitoringClassAttrs(RMAttributeIdResponse* rsp, int* ids,
                                  unsigned int count) override;
    void reportDynAttributeValues(int* ids, unsigned int count,
                                  RMAttributeValueResponse* rsp) override;

    // The attribute values a define request gave, as the walk accepted them.
    struct DefineRow {
        std::vector<rm_attribute_value> values;  // borrowed from the request
        const rm_attribute_value* find(int id) const;
    };
    struct DefineResult {
        zn_resource_handle handle{};
        RMTableRcp* rcp = nullptr;  // the new control point (null on failure)
        zn::ErrorPtr error;
    };
    // The define walk (call with the class lock held): each value in order
    // must name an attribute of the class (else the unknown-id error, and
    // the walk ends), not repeat one, and not be read-only; a value of the
    // wrong type ends the walk silently, keeping what was accepted; each
    // accepted value passes checkDefineValue. Then checkDefineRow, then the
    // required attributes. Then a handle is made, "Variety" (1) and
    // "NodeIDs" (this server) are filled in when not given, the control
    // point is made and the row added. `op` names the operation in errors.
    DefineResult defineRow(const rm_attribute_value* values, unsigned int count, const char* op);
    // Removes the resource: its row, then its control point (which goes once
    // no holder has it reserved). Call with the class lock held; throws
    // RMTableError when the row cannot be deleted (then nothing changed).
    void removeResource(RMTableRcp* rcp);
    // Tells clients these resources are gone, in batches as the framework takes them.
    void notifyUndefined(const std::vector<zn_resource_handle>& handles);

protected:
    // Makes one control point per row of the resource table. Call at the end
    // of the derived constructor (makeRcp is the derived class's).
    void loadResources();

    // Makes the control point of a resource (a row read at start, or a new
    // one); null when it cannot.
    virtual RMTableRcp* makeRcp(const zn_resource_handle& handle, unsigned int variety) = 0;
    // A class's own rule for one define value; null accepts.
    virtual cu_error_t* checkDefineValue(const RMAttrSpec& attr, const rm_attribute_value& value);
    // A class's rules across the define values (the row may be added to).
    virtual cu_error_t* checkDefineRow(DefineRow& row);
    // Whether a resource may be undefined; null allows.
    virtual cu_error_t* checkUndefine(RMTableRcp* rcp);
    // After a resource's row went and before its control point goes.
    virtual void resourceRemoved(RMTableRcp* rcp);
    // A class attribute value of a set request; null accepts.
    virtual cu_error_t* checkClassValue(const RMAttrSpec& attr, const rm_attribute_value& value);
    // The current value of a dynamic class attribute; false when it has none
    // (an event).
    virtual bool dynamicClassValue(const RMAttrSpec& attr, zn::OwnedValue* out);

    // How refusals of the define walk are worded; the framework's common
    // errors unless a class words them its own way.
    virtual zn::ErrorPtr unknownAttributeError(const char* op, int id);
    virtual zn::ErrorPtr repeatedAttributeError(const char* op, const RMAttrSpec& attr);
    virtual zn::ErrorPtr notAtDefineError(const char* op, const RMAttrSpec& attr);
    virtual zn::ErrorPtr requiredAttributeError(const char* op, const RMAttrSpec& attr);

private:
    void classValues(RMAttributeValueResponse* rsp, const int* ids, unsigned int count,
                     const char* op);

    const RMClassSpec& spec_;
    const Options options_;
    tarn_rmf::RMCachedTable* classTable_ = nullptr;
    tarn_rmf::RMCachedTable* resourceTable_ = nullptr;
};

}  // namespace tarn_rmf2v
