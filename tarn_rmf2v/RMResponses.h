// Response objects: every request operation receives one and must finish it
// exactly once, also on failure. Finishing twice, or returning without
// finishing, is a defect: it is reported through the defect handler (tests
// install one that fails), and a response never finished is finished by the
// framework with an internal error so the client is never left waiting.
// Errors passed in are copied; the caller keeps and releases its own.
// The operations of each response are declared in the order of its slots.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "tarn_rmf2v/RMReply.h"

namespace tarn_rmf2v {

// Receives descriptions of response defects. The default traces an error and
// writes to standard error.
using ResponseDefectHandler = std::function<void(const std::string&)>;
void setResponseDefectHandler(ResponseDefectHandler handler);  // null restores the default
void reportResponseDefect(const std::string& what);

class RMResponse {
public:
    using Completion = std::function<void(RMReply&&)>;

    // `name` identifies the request in defect reports ("getAttributeValues").
    RMResponse(std::string name, Completion done);
    virtual ~RMResponse();
    RMResponse(const RMResponse&) = delete;
    RMResponse& operator=(const RMResponse&) = delete;

    bool isComplete() const;
    // Called by the dispatcher after the handler returned: a response still
    // open is a defect and is finished with an internal error.
    void finishIfOpen();
    const std::string& name() const { return name_; }

protected:
    // Adds to the reply unless it is finished (a late addition is a defect).
    bool addable(const char* op);
    // Finishes once; a second finish is a defect and is ignored.
    void finish(const cu_error_t* err);
    RMReply reply_;  // guarded by mu_ until finished

    std::mutex mu_;

private:
    std::string name_;
    Completion done_;
};

class RMSimpleResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    virtual void done(cu_error_t* err);
};

class RMAttributeValueResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    // Adds `count` values (copied).
    virtual void addValue(rm_attribute_value* values, unsigned int count);
    virtual void addError(int attributeId, cu_error_t* err);
    virtual void done(cu_error_t* err = nullptr);
};

class RMAttributeIdResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    virtual void result(int attributeId, cu_error_t* err);
    virtual void done(cu_error_t* err = nullptr);
};

class RMValidateResourceHandlesResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    virtual void result(const zn_resource_handle* handle, cu_error_t* err);
    virtual void done(cu_error_t* err = nullptr);
};

class RMEnumResourcesResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    // Hands back the selected handles (copied) and finishes.
    virtual void done(const zn_resource_handle* handles, unsigned int count);
    // Finishes with an error.
    virtual void done(cu_error_t* err);
};

class RMDefineResourceResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    // The new resource's handle (null on failure) and the error; finishes.
    virtual void done(const zn_resource_handle* handle, cu_error_t* err);
};

class RMUndefineResourcesResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    virtual void result(const zn_resource_handle* handle, cu_error_t* err);
    virtual void done(cu_error_t* err = nullptr);
};

class RMActionResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    // Return data of the action (copied); may be called more than once.
    virtual void returnData(const zn_structured_data* data);
    virtual void done(cu_error_t* err);
};

class RMGetAclResponse : public RMResponse {
public:
    using RMResponse::RMResponse;
    virtual void done(const zn_binary* acl, cu_error_t* err);
};

// Binding responses (class and resource binding requests of the service).
class RMBindRCCPResponse : public RMSimpleResponse {
public:
    using RMSimpleResponse::RMSimpleResponse;
};
class RMUnbindRCCPResponse : public RMSimpleResponse {
public:
    using RMSimpleResponse::RMSimpleResponse;
};
class RMBindRCPResponse : public RMSimpleResponse {
public:
    using RMSimpleResponse::RMSimpleResponse;
};
class RMUnbindRCPResponse : public RMSimpleResponse {
public:
    using RMSimpleResponse::RMSimpleResponse;
};

}  // namespace tarn_rmf2v
