// The resource control point of a table-backed class (RMTableRccp): its
// persistent attributes are the columns of its row, read and changed
// through the class's resource table; its dynamic attributes come from the
// class (dynamicValue) and are reported while clients monitor them. A class
// adds its own rules for changes (checkSetValue) and side effects
// (valuesSet). Every request handler holds the resource lock for its whole
// run.
#pragma once

#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf/registry/RMRowSet.h"
#include "tarn_rmf2v/RMAttrSpec.h"
#include "tarn_rmf2v/RMRcp.h"

namespace tarn_rmf2v {

class RMTableRccp;

class RMTableRcp : public RMRcp {
public:
    RMTableRcp(const zn_resource_handle* handle, RMTableRccp* rccp, unsigned int variety);

    RMTableRccp* tableRccp() const;
    const RMClassSpec& spec() const;
    // This resource's row (empty when it has none); throws RMTableError.
    tarn_rmf::RMRowSet row() const;
    // One persistent attribute of the row, copied; throws RMTableError.
    zn::OwnedValue get(const char* name) const;
    // Changes columns of the row in one change; throws RMTableError.
    void change(const std::vector<rm_attribute_value>& values);
    // Reports a dynamic attribute to clients monitoring it.
    void reportDynamic(const char* name, zn_data_type_t type, const zn_value_t& value);

    void getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) override;
    void setAttributeValues(RMAttributeIdResponse* rsp, rm_attribute_value* values,
                            unsigned int count) override;
    void enablePersResourceAttrsNotification(RMAttributeValueResponse* rsp, int* ids,
                                             unsigned int count) override;
    void disablePersResourceAttrsNotification(RMAttributeIdResponse* rsp, int* ids,
                                              unsigned int count) override;
    void reportPersAttributeValues(int* ids, unsigned int count,
                                   RMAttributeValueResponse* rsp) override;
    void startMonitoringResourceAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                      unsigned int count) override;
    void stopMonitoringResourceAttrs(RMAttributeIdResponse* rsp, int* ids,
                                     unsigned int count) override;
    void reportDynAttributeValues(int* ids, unsigned int count,
                                  RMAttributeValueResponse* rsp) override;

protected:
    // A class's own rule for one value of a set request; null accepts.
    virtual cu_error_t* checkSetValue(const RMAttrSpec& attr, const rm_attribute_value& value);
    // After accepted values were written (before the response is finished).
    virtual void valuesSet(const std::vector<rm_attribute_value>& accepted);
    // The current value of a dynamic attribute; false when it has none.
    virtual bool dynamicValue(const RMAttrSpec& attr, zn::OwnedValue* out);

private:
    void values(RMAttributeValueResponse* rsp, const int* ids, unsigned int count, const char* op);
};

}  // namespace tarn_rmf2v
