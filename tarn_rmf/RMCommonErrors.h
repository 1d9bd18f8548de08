// The framework's table of common errors (attribute id unknown, class unknown,
// handle unknown, wrong data type, ...) and the one place where exceptions
// become platform errors at a request handler's boundary.
#pragma once

#include <exception>

#include "platform/cu_error.h"
#include "tarn_base/CException.h"

namespace tarn_rmf {

inline constexpr char kCommonCatalog[] = "tarn.rmf.cat";
inline constexpr int kCommonSet = 2;

// Ids of the common errors.
enum : int {
    RM_EINTERNAL = 0x10001,       // %1$s: where, or the exception's text
    RM_ENOMEM = 0x10002,          // %1$s: where
    RM_EINVALIDATTRID = 0x10006,  // %1$s: the operation
    RM_EINVALIDCLASS = 0x10007,   // %1$s: the class name
    RM_EINVALIDHANDLE = 0x10008,  // %1$s: the operation
    RM_EREPEATEDATTR = 0x10009,   // %1$s: the attribute, %2$s: the operation
    RM_EREADONLYATTR = 0x1000a,   // %1$s: the attribute, %2$s: the operation
    RM_EREQUIREDATTR = 0x1000b,   // %1$s: the attribute, %2$s: the operation
    RM_ENOTSUPPORTED = 0x1000e,   // %1$s: the operation
    RM_EDATATYPE = 0x10014,       // %1$s: the operation
    RM_ENOTCONNECTED = 0x10015,   // %1$s: the resource manager or class
    RM_EINITRCCP = 0x18001,       // %1$s: the class name
};

struct rm_common_error {
    int id;
    const char* catalog;
    int set;
    int msgNum;
    const char* defaultText;
};

// The table entry of a common error id, or null when the id is not common.
const rm_common_error* rm_get_common_error(int commonErrorId);

// Builds a common error in *err with the entry's text and the arguments.
// An unknown id builds an internal error naming it. Returns 0, -1 if err is null.
int RMPkgCommonError(int commonErrorId, const char* ffdcId, cu_error_t** err, ...);
int RMVPkgCommonError(int commonErrorId, const char* ffdcId, cu_error_t** err, va_list ap);

// Maps any caught exception to a new error the caller owns: an exception that
// carries a platform error gives a copy of it; allocation failures give
// RM_ENOMEM; everything else RM_EINTERNAL with the exception's text.
cu_error_t* RMMapExceptionToError(std::exception& e);

// An object could not be created or an operation failed: function, line, file,
// operation text ("new ManagedNode"), code.
class RMOperError : public tarn_base::CErrorException {
public:
    RMOperError(const char* function, int line, const char* file, const char* operation, int code);
    const std::string& function() const { return function_; }
    const std::string& operation() const { return operation_; }
    int line() const { return line_; }

private:
    std::string function_;
    std::string file_;
    std::string operation_;
    int line_;
};

// The trace component could not be created.
class RMNoTrace : public tarn_base::CException {
public:
    RMNoTrace() : CException("RMNoTrace: the trace component could not be created") {}
};

}  // namespace tarn_rmf
