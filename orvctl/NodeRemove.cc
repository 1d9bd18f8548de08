// orvctl node rm NAME... | --selection SEL: removes nodes (with their
// interfaces and group memberships, which the manager removes with them),
// naming each one removed or refused. Names no node has are reported and
// the others are still removed.
#include "orvctl/NodeFind.h"
#include "orvctl/Undefine.h"

namespace orvctl {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;

namespace {

// The nodes to remove; false after printing why the lookup failed.
bool targets(CliSession& cli, const RemoveArgs& args, std::vector<Named>& out, Removal& r,
             int* status) {
    if (args.hasSelection) {
        static const std::vector<std::string> kName = {"Hostname"};
        static const std::vector<std::string> kNone;
        std::vector<NodeValues> nodes;
        if (!queryNodes(cli, args.selection, &kName, &kNone, nodes, status)) {
            return false;
        }
        for (const auto& n : nodes) {
            out.push_back({n.handle, n.text("Hostname")});
        }
        return true;
    }
    for (const auto& name : args.names) {
        zn_resource_handle h{};
        switch (findNode(cli, name, &h)) {
            case Found::Yes:
                out.push_back({h, name});
                break;
            case Found::No:
                cli.err() << cli.program() << ": " << noNodeNamed(name) << '\n';
                r.missing.push_back(name);
                *status = kExitFailed;
                break;
            case Found::Failed:
                return false;
        }
    }
    return true;
}

}  // namespace

int nodeRemove(CliSession& cli, const RemoveArgs& args) {
    if (args.hasSelection == !args.names.empty()) {
        return cli.usage("give the nodes either by name or with --selection");
    }
    int status = kExitOk;
    std::vector<Named> nodes;
    Removal removal;
    if (!targets(cli, args, nodes, removal, &status) ||
        !undefineNamed(cli, kNodeClass, nodes, removal, &status)) {
        return kExitFailed;
    }
    if (nodes.empty() && args.hasSelection && !cli.opts().json()) {
        cli.out() << "No node matches the selection\n";
    }
    printRemoval(cli, removal);
    return status;
}

}  // namespace orvctl
