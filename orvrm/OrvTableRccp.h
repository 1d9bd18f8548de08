// The daemon's table-backed classes: the framework's table layer with the
// refusals of its define walk worded from the daemon's own catalogue. A
// repeated attribute is message 2 (error 0x18004), one that may not be given
// at define message 1 (0x10006), a required one that is missing message 5
// (0x18006), each naming the attribute.
#pragma once

#include "tarn_rmf2v/RMTableRccp.h"

namespace orvrm {

class OrvTableRccp : public tarn_rmf2v::RMTableRccp {
public:
    using RMTableRccp::RMTableRccp;

protected:
    zn::ErrorPtr repeatedAttributeError(const char* op,
                                        const tarn_rmf2v::RMAttrSpec& attr) override;
    zn::ErrorPtr notAtDefineError(const char* op, const tarn_rmf2v::RMAttrSpec& attr) override;
    zn::ErrorPtr requiredAttributeError(const char* op,
                                        const tarn_rmf2v::RMAttrSpec& attr) override;
};

}  // namespace orvrm
