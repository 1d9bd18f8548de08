// orvctl node rm NAME... | --selection SEL: removes nodes (with their
// interfaces and group memberships, which the manager removes with them),
// naming each one removed or refused. Names no node has are reported and
// the others are still removed.
#include <map>

#include "orvctl/NodeFind.h"
#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;
using znpex::proto::Json;

namespace {

struct Target {
    zn_resource_handle handle;
    std::string name;
};

// The nodes to remove; false after printing why the lookup failed.
bool targets(CliSession& cli, const RemoveArgs& args, std::vector<Target>& out, Json& missing,
             int* status) {
    if (args.hasSelection) {
        static const std::vector<std::string> kName = {"Hostname"};
        static const std::vector<std::string> kNone;
        std::vector<NodeValues> nodes;
        if (!queryNodes(cli, args.selection, &kName, &kNone, nodes, status)) {
            return false;
        }
        for (const auto& n : nodes) {
            out.push_back({n.handle, n.hostname()});
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
                missing.push_back(name);
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
    std::vector<Target> nodes;
    Json missing = Json::array();
    if (!targets(cli, args, nodes, missing, &status)) {
        return kExitFailed;
    }
    Json removed = Json::array();
    Json refused = Json::array();
    if (!nodes.empty()) {
        std::vector<zn_resource_handle> handles;
        for (const auto& n : nodes) {
            handles.push_back(n.handle);
        }
        px_resources_rsp_t* r = nullptr;
        if (px_undefine_resource(cli.session(), kNodeClass, handles.data(),
                                 static_cast<uint32_t>(handles.size()), nullptr, &r) != PX_OK) {
            return cli.failCall();
        }
        znpex::client::RspPtr<px_resources_rsp_t> rsp(r);
        if (r->hdr.pr_error != nullptr) {
            return cli.fail(r->hdr.pr_error);
        }
        std::map<std::string, std::string> names;  // handle (hex), host name
        for (const auto& n : nodes) {
            names[znpex::proto::handleToHex(n.handle)] = n.name;
        }
        for (uint32_t i = 0; i < r->resource_count; ++i) {
            const px_resource_rsp_t& e = r->resources[i];
            std::string name = znpex::proto::handleToHex(e.handle);
            if (auto it = names.find(name); it != names.end()) {
                name = it->second;
            }
            if (e.error != nullptr) {
                cli.printError(e.error, name);
                refused.push_back({{"name", name}, {"error", CliSession::errorJson(e.error)}});
                status = kExitFailed;
            } else {
                removed.push_back(name);
                if (!cli.opts().json()) {
                    cli.out() << "Removed " << name << '\n';
                }
            }
        }
    } else if (args.hasSelection && !cli.opts().json()) {
        cli.out() << "No node matches the selection\n";
    }
    if (cli.opts().json()) {
        Json out{{"removed", std::move(removed)}};
        if (!refused.empty()) {
            out["refused"] = std::move(refused);
        }
        if (!missing.empty()) {
            out["missing"] = std::move(missing);
        }
        cli.out() << out.dump(2) << '\n';
    }
    return status;
}

}  // namespace orvctl
