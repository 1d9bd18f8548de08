#include "orvctl/GroupFind.h"

namespace orvctl {

std::string groupSelection(const std::string& name) {
    return "Name==" + selectionLiteral(name);
}

std::string noGroupNamed(const std::string& name) {
    return "no group named " + name;
}

Found findGroup(CliSession& cli, const std::string& name, zn_resource_handle* out) {
    return findResource(cli, kGroupClass, groupSelection(name), out);
}

bool queryGroups(CliSession& cli, const std::string& selection,
                 const std::vector<std::string>* persistent, std::vector<ResourceValues>& out,
                 int* status) {
    // The dynamic attributes are events with no value worth showing.
    static const std::vector<std::string> kNone;
    ResourceQuery q(kGroupClass, "Name");
    q.selection = selection;
    q.persistent = persistent;
    q.dynamic = &kNone;
    return queryResources(cli, q, out, status);
}

}  // namespace orvctl
