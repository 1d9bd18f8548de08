#include "orvctl/Resources.h"

#include <algorithm>

#include "znpex/client/Responses.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {
namespace {

using znpex::client::RspPtr;

std::vector<const char*> cnames(const std::vector<std::string>* names) {
    std::vector<const char*> out;
    if (names != nullptr) {
        for (const auto& n : *names) {
            out.push_back(n.c_str());
        }
    }
    return out;
}

std::string handleKey(const zn_resource_handle& h) {
    return std::string(reinterpret_cast<const char*>(h.bytes), sizeof h.bytes);
}

// Adds one response's entries to `out`, matched by handle through `index`.
void merge(CliSession& cli, const px_resources_rsp_t* rsp, std::vector<ResourceValues>& out,
           std::map<std::string, size_t>& index, int* status) {
    for (uint32_t i = 0; i < rsp->resource_count; ++i) {
        const px_resource_rsp_t& e = rsp->resources[i];
        auto [at, added] = index.emplace(handleKey(e.handle), out.size());
        if (added) {
            out.emplace_back();
            out.back().handle = e.handle;
        }
        ResourceValues& res = out[at->second];
        std::string who = znpex::proto::handleToHex(e.handle);
        if (e.error != nullptr) {
            cli.printError(e.error, who);
            *status = znpex::cli::kExitFailed;
        }
        for (uint32_t k = 0; k < e.attr_count; ++k) {
            const px_attr_value_t& a = e.attrs[k];
            if (a.pv_error != nullptr) {
                cli.printError(a.pv_error, who + " " + a.pv_name);
                res.errors[a.pv_name] = zn::copyError(a.pv_error);
                *status = znpex::cli::kExitFailed;
                continue;
            }
            res.values.insert_or_assign(a.pv_name, zn::OwnedValue::copyOf(a.pv_type, a.pv_value));
        }
    }
}

using SelectFn = int (*)(px_session_t, const char*, const char*, const char* const*, uint32_t,
                         px_resources_rsp_t**);
using HandleFn = int (*)(px_session_t, const char*, const zn_resource_handle*, uint32_t,
                         const char* const*, uint32_t, px_resources_rsp_t**);

// One kind of attributes of the resources, or nothing when none are asked;
// false after printing why the query failed.
bool queryKind(CliSession& cli, SelectFn bySelection, HandleFn byHandle, const ResourceQuery& q,
               const std::vector<std::string>* names, RspPtr<px_resources_rsp_t>& rsp) {
    if (names != nullptr && names->empty()) {
        return true;
    }
    std::vector<const char*> list = cnames(names);
    auto n = static_cast<uint32_t>(list.size());
    px_resources_rsp_t* r = nullptr;
    int rc = q.handle != nullptr
                 ? byHandle(cli.session(), q.className, q.handle, 1, list.data(), n, &r)
                 : bySelection(cli.session(), q.className, q.selection.c_str(), list.data(), n, &r);
    if (rc != PX_OK) {
        cli.failCall();
        return false;
    }
    rsp.reset(r);
    if (r->hdr.pr_error != nullptr) {
        cli.fail(r->hdr.pr_error);
        return false;
    }
    return true;
}

}  // namespace

std::string selectionLiteral(const std::string& text) {
    std::string s = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            s.push_back('\\');
        }
        s.push_back(c);
    }
    return s + "\"";
}

const zn::OwnedValue* ResourceValues::find(const std::string& name) const {
    auto it = values.find(name);
    return it == values.end() ? nullptr : &it->second;
}

std::string ResourceValues::text(const std::string& name) const {
    const zn::OwnedValue* v = find(name);
    return v != nullptr && v->type() == ZN_CHAR_PTR && v->value().ptr_char != nullptr
               ? v->value().ptr_char
               : "";
}

znpex::proto::Json ResourceValues::json() const {
    znpex::proto::Json attrs = znpex::proto::Json::object();
    for (const auto& [name, v] : values) {
        attrs[name] = znpex::proto::encodeBareValue(v.type(), v.value());
    }
    znpex::proto::Json out{{"handle", znpex::proto::handleToHex(handle)},
                           {"attributes", std::move(attrs)}};
    for (const auto& [name, e] : errors) {
        out["errors"][name] = CliSession::errorJson(e.get());
    }
    return out;
}

Found findResource(CliSession& cli, const char* className, const std::string& selection,
                   zn_resource_handle* out) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return Found::Failed;
    }
    px_enumerate_rsp_t* r = nullptr;
    if (px_enumerate_select(s, className, selection.c_str(), &r) != PX_OK) {
        cli.failCall();
        return Found::Failed;
    }
    RspPtr<px_enumerate_rsp_t> rsp(r);
    if (r->hdr.pr_error != nullptr) {
        cli.fail(r->hdr.pr_error);
        return Found::Failed;
    }
    if (r->handle_count == 0) {
        return Found::No;
    }
    *out = r->handles[0];
    return Found::Yes;
}

bool queryResources(CliSession& cli, const ResourceQuery& q, std::vector<ResourceValues>& out,
                    int* status) {
    if (cli.session() == nullptr) {
        return false;
    }
    RspPtr<px_resources_rsp_t> pers;
    RspPtr<px_resources_rsp_t> dyn;
    if (!queryKind(cli, px_query_persistent_attrs_select, px_query_persistent_attrs, q,
                   q.persistent, pers) ||
        !queryKind(cli, px_query_dynamic_attrs_select, px_query_dynamic_attrs, q, q.dynamic, dyn)) {
        return false;
    }
    std::map<std::string, size_t> index;
    for (const auto& rsp : {pers.get(), dyn.get()}) {
        if (rsp != nullptr) {
            merge(cli, rsp, out, index, status);
        }
    }
    std::string key = q.sortBy;
    std::stable_sort(out.begin(), out.end(),
                     [&key](const ResourceValues& a, const ResourceValues& b) {
                         return a.text(key) < b.text(key);
                     });
    return true;
}

}  // namespace orvctl
