#include "tarn_rmf/RMCommonErrors.h"

#include <new>
#include <string>

namespace tarn_rmf {
namespace {

const rm_common_error kCommon[] = {
    {RM_EINTERNAL, kCommonCatalog, kCommonSet, 1, "2610-201 An internal error occurred: %1$s.\n"},
    {RM_ENOMEM, kCommonCatalog, kCommonSet, 2, "2610-202 Memory could not be allocated in %1$s.\n"},
    {RM_EINVALIDATTRID, kCommonCatalog, kCommonSet, 6,
     "2610-206 An attribute id given to %1$s is not defined for this resource class.\n"},
    {RM_EINVALIDCLASS, kCommonCatalog, kCommonSet, 7,
     "2610-207 The resource class %1$s is not known to this resource manager.\n"},
    {RM_EINVALIDHANDLE, kCommonCatalog, kCommonSet, 8,
     "2610-208 A resource handle given to %1$s does not name a resource of this class.\n"},
    {RM_EREPEATEDATTR, kCommonCatalog, kCommonSet, 9,
     "2610-209 The attribute %1$s is given more than once to %2$s.\n"},
    {RM_EREADONLYATTR, kCommonCatalog, kCommonSet, 10,
     "2610-210 The attribute %1$s cannot be changed by %2$s.\n"},
    {RM_EREQUIREDATTR, kCommonCatalog, kCommonSet, 11,
     "2610-211 The attribute %1$s must be given to %2$s.\n"},
    {RM_ENOTSUPPORTED, kCommonCatalog, kCommonSet, 14,
     "2610-214 The operation %1$s is not supported by this resource class.\n"},
    {RM_EDATATYPE, kCommonCatalog, kCommonSet, 20,
     "2610-220 An attribute value given to %1$s has the wrong data type.\n"},
    {RM_ENOTCONNECTED, kCommonCatalog, kCommonSet, 21,
     "2610-221 The resource manager serving %1$s is not connected.\n"},
    {RM_EINITRCCP, kCommonCatalog, kCommonSet, 101,
     "2610-301 The control point for class %1$s could not be initialized.\n"},
};

}  // namespace

const rm_common_error* rm_get_common_error(int commonErrorId) {
    for (const auto& e : kCommon) {
        if (e.id == commonErrorId) {
            return &e;
        }
    }
    return nullptr;
}

int RMVPkgCommonError(int commonErrorId, const char* ffdcId, cu_error_t** err, va_list ap) {
    if (err == nullptr) {
        return -1;
    }
    const rm_common_error* e = rm_get_common_error(commonErrorId);
    if (e == nullptr) {
        const rm_common_error* internal = rm_get_common_error(RM_EINTERNAL);
        std::string what = "unknown common error " + std::to_string(commonErrorId);
        return cu_pkg_error_1(err, RM_EINTERNAL, ffdcId, internal->catalog, internal->set,
                              internal->msgNum, internal->defaultText, what.c_str());
    }
    return cu_vpkg_error_1(err, e->id, ffdcId, e->catalog, e->set, e->msgNum, e->defaultText, ap);
}

int RMPkgCommonError(int commonErrorId, const char* ffdcId, cu_error_t** err, ...) {
    va_list ap;
    va_start(ap, err);
    int rc = RMVPkgCommonError(commonErrorId, ffdcId, err, ap);
    va_end(ap);
    return rc;
}

cu_error_t* RMMapExceptionToError(std::exception& ex) {
    cu_error_t* err = nullptr;
    if (auto* ce = dynamic_cast<tarn_base::CException*>(&ex)) {
        if (ce->getError() != nullptr) {
            return cu_dup_error_1(ce->getError());
        }
        if (dynamic_cast<tarn_base::CNoMemory*>(&ex) != nullptr) {
            RMPkgCommonError(RM_ENOMEM, nullptr, &err, ce->what());
            return err;
        }
    }
    if (dynamic_cast<std::bad_alloc*>(&ex) != nullptr) {
        RMPkgCommonError(RM_ENOMEM, nullptr, &err, ex.what());
        return err;
    }
    RMPkgCommonError(RM_EINTERNAL, nullptr, &err, ex.what());
    return err;
}

RMOperError::RMOperError(const char* function, int line, const char* file, const char* operation,
                         int code)
    : CErrorException(std::string("RMOperError: ") + (operation != nullptr ? operation : "") +
                          " failed in " + (function != nullptr ? function : "?") + " at " +
                          (file != nullptr ? file : "?") + ":" + std::to_string(line),
                      code),
      function_(function != nullptr ? function : ""),
      file_(file != nullptr ? file : ""),
      operation_(operation != nullptr ? operation : ""),
      line_(line) {}

}  // namespace tarn_rmf
