// The changing commands: define, set, undefine and action.
#include <algorithm>
#include <optional>

#include "znpex/cli/Assignments.h"
#include "znpex/cli/Commands.h"
#include "znpex/cli/ValueText.h"
#include "znpex/client/Responses.h"
#include "znpex/client/Session.h"
#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::cli {
namespace {

using proto::Json;

// TYPE:VALUE arguments (or, untyped, by the given element types) as
// structured data; null when there are none.
std::optional<std::string> parseArgs(const std::vector<std::string>& texts,
                                     const std::vector<zn_data_type_t>& types, zn::SdPtr& out) {
    if (texts.empty()) {
        return std::nullopt;
    }
    out.reset(zn_sd_new(static_cast<uint32_t>(texts.size())));
    if (!out) {
        throw std::bad_alloc();
    }
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string why;
        std::optional<zn::OwnedValue> v;
        size_t colon = texts[i].find(':');
        bool typed =
            colon != std::string::npos && typeOfPrefix(texts[i].substr(0, colon)) != ZN_UNKNOWN;
        if (typed || i >= types.size()) {
            v = parseTypedArg(texts[i], &why);
        } else {
            v = parseValue(types[i], texts[i], &why);
        }
        if (!v) {
            return "argument " + std::to_string(i + 1) + ": " + why;
        }
        out->elements[i].data_type = v->type();
        out->elements[i].value = v->release();
    }
    return std::nullopt;
}

std::optional<std::string> parseHandles(const std::vector<std::string>& texts,
                                        std::vector<zn_resource_handle>& out) {
    for (const auto& t : texts) {
        zn_resource_handle h{};
        if (!proto::parseHandleHex(t, h)) {
            return "\"" + t + "\" is not a resource handle (40 lowercase hex digits)";
        }
        out.push_back(h);
    }
    return std::nullopt;
}

std::string targetName(const px_resource_rsp_t& e) {
    return e.is_class ? std::string("class") : proto::handleToHex(e.handle);
}

// Prints a per-resource response and returns the exit status. A request
// refused as a whole did nothing. Otherwise each resource that went through
// gets doneWord; when some attributes of a change were refused, it names the
// ones that were applied (the manager applies the rest) and each refusal
// names its attribute. `sent`: the attribute names of a change, else null.
int report(CliSession& cli, const px_resources_rsp_t* rsp, const char* doneWord,
           const std::vector<std::string>* sent = nullptr) {
    if (rsp->hdr.pr_error != nullptr) {
        for (uint32_t i = 0; i < rsp->resource_count; ++i) {
            if (rsp->resources[i].error != nullptr) {
                cli.printError(rsp->resources[i].error, targetName(rsp->resources[i]));
            }
        }
        return cli.fail(rsp->hdr.pr_error);
    }
    int status = kExitOk;
    Json json = Json::array();
    for (uint32_t i = 0; i < rsp->resource_count; ++i) {
        const px_resource_rsp_t& e = rsp->resources[i];
        std::string who = targetName(e);
        Json entry = e.is_class ? Json{{"class", true}} : Json{{"handle", who}};
        if (e.error != nullptr) {
            cli.printError(e.error, who);
            entry["error"] = CliSession::errorJson(e.error);
            status = kExitFailed;
            json.push_back(std::move(entry));
            continue;
        }
        std::vector<std::string> refused;
        for (uint32_t k = 0; k < e.attr_count; ++k) {
            if (e.attrs[k].pv_error != nullptr) {
                refused.emplace_back(e.attrs[k].pv_name);
                cli.printError(e.attrs[k].pv_error, who + " " + e.attrs[k].pv_name);
                entry["errors"][e.attrs[k].pv_name] = CliSession::errorJson(e.attrs[k].pv_error);
            }
        }
        Json data = Json::array();
        for (uint32_t k = 0; k < e.data_count; ++k) {
            data.push_back(proto::encodeSd(e.data[k]));
            if (!cli.opts().json()) {
                zn_value_t v;
                v.ptr_sd = e.data[k];
                cli.out() << who << ": " << formatValue(ZN_SD_PTR, v) << '\n';
            }
        }
        if (e.data_count > 0) {
            entry["data"] = std::move(data);
        }
        if (refused.empty()) {
            if (!cli.opts().json() && e.data_count == 0) {
                cli.out() << doneWord << ' ' << who << '\n';
            }
        } else {
            status = kExitFailed;
            std::string applied;
            for (size_t k = 0; sent != nullptr && k < sent->size(); ++k) {
                const std::string& name = (*sent)[k];
                if (std::find(refused.begin(), refused.end(), name) == refused.end()) {
                    applied += (applied.empty() ? "" : ", ") + name;
                }
            }
            if (!applied.empty() && !cli.opts().json()) {
                cli.out() << doneWord << ' ' << who << ": " << applied << '\n';
            }
        }
        json.push_back(std::move(entry));
    }
    if (cli.opts().json()) {
        cli.out() << json.dump(2) << '\n';
    }
    return status;
}

bool needsTarget(CliSession& cli, const Target& t, int& status) {
    if (t.handles.empty() && !t.hasSelection) {
        status = cli.usage("give the resources with -s SELECTION or --handle HANDLE");
        return false;
    }
    return true;
}

}  // namespace

int cmdDefine(CliSession& cli, const ChangeArgs& args) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    Assignments a;
    if (auto why = parseAssignments(def.name, def.persistent, args.assignments, a)) {
        return cli.usage(*why);
    }
    zn::SdPtr options;
    if (auto why = parseArgs(args.options, {}, options)) {
        return cli.usage("--option " + *why);
    }
    std::vector<px_attr_t> attrs = a.attrs();
    px_define_rsp_t* r = nullptr;
    if (px_define_resource(cli.session(), def.name.c_str(), attrs.data(),
                           static_cast<uint32_t>(attrs.size()), options.get(), &r) != PX_OK) {
        return cli.failCall();
    }
    client::RspPtr<px_define_rsp_t> rsp(r);
    if (r->hdr.pr_error != nullptr) {
        return cli.fail(r->hdr.pr_error);
    }
    std::string handle = r->has_handle ? proto::handleToHex(r->handle) : "";
    if (cli.opts().json()) {
        cli.out() << Json{{"handle", handle}}.dump(2) << '\n';
    } else {
        cli.out() << "Defined " << def.name << " resource " << handle << '\n';
    }
    return kExitOk;
}

int cmdSet(CliSession& cli, const ChangeArgs& args) {
    int status = kExitOk;
    if (!args.target.classLevel && !needsTarget(cli, args.target, status)) {
        return status;
    }
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    Assignments a;
    const auto& list = args.target.classLevel ? def.classPersistent : def.persistent;
    if (auto why = parseAssignments(def.name, list, args.assignments, a)) {
        return cli.usage(*why);
    }
    std::vector<px_attr_t> attrs = a.attrs();
    if (attrs.empty()) {
        return cli.usage("nothing to set: give attr=value");
    }
    std::vector<zn_resource_handle> handles;
    if (auto why = parseHandles(args.target.handles, handles)) {
        return cli.usage(*why);
    }
    px_resources_rsp_t* r = nullptr;
    auto n = static_cast<uint32_t>(attrs.size());
    int rc = args.target.classLevel
                 ? px_set_class_attrs(cli.session(), def.name.c_str(), attrs.data(), n, &r)
             : args.target.hasSelection
                 ? px_set_attrs_select(cli.session(), def.name.c_str(),
                                       args.target.selection.c_str(), attrs.data(), n, &r)
                 : px_set_attrs(cli.session(), def.name.c_str(), handles.data(),
                                static_cast<uint32_t>(handles.size()), attrs.data(), n, &r);
    if (rc != PX_OK) {
        return cli.failCall();
    }
    client::RspPtr<px_resources_rsp_t> rsp(r);
    return report(cli, r, "Changed", &a.names);
}

int cmdUndefine(CliSession& cli, const ChangeArgs& args) {
    int status = kExitOk;
    if (!needsTarget(cli, args.target, status)) {
        return status;
    }
    std::vector<zn_resource_handle> handles;
    if (auto why = parseHandles(args.target.handles, handles)) {
        return cli.usage(*why);
    }
    zn::SdPtr options;
    if (auto why = parseArgs(args.options, {}, options)) {
        return cli.usage("--option " + *why);
    }
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    px_resources_rsp_t* r = nullptr;
    int rc = args.target.hasSelection
                 ? px_undefine_select(s, args.className.c_str(), args.target.selection.c_str(),
                                      options.get(), &r)
                 : px_undefine_resource(s, args.className.c_str(), handles.data(),
                                        static_cast<uint32_t>(handles.size()), options.get(), &r);
    if (rc != PX_OK) {
        return cli.failCall();
    }
    client::RspPtr<px_resources_rsp_t> rsp(r);
    return report(cli, r, "Undefined");
}

int cmdAction(CliSession& cli, const ActionArgs& args) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    bool classAction = args.target.handles.empty() && !args.target.hasSelection;
    const auto* action =
        proto::findAction(classAction ? def.classActions : def.actions, args.action);
    if (action == nullptr) {
        return cli.usage("the class " + def.name + " has no " +
                         (classAction ? "class action" : "resource action") + " named " +
                         args.action);
    }
    zn::SdPtr input;
    if (auto why = parseArgs(args.args, action->input, input)) {
        return cli.usage(*why);
    }
    std::vector<zn_resource_handle> handles;
    if (auto why = parseHandles(args.target.handles, handles)) {
        return cli.usage(*why);
    }
    px_resources_rsp_t* r = nullptr;
    px_session_t s = cli.session();
    int rc = classAction
                 ? px_invoke_class_action(s, def.name.c_str(), args.action.c_str(), input.get(), &r)
             : args.target.hasSelection
                 ? px_invoke_action_select(s, def.name.c_str(), args.target.selection.c_str(),
                                           args.action.c_str(), input.get(), &r)
                 : px_invoke_action(s, def.name.c_str(), handles.data(),
                                    static_cast<uint32_t>(handles.size()), args.action.c_str(),
                                    input.get(), &r);
    if (rc != PX_OK) {
        return cli.failCall();
    }
    client::RspPtr<px_resources_rsp_t> rsp(r);
    return report(cli, r, "Done");
}

}  // namespace znpex::cli
