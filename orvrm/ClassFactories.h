// The resource manager's class factory table: the five classes in the order
// they are searched, each with the factory that builds its class control
// point from (class name, object type, control point).
#pragma once

#include "tarn_rmf2v/RMRccp.h"

class ORVRMRmcp;

namespace orvrm {

using ClassFactory = tarn_rmf2v::RMRccp* (*)(char* className, rm_object_type type,
                                              ORVRMRmcp* rmcp);

struct ClassFactoryEntry {
    const char* className;
    ClassFactory factory;
};

inline constexpr int kClassFactoryCount = 5;
// The table, in search order.
const ClassFactoryEntry* classFactories();

}  // namespace orvrm

tarn_rmf2v::RMRccp* initOrvCtrl(char* className, rm_object_type type, ORVRMRmcp* rmcp);
tarn_rmf2v::RMRccp* initMNNetworkInterface(char* className, rm_object_type type, ORVRMRmcp* rmcp);
tarn_rmf2v::RMRccp* initManagedNode(char* className, rm_object_type type, ORVRMRmcp* rmcp);
tarn_rmf2v::RMRccp* initNodeAuthenticate(char* className, rm_object_type type, ORVRMRmcp* rmcp);
tarn_rmf2v::RMRccp* initNodeGroup(char* className, rm_object_type type, ORVRMRmcp* rmcp);
