#include "orvctl/Undefine.h"

#include <map>

#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {

bool undefineNamed(CliSession& cli, const char* className, const std::vector<Named>& targets,
                   Removal& r, int* status) {
    if (targets.empty()) {
        return true;
    }
    px_session_t s = cli.session();
    if (s == nullptr) {
        return false;
    }
    std::vector<zn_resource_handle> handles;
    std::map<std::string, std::string> names;  // handle (hex), name
    for (const auto& t : targets) {
        handles.push_back(t.handle);
        names[znpex::proto::handleToHex(t.handle)] = t.name;
    }
    px_resources_rsp_t* p = nullptr;
    if (px_undefine_resource(s, className, handles.data(), static_cast<uint32_t>(handles.size()),
                             nullptr, &p) != PX_OK) {
        cli.failCall();
        return false;
    }
    znpex::client::RspPtr<px_resources_rsp_t> rsp(p);
    if (p->hdr.pr_error != nullptr) {
        cli.fail(p->hdr.pr_error);
        return false;
    }
    for (uint32_t i = 0; i < p->resource_count; ++i) {
        const px_resource_rsp_t& e = p->resources[i];
        std::string name = znpex::proto::handleToHex(e.handle);
        if (auto it = names.find(name); it != names.end()) {
            name = it->second;
        }
        if (e.error != nullptr) {
            cli.printError(e.error, name);
            r.refused.push_back({{"name", name}, {"error", CliSession::errorJson(e.error)}});
            *status = znpex::cli::kExitFailed;
        } else {
            r.removed.push_back(name);
            if (!cli.opts().json()) {
                cli.out() << "Removed " << name << '\n';
            }
        }
    }
    return true;
}

void printRemoval(CliSession& cli, const Removal& r) {
    if (!cli.opts().json()) {
        return;
    }
    znpex::proto::Json out{{"removed", r.removed}};
    if (!r.refused.empty()) {
        out["refused"] = r.refused;
    }
    if (!r.missing.empty()) {
        out["missing"] = r.missing;
    }
    cli.out() << out.dump(2) << '\n';
}

}  // namespace orvctl
