// The resource control point of the domain settings: every change is checked
// against its range (refused per attribute with the catalogue's message, the
// rest applied), written in one change, and applied at once: the
// add-unrecognised-nodes switch and the heartbeat tuning of the
// distributed-information layer.
#pragma once

#include "tarn_rmf2v/RMTableRcp.h"

namespace orvrm {

class OrvCtrlRccp;

class OrvCtrlRcp : public tarn_rmf2v::RMTableRcp {
public:
    OrvCtrlRcp(const zn_resource_handle* handle, OrvCtrlRccp* rccp, unsigned int variety);

protected:
    cu_error_t* checkSetValue(const tarn_rmf2v::RMAttrSpec& attr,
                              const rm_attribute_value& value) override;
    void valuesSet(const std::vector<rm_attribute_value>& accepted) override;
};

}  // namespace orvrm
