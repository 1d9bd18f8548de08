// The per-attribute part of value and set requests, shared by the class and
// the resource paths of the table layer: each asked id is answered in order,
// an unknown or repeated one with its error.
#pragma once

#include <functional>
#include <vector>

#include "platform/cu_error.h"
#include "platform/zn_owned.h"
#include "tarn_rmf/registry/RMRowSet.h"
#include "tarn_rmf2v/RMAttrSpec.h"
#include "tarn_rmf2v/RMResponses.h"

namespace tarn_rmf2v {

// How a path words a repeated attribute of request `op`.
using RMRepeatedError = std::function<zn::ErrorPtr(const char* op, const RMAttrSpec& attr)>;
// A path's own check of a value to set: null to accept, else the refusal.
using RMSetCheck = std::function<cu_error_t*(const RMAttrSpec& attr, const rm_attribute_value& v)>;

// The persistent values `ids` asks for, read from `row` (empty: every id
// unknown). Does not end the response.
void answerRowValues(RMAttributeValueResponse* rsp, const RMAttrTable& attrs,
                     const tarn_rmf::RMRowSet& row, const int* ids, unsigned int count,
                     const char* op, const RMRepeatedError& repeated);

// Screens the values of a set request: an unknown (or, with `available`
// false, any), repeated, read-only, mistyped or refused value is answered
// with its error at once; the rest are returned, unanswered, to be stored.
std::vector<rm_attribute_value> screenSetValues(RMAttributeIdResponse* rsp,
                                                const RMAttrTable& attrs, bool available,
                                                const rm_attribute_value* values,
                                                unsigned int count, const char* op,
                                                const RMRepeatedError& repeated,
                                                const RMSetCheck& check);

}  // namespace tarn_rmf2v
