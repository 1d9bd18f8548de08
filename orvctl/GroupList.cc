// orvctl group ls: one line per group (name, kind, how many nodes its
// expanded list holds, its member list or selection), or every attribute
// as JSON.
#include "orvctl/GroupFind.h"
#include "orvctl/GroupWords.h"
#include "znpex/cli/Table.h"

namespace orvctl {

int groupList(CliSession& cli) {
    static const std::vector<std::string> kShown = {"Name", "MemberList", "SelectStr",
                                                    "ExpMemberList"};
    bool json = cli.opts().json();
    int status = znpex::cli::kExitOk;
    std::vector<ResourceValues> groups;
    if (!queryGroups(cli, "", json ? nullptr : &kShown, groups, &status)) {
        return znpex::cli::kExitFailed;
    }
    if (json) {
        znpex::proto::Json out = znpex::proto::Json::array();
        for (const auto& g : groups) {
            out.push_back(g.json());
        }
        cli.out() << out.dump(2) << '\n';
        return status;
    }
    znpex::cli::Table table({"NAME", "KIND", "NODES", "DEFINITION"});
    for (const auto& g : groups) {
        GroupSummary s = summaryOf(g);
        table.add({s.name, s.kind, std::to_string(s.nodes.size()), s.definition});
    }
    table.print(cli.out());
    return status;
}

}  // namespace orvctl
