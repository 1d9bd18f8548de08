// orvctl node set NAME ATTR=VALUE...: changes attributes of one node; each
// refused attribute is named with the catalogue's text.
#include "orvctl/NodeFind.h"
#include "znpex/cli/Assignments.h"
#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;
using znpex::proto::Json;

int nodeSet(CliSession& cli, const std::string& name, const std::vector<std::string>& texts) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(kNodeClass, def)) {
        return kExitFailed;
    }
    znpex::cli::Assignments a;
    if (auto why = znpex::cli::parseAssignments(def.name, def.persistent, texts, a)) {
        return cli.usage(*why);
    }
    zn_resource_handle handle{};
    switch (findNode(cli, name, &handle)) {
        case Found::No:
            return cli.failMessage(noNodeNamed(name));
        case Found::Failed:
            return kExitFailed;
        case Found::Yes:
            break;
    }
    std::vector<px_attr_t> attrs = a.attrs();
    px_resources_rsp_t* r = nullptr;
    if (px_set_attrs(cli.session(), kNodeClass, &handle, 1, attrs.data(),
                     static_cast<uint32_t>(attrs.size()), &r) != PX_OK) {
        return cli.failCall();
    }
    znpex::client::RspPtr<px_resources_rsp_t> rsp(r);
    if (r->hdr.pr_error != nullptr) {
        return cli.fail(r->hdr.pr_error);
    }
    int status = kExitOk;
    Json errors = Json::object();
    for (uint32_t i = 0; i < r->resource_count; ++i) {
        const px_resource_rsp_t& e = r->resources[i];
        if (e.error != nullptr) {
            return cli.fail(e.error);
        }
        for (uint32_t k = 0; k < e.attr_count; ++k) {
            if (e.attrs[k].pv_error != nullptr) {
                cli.printError(e.attrs[k].pv_error, name + " " + e.attrs[k].pv_name);
                errors[e.attrs[k].pv_name] = CliSession::errorJson(e.attrs[k].pv_error);
                status = kExitFailed;
            }
        }
    }
    if (cli.opts().json()) {
        Json out{{"name", name}, {"handle", znpex::proto::handleToHex(handle)}};
        if (!errors.empty()) {
            out["errors"] = std::move(errors);
        }
        cli.out() << out.dump(2) << '\n';
    } else if (status == kExitOk) {
        cli.out() << "Changed " << name << '\n';
    }
    return status;
}

}  // namespace orvctl
