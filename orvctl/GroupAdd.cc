// orvctl group add NAME (--members LIST | --select SELECTION) [--validate]:
// defines a node group given by its members (host names, and other groups
// written +name) or by a selection over the managed nodes.
#include "orvctl/GroupCommands.h"
#include "orvctl/GroupWords.h"
#include "orvctl/Values.h"
#include "znpex/cli/Assignments.h"
#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;
using znpex::proto::Json;

int groupAdd(CliSession& cli, const GroupAddArgs& args) {
    if (args.hasMembers == args.hasSelection) {
        return cli.usage("give the group either --members or --select");
    }
    znpex::cli::Assignments a;
    a.add("Name", textValue(args.name));
    if (args.hasMembers) {
        a.add("MemberList", textArray(splitMembers(args.members)));
    } else {
        a.add("SelectStr", textValue(args.selection));
    }
    if (args.validate) {
        zn_value_t one;
        one.val_uint32 = 1;
        a.add("ValidateNodes", zn::OwnedValue(ZN_UINT32, one));
    }
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    std::vector<px_attr_t> attrs = a.attrs();
    px_define_rsp_t* r = nullptr;
    if (px_define_resource(s, kGroupClass, attrs.data(), static_cast<uint32_t>(attrs.size()),
                           nullptr, &r) != PX_OK) {
        return cli.failCall();
    }
    znpex::client::RspPtr<px_define_rsp_t> rsp(r);
    if (r->hdr.pr_error != nullptr) {
        return cli.fail(r->hdr.pr_error);
    }
    if (cli.opts().json()) {
        std::string handle = r->has_handle ? znpex::proto::handleToHex(r->handle) : "";
        cli.out() << Json{{"name", args.name}, {"handle", handle}}.dump(2) << '\n';
    } else {
        cli.out() << "Added " << args.name << '\n';
    }
    return kExitOk;
}

}  // namespace orvctl
