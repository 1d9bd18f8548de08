// orvctl node groups NAME: the groups whose expanded member list holds the
// node (the group class's GroupsOfNode), one a line or a JSON array. Member
// lists may name hosts that are no node, so only an empty answer is checked
// against the nodes.
#include "orvctl/Actions.h"
#include "orvctl/GroupCommands.h"
#include "orvctl/NodeFind.h"
#include "orvctl/Values.h"

namespace orvctl {

int nodeGroups(CliSession& cli, const std::string& name) {
    zn::SdPtr input = oneElement(textValue(name));
    zn::SdPtr data;
    if (runAction(cli, classTarget(kGroupClass), "GroupsOfNode", input.get(), &data) ==
        Ran::Failed) {
        return znpex::cli::kExitFailed;
    }
    std::vector<std::string> groups = textsOf(data.get());
    if (groups.empty()) {
        zn_resource_handle h{};
        switch (findNode(cli, name, &h)) {
            case Found::No:
                return cli.failMessage(noNodeNamed(name));
            case Found::Failed:
                return znpex::cli::kExitFailed;
            case Found::Yes:
                break;
        }
    }
    if (cli.opts().json()) {
        cli.out() << znpex::proto::Json(groups).dump(2) << '\n';
    } else {
        for (const auto& g : groups) {
            cli.out() << g << '\n';
        }
    }
    return znpex::cli::kExitOk;
}

}  // namespace orvctl
