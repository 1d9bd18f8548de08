// How orvctl shows a node's values to a person: status and power status as
// words (the raw numbers stay in -o json), arrays as comma-separated
// elements.
#pragma once

#include <cstdint>
#include <string>

#include "platform/zn_types.h"

namespace orvctl {

// 1 "up", 0 "down", 127 "unknown"; any other number as itself.
std::string statusWord(uint32_t status);
// 1 "on", 0 "off", 127 "unknown"; any other number as itself.
std::string powerWord(uint32_t power);
// A value as a table cell: arrays without braces ("10.0.0.1,10.0.0.2"), a
// string or array never given as nothing, the rest as znpex prints them.
std::string cellText(zn_data_type_t t, const zn_value_t& v);
// The cell of attribute `name`: Status and PowerStatus as words.
std::string attrText(const std::string& name, zn_data_type_t t, const zn_value_t& v);

}  // namespace orvctl
