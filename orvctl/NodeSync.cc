// orvctl node sync NAME: the node's syncData action, which fetches the
// node's data from the record its host keeps of this management server and
// applies it, and what that changed: the node's persistent attributes read
// before and after, the ones that differ shown as "ATTR: old -> new".
#include "orvctl/Actions.h"
#include "orvctl/NodeChanges.h"
#include "orvctl/NodeFind.h"
#include "orvctl/Values.h"

namespace orvctl {
namespace {

// Every persistent attribute of the resource with this handle; false after
// printing why.
bool readNode(CliSession& cli, const zn_resource_handle& handle, ResourceValues& out, int* status) {
    static const std::vector<std::string> kNone;
    std::vector<ResourceValues> found;
    ResourceQuery q(kNodeClass, "Hostname");
    q.handle = &handle;
    q.dynamic = &kNone;
    if (!queryResources(cli, q, found, status)) {
        return false;
    }
    if (found.empty()) {
        cli.failMessage("the node is gone");
        return false;
    }
    out = std::move(found.front());
    return true;
}

}  // namespace

int nodeSync(CliSession& cli, const std::string& name) {
    zn_resource_handle handle{};
    switch (findNode(cli, name, &handle)) {
        case Found::No:
            return cli.failMessage(noNodeNamed(name));
        case Found::Failed:
            return znpex::cli::kExitFailed;
        case Found::Yes:
            break;
    }
    int status = znpex::cli::kExitOk;
    ResourceValues before;
    if (!readNode(cli, handle, before, &status)) {
        return znpex::cli::kExitFailed;
    }
    // The action takes one element, which it does not read.
    zn_value_t unused;
    unused.val_uint32 = 0;
    zn::SdPtr input = oneElement(zn::OwnedValue(ZN_UINT32, unused));
    zn::SdPtr applied;
    switch (
        runAction(cli, resourceTarget(kNodeClass, &handle), "syncData", input.get(), &applied)) {
        case Ran::NoResource:
            return cli.failMessage(noNodeNamed(name));
        case Ran::Failed:
            return znpex::cli::kExitFailed;
        case Ran::Done:
            break;
    }
    ResourceValues after;
    if (!readNode(cli, handle, after, &status)) {
        return znpex::cli::kExitFailed;
    }
    std::vector<AttrChange> changes = changesBetween(before, after);
    if (cli.opts().json()) {
        cli.out() << changesJson(changes).dump(2) << '\n';
    } else if (changes.empty()) {
        cli.out() << "no change\n";
    } else {
        for (const auto& c : changes) {
            cli.out() << changeLine(c) << '\n';
        }
    }
    return status;
}

}  // namespace orvctl
