// What a resource class offers, as the monitoring service shows it to
// clients: its persistent and dynamic attributes (class and resource level)
// with ids, data types and property words, and its actions. A class control
// point states it once in its constructor (RMRccp::setClassDef); the service
// connection registers it with the service.
#pragma once

#include <string>
#include <vector>

#include "platform/zn_types.h"

namespace tarn_rmf2v {

struct RMAttrDef {
    std::string name;
    int id = 0;
    zn_data_type_t type = ZN_UNKNOWN;
    unsigned int properties = 0;
};

struct RMActionDef {
    std::string name;
    int id = 0;
    // Element types of the input, in order (empty: none or free form).
    std::vector<zn_data_type_t> input;
};

struct RMClassDef {
    std::string name;
    std::vector<RMAttrDef> classPersistent;
    std::vector<RMAttrDef> classDynamic;
    std::vector<RMAttrDef> persistent;  // resource attributes
    std::vector<RMAttrDef> dynamic;
    std::vector<RMActionDef> classActions;
    std::vector<RMActionDef> actions;   // resource actions
};

}  // namespace tarn_rmf2v
