// The framework's exception hierarchy. Every exception the framework or the
// program throws derives from CException (and so from std::exception); request
// handlers catch them at their boundary and map them to platform errors.
#pragma once

#include <exception>
#include <string>

#include "platform/cu_error.h"

namespace tarn_base {

class CException : public std::exception {
public:
    explicit CException(std::string description = "CException");
    const char* what() const noexcept override { return description_.c_str(); }
    // Error code carried by the exception; 0 when it has none.
    virtual int getErrorCode() const { return 0; }
    // The platform error carried by the exception (owned by it), or null.
    virtual const cu_error_t* getError() const { return nullptr; }

protected:
    std::string description_;
};

// An exception that carries an error code and, optionally, a platform error.
class CErrorException : public CException {
public:
    CErrorException(std::string description, int code, cu_error_t* err = nullptr);
    CErrorException(const CErrorException& other);
    CErrorException& operator=(const CErrorException& other);
    ~CErrorException() override;
    int getErrorCode() const override { return code_; }
    const cu_error_t* getError() const override { return error_; }

private:
    int code_;
    cu_error_t* error_;  // owned
};

// An allocation failed.
class CNoMemory : public CException {
public:
    CNoMemory() : CException("CNoMemory: out of memory") {}
};

}  // namespace tarn_base
