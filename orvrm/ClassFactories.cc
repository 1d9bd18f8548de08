#include "orvrm/ClassFactories.h"

#include "orvrm/ORVRMRmcp.h"
#include "orvrm/PlaceholderRccp.h"

namespace orvrm {

const ClassFactoryEntry* classFactories() {
    static const ClassFactoryEntry table[kClassFactoryCount] = {
        {"Kor.OrvCtrl", initOrvCtrl},
        {"Kor.MNNetworkInterface", initMNNetworkInterface},
        {"Kor.ManagedNode", initManagedNode},
        {"Kor.NodeAuthenticate", initNodeAuthenticate},
        {"Kor.NodeGroup", initNodeGroup},
    };
    return table;
}

}  // namespace orvrm

// Until each class's own control point lands, its factory builds a placeholder.
tarn_rmf2v::RMRccp* initOrvCtrl(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new orvrm::PlaceholderRccp(className, type, rmcp);
}

tarn_rmf2v::RMRccp* initMNNetworkInterface(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new orvrm::PlaceholderRccp(className, type, rmcp);
}

tarn_rmf2v::RMRccp* initManagedNode(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new orvrm::PlaceholderRccp(className, type, rmcp);
}

tarn_rmf2v::RMRccp* initNodeAuthenticate(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new orvrm::PlaceholderRccp(className, type, rmcp);
}

tarn_rmf2v::RMRccp* initNodeGroup(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new orvrm::PlaceholderRccp(className, type, rmcp);
}
