#include "tarn_base/CException.h"

#include <utility>

namespace tarn_base {

CException::CException(std::string description) : description_(std::move(description)) {}

CErrorException::CErrorException(std::string description, int code, cu_error_t* err)
    : CException(std::move(description)), code_(code), error_(err) {}

CErrorException::CErrorException(const CErrorException& other)
    : CException(other), code_(other.code_), error_(cu_dup_error_1(other.error_)) {}

CErrorException& CErrorException::operator=(const CErrorException& other) {
    if (this != &other) {
        CException::operator=(other);
        code_ = other.code_;
        cu_rel_error_1(error_);
        error_ = cu_dup_error_1(other.error_);
    }
    return *this;
}

CErrorException::~CErrorException() { cu_rel_error_1(error_); }

}  // namespace tarn_base
