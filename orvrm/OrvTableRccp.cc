#include "orvrm/OrvTableRccp.h"

#include "orvrm/ORVRMLog.h"

namespace orvrm {

zn::ErrorPtr OrvTableRccp::repeatedAttributeError(const char* op,
                                                  const tarn_rmf2v::RMAttrSpec& attr) {
    return zn::ErrorPtr(pkg_error(0x18004, 2, op, 0, attr.name));
}

zn::ErrorPtr OrvTableRccp::notAtDefineError(const char* op, const tarn_rmf2v::RMAttrSpec& attr) {
    return zn::ErrorPtr(pkg_error(0x10006, 1, op, 0, attr.name));
}

zn::ErrorPtr OrvTableRccp::requiredAttributeError(const char* op,
                                                  const tarn_rmf2v::RMAttrSpec& attr) {
    return zn::ErrorPtr(pkg_error(0x18006, 5, op, 0, attr.name));
}

}  // namespace orvrm
