// orvctl node add NAME [--ip ADDR]... [--id UID] [ATTR=VALUE]...: defines a
// node. orvctl makes up no universal id: a node's network interfaces are
// made once it has one, so addresses without one get a note saying so.
#include "orvctl/NodeFind.h"
#include "orvctl/Values.h"
#include "znpex/cli/Assignments.h"
#include "znpex/cli/ValueText.h"
#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;
using znpex::proto::Json;

namespace {

// The universal id the node is given, 0 when none.
uint64_t universalIdOf(const znpex::cli::Assignments& a) {
    uint64_t id = 0;
    for (size_t i = 0; i < a.names.size(); ++i) {
        if (a.names[i] == "UniversalId" && a.values[i].type() == ZN_UINT64) {
            id = a.values[i].value().val_uint64;
        }
    }
    return id;
}

}  // namespace

int nodeAdd(CliSession& cli, const AddArgs& args) {
    znpex::cli::Assignments a;
    a.add("Hostname", textValue(args.name));
    if (!args.ips.empty()) {
        a.add("ConnectivityIPAddrs", textArray(args.ips));
    }
    if (!args.id.empty()) {
        std::string why;
        auto id = znpex::cli::parseValue(ZN_UINT64, args.id, &why);
        if (!id) {
            return cli.usage("--id: " + why);
        }
        a.add("UniversalId", std::move(*id));
    }
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(kNodeClass, def)) {
        return kExitFailed;
    }
    if (auto why = znpex::cli::parseAssignments(def.name, def.persistent, args.assignments, a)) {
        return cli.usage(*why);
    }
    std::vector<px_attr_t> attrs = a.attrs();
    px_define_rsp_t* r = nullptr;
    if (px_define_resource(cli.session(), kNodeClass, attrs.data(),
                           static_cast<uint32_t>(attrs.size()), nullptr, &r) != PX_OK) {
        return cli.failCall();
    }
    znpex::client::RspPtr<px_define_rsp_t> rsp(r);
    if (r->hdr.pr_error != nullptr) {
        return cli.fail(r->hdr.pr_error);
    }
    std::string note;
    if (!args.ips.empty() && universalIdOf(a) == 0) {
        note = args.name +
               " has no universal id: its network interfaces are made once it has one (at "
               "enrollment, or with orvctl node set " +
               args.name + " UniversalId=ID)";
        cli.err() << cli.program() << ": note: " << note << '\n';
    }
    std::string handle = r->has_handle ? znpex::proto::handleToHex(r->handle) : "";
    if (cli.opts().json()) {
        Json out{{"name", args.name}, {"handle", handle}};
        if (!note.empty()) {
            out["note"] = note;
        }
        cli.out() << out.dump(2) << '\n';
    } else {
        cli.out() << "Added " << args.name << '\n';
    }
    return kExitOk;
}

}  // namespace orvctl
