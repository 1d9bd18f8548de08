// Values the commands send and read back: texts and text arrays, an
// action's one-element input, and the host or group names an array or an
// action's answer holds.
#pragma once

#include <string>
#include <vector>

#include "platform/zn_owned.h"

namespace orvctl {

// These throw std::bad_alloc when memory runs out.
zn::OwnedValue textValue(const std::string& s);
zn::OwnedValue textArray(const std::vector<std::string>& list);
// Structured data of one element, taking over `v`.
zn::SdPtr oneElement(zn::OwnedValue v);

// The texts of a string array (null: none); null elements are skipped.
std::vector<std::string> textsOf(const zn_array* list);
// The texts of the first element of `sd` when it is a string array, else none.
std::vector<std::string> textsOf(const zn_structured_data* sd);

}  // namespace orvctl
