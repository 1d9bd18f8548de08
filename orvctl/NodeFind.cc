#include "orvctl/NodeFind.h"

namespace orvctl {

std::string nameSelection(const std::string& name) {
    return "Hostname==" + selectionLiteral(name);
}

std::string noNodeNamed(const std::string& name) {
    return "no node named " + name;
}

Found findNode(CliSession& cli, const std::string& name, zn_resource_handle* out) {
    return findResource(cli, kNodeClass, nameSelection(name), out);
}

bool queryNodes(CliSession& cli, const std::string& selection,
                const std::vector<std::string>* persistent, const std::vector<std::string>* dynamic,
                std::vector<NodeValues>& out, int* status) {
    ResourceQuery q(kNodeClass, "Hostname");
    q.selection = selection;
    q.persistent = persistent;
    q.dynamic = dynamic;
    return queryResources(cli, q, out, status);
}

}  // namespace orvctl
