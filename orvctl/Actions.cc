#include "orvctl/Actions.h"

#include "znpex/client/Responses.h"

namespace orvctl {

Ran runAction(CliSession& cli, const ActionTarget& target, const char* action,
              const zn_structured_data* input, zn::SdPtr* data) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return Ran::Failed;
    }
    px_resources_rsp_t* p = nullptr;
    int rc = target.handle != nullptr
                 ? px_invoke_action(s, target.className, target.handle, 1, action, input, &p)
             : target.selection != nullptr
                 ? px_invoke_action_select(s, target.className, target.selection->c_str(), action,
                                           input, &p)
                 : px_invoke_class_action(s, target.className, action, input, &p);
    if (rc != PX_OK) {
        cli.failCall();
        return Ran::Failed;
    }
    znpex::client::RspPtr<px_resources_rsp_t> rsp(p);
    if (p->hdr.pr_error != nullptr) {
        cli.fail(p->hdr.pr_error);
        return Ran::Failed;
    }
    if (p->resource_count == 0) {
        return Ran::NoResource;
    }
    const px_resource_rsp_t& e = p->resources[0];
    if (e.error != nullptr) {
        cli.fail(e.error);
        return Ran::Failed;
    }
    data->reset();
    if (e.data_count > 0) {
        *data = zn::copySd(e.data[0]);
    }
    return Ran::Done;
}

}  // namespace orvctl
