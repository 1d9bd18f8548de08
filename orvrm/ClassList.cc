#include "orvrm/ClassList.h"

#include <cstring>

#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"

namespace orvrm {
namespace {

template <typename T>
tarn_rmf2v::RMRccp* make(char* className, rm_object_type type, ORVRMRmcp* rmcp) {
    return new T(className, type, rmcp);
}

}  // namespace

const std::array<ClassEntry, 5>& classList() {
    static const std::array<ClassEntry, 5> list = {{
        {kOrvCtrlClass, make<OrvCtrlRccp>, 1, "new OrvCtrl"},
        {kNodeAuthenticateClass, make<NodeAuthenticateRccp>, 2, "new NodeAuthenticate"},
        {kNetworkInterfaceClass, make<MNNetworkInterfaceRccp>, 3, "new MNNetworkIface"},
        {kManagedNodeClass, make<ManagedNodeRccp>, 4, "new ManagedNode"},
        {kNodeGroupClass, make<NodeGroupRccp>, 5, "new NodeGroup"},
    }};
    return list;
}

const ClassEntry* findClass(const char* name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (const ClassEntry& e : classList()) {
        if (std::strcmp(e.name, name) == 0) {
            return &e;
        }
    }
    return nullptr;
}

}  // namespace orvrm
