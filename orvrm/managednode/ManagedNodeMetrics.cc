// The managed nodes counted for the metrics page.
#include <cstdlib>

#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"

namespace orvrm {

ManagedNodeRccp::NodeCounts ManagedNodeRccp::countNodes() {
    NodeCounts out;
    enumerateRcps(
        [](void* arg, tarn_rmf2v::RMRcp* rcp, int) -> int {
            auto* counts = static_cast<NodeCounts*>(arg);
            auto* node = dynamic_cast<ManagedNodeRcp*>(rcp);
            if (node == nullptr) {
                return 0;
            }
            char* mode = node->getMode();
            std::string m = mode != nullptr ? mode : "";
            std::free(mode);
            ++counts->byStatusAndMode[{node->getStatus(), m}];
            ++counts->byPowerStatus[node->getPowerStatus()];
            return 0;
        },
        &out);
    return out;
}

}  // namespace orvrm
