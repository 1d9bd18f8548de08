// orvctl group members NAME: the group's expanded members as the manager
// gives them (GetMembers), one a line, or a JSON array.
#include "orvctl/Actions.h"
#include "orvctl/GroupFind.h"
#include "orvctl/Values.h"

namespace orvctl {

int groupMembers(CliSession& cli, const std::string& name) {
    std::string selection = groupSelection(name);
    zn::SdPtr data;
    switch (
        runAction(cli, selectionTarget(kGroupClass, &selection), "GetMembers", nullptr, &data)) {
        case Ran::NoResource:
            return cli.failMessage(noGroupNamed(name));
        case Ran::Failed:
            return znpex::cli::kExitFailed;
        case Ran::Done:
            break;
    }
    std::vector<std::string> nodes = textsOf(data.get());
    if (cli.opts().json()) {
        cli.out() << znpex::proto::Json(nodes).dump(2) << '\n';
    } else {
        for (const auto& n : nodes) {
            cli.out() << n << '\n';
        }
    }
    return znpex::cli::kExitOk;
}

}  // namespace orvctl
