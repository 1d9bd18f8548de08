// Helpers behind the default answers of the base control points: a common
// error for each id of a request, "not supported" and "unknown handle".
#pragma once

#include "platform/zn_owned.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMResponses.h"

namespace tarn_rmf2v::defaults {

// A common error, its message filled with `what` (and `more`).
inline zn::ErrorPtr common(int id, const char* what, const char* more = nullptr) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, what, more);
    return zn::ErrorPtr(e);
}

// Every id is unknown to a class that does not override the operation.
inline void unknownIds(RMAttributeValueResponse* rsp, const int* ids, unsigned int count,
                       const char* op) {
    auto err = common(tarn_rmf::RM_EINVALIDATTRID, op);
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        rsp->addError(ids[i], err.get());
    }
    rsp->done(nullptr);
}

inline void unknownIds(RMAttributeIdResponse* rsp, const int* ids, unsigned int count,
                       const char* op) {
    auto err = common(tarn_rmf::RM_EINVALIDATTRID, op);
    for (unsigned int i = 0; ids != nullptr && i < count; ++i) {
        rsp->result(ids[i], err.get());
    }
    rsp->done(nullptr);
}

inline void unknownValues(RMAttributeIdResponse* rsp, const rm_attribute_value* values,
                          unsigned int count, const char* op) {
    auto err = common(tarn_rmf::RM_EINVALIDATTRID, op);
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        rsp->result(values[i].rm_attribute_id, err.get());
    }
    rsp->done(nullptr);
}

inline void unknownMonitoring(RMAttributeValueResponse* rsp, const rm_monitoring_data* attrs,
                              unsigned int count, const char* op) {
    auto err = common(tarn_rmf::RM_EINVALIDATTRID, op);
    for (unsigned int i = 0; attrs != nullptr && i < count; ++i) {
        rsp->addError(attrs[i].rm_attribute_id, err.get());
    }
    rsp->done(nullptr);
}

inline zn::ErrorPtr notSupported(const char* op) {
    return common(tarn_rmf::RM_ENOTSUPPORTED, op);
}

}  // namespace tarn_rmf2v::defaults
