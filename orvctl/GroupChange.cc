// orvctl group add-members|rm-members NAME NODE...: the group's AddMembers
// and RemMembers actions, which the manager checks as it checks a
// definition (a refusal prints its catalogue text as sent).
#include "orvctl/Actions.h"
#include "orvctl/GroupFind.h"
#include "orvctl/GroupWords.h"
#include "orvctl/Values.h"

namespace orvctl {

int groupChangeMembers(CliSession& cli, const std::string& name,
                       const std::vector<std::string>& nodes, bool adding) {
    std::string selection = groupSelection(name);
    zn::SdPtr input = oneElement(textArray(nodes));
    zn::SdPtr data;
    switch (runAction(cli, selectionTarget(kGroupClass, &selection),
                      adding ? "AddMembers" : "RemMembers", input.get(), &data)) {
        case Ran::NoResource:
            return cli.failMessage(noGroupNamed(name));
        case Ran::Failed:
            return znpex::cli::kExitFailed;
        case Ran::Done:
            break;
    }
    if (cli.opts().json()) {
        cli.out() << znpex::proto::Json{{"name", name}, {adding ? "added" : "removed", nodes}}.dump(
                         2)
                  << '\n';
    } else {
        cli.out() << (adding ? "Added " : "Removed ") << joinNames(nodes)
                  << (adding ? " to " : " from ") << name << '\n';
    }
    return znpex::cli::kExitOk;
}

}  // namespace orvctl
