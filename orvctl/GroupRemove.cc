// orvctl group rm NAME...: removes groups, naming each one removed or
// refused (a group another one contains stays). Names no group has are
// reported and the others are still removed.
#include "orvctl/GroupFind.h"
#include "orvctl/Undefine.h"

namespace orvctl {

int groupRemove(CliSession& cli, const std::vector<std::string>& names) {
    int status = znpex::cli::kExitOk;
    std::vector<Named> groups;
    Removal removal;
    for (const auto& name : names) {
        zn_resource_handle h{};
        switch (findGroup(cli, name, &h)) {
            case Found::Yes:
                groups.push_back({h, name});
                break;
            case Found::No:
                cli.err() << cli.program() << ": " << noGroupNamed(name) << '\n';
                removal.missing.push_back(name);
                status = znpex::cli::kExitFailed;
                break;
            case Found::Failed:
                return znpex::cli::kExitFailed;
        }
    }
    if (!undefineNamed(cli, kGroupClass, groups, removal, &status)) {
        return znpex::cli::kExitFailed;
    }
    printRemoval(cli, removal);
    return status;
}

}  // namespace orvctl
