// orvctl group show NAME: the group's definition and its expanded members,
// one a line (or every attribute as JSON).
#include "orvctl/GroupFind.h"
#include "orvctl/GroupWords.h"

namespace orvctl {

int groupShow(CliSession& cli, const std::string& name) {
    int status = znpex::cli::kExitOk;
    std::vector<ResourceValues> groups;
    if (!queryGroups(cli, groupSelection(name), nullptr, groups, &status)) {
        return znpex::cli::kExitFailed;
    }
    if (groups.empty()) {
        return cli.failMessage(noGroupNamed(name));
    }
    if (cli.opts().json()) {
        cli.out() << groups.front().json().dump(2) << '\n';
        return status;
    }
    GroupSummary s = summaryOf(groups.front());
    std::ostream& out = cli.out();
    out << "Name:        " << s.name << '\n'
        << "Kind:        " << s.kind << '\n'
        << "Definition:  " << s.definition << '\n'
        << "Validate:    " << (s.validate ? "yes" : "no") << '\n'
        << "Nodes:       " << s.nodes.size() << '\n';
    for (const auto& n : s.nodes) {
        out << "  " << n << '\n';
    }
    return status;
}

}  // namespace orvctl
