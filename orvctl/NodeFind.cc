#include "orvctl/NodeFind.h"

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
void merge(CliSession& cli, const px_resources_rsp_t* rsp, std::vector<NodeValues>& out,
           std::map<std::string, size_t>& index, int* status) {
    for (uint32_t i = 0; i < rsp->resource_count; ++i) {
        const px_resource_rsp_t& e = rsp->resources[i];
        auto [at, added] = index.emplace(handleKey(e.handle), out.size());
        if (added) {
            out.emplace_back();
            out.back().handle = e.handle;
        }
        NodeValues& node = out[at->second];
        std::string who = znpex::proto::handleToHex(e.handle);
        if (e.error != nullptr) {
            cli.printError(e.error, who);
            *status = znpex::cli::kExitFailed;
        }
        for (uint32_t k = 0; k < e.attr_count; ++k) {
            const px_attr_value_t& a = e.attrs[k];
            if (a.pv_error != nullptr) {
                cli.printError(a.pv_error, who + " " + a.pv_name);
                node.errors[a.pv_name] = zn::copyError(a.pv_error);
                *status = znpex::cli::kExitFailed;
                continue;
            }
            node.values.insert_or_assign(a.pv_name, zn::OwnedValue::copyOf(a.pv_type, a.pv_value));
        }
    }
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

std::string nameSelection(const std::string& name) {
    return "Hostname==" + selectionLiteral(name);
}

std::string noNodeNamed(const std::string& name) {
    return "no node named " + name;
}

const zn::OwnedValue* NodeValues::find(const std::string& name) const {
    auto it = values.find(name);
    return it == values.end() ? nullptr : &it->second;
}

std::string NodeValues::hostname() const {
    const zn::OwnedValue* v = find("Hostname");
    return v != nullptr && v->type() == ZN_CHAR_PTR && v->value().ptr_char != nullptr
               ? v->value().ptr_char
               : "";
}

znpex::proto::Json NodeValues::json() const {
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

Found findNode(CliSession& cli, const std::string& name, zn_resource_handle* out) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return Found::Failed;
    }
    px_enumerate_rsp_t* r = nullptr;
    if (px_enumerate_select(s, kNodeClass, nameSelection(name).c_str(), &r) != PX_OK) {
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

bool queryNodes(CliSession& cli, const std::string& selection,
                const std::vector<std::string>* persistent, const std::vector<std::string>* dynamic,
                std::vector<NodeValues>& out, int* status) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return false;
    }
    std::vector<const char*> pers = cnames(persistent);
    std::vector<const char*> dyn = cnames(dynamic);
    px_resources_rsp_t* p = nullptr;
    if (px_query_persistent_attrs_select(s, kNodeClass, selection.c_str(), pers.data(),
                                         static_cast<uint32_t>(pers.size()), &p) != PX_OK) {
        cli.failCall();
        return false;
    }
    RspPtr<px_resources_rsp_t> persRsp(p);
    px_resources_rsp_t* d = nullptr;
    if (px_query_dynamic_attrs_select(s, kNodeClass, selection.c_str(), dyn.data(),
                                      static_cast<uint32_t>(dyn.size()), &d) != PX_OK) {
        cli.failCall();
        return false;
    }
    RspPtr<px_resources_rsp_t> dynRsp(d);
    for (const px_resources_rsp_t* rsp : {p, d}) {
        if (rsp->hdr.pr_error != nullptr) {
            cli.fail(rsp->hdr.pr_error);
            return false;
        }
    }
    std::map<std::string, size_t> index;
    merge(cli, p, out, index, status);
    merge(cli, d, out, index, status);
    std::stable_sort(out.begin(), out.end(), [](const NodeValues& a, const NodeValues& b) {
        return a.hostname() < b.hostname();
    });
    return true;
}

}  // namespace orvctl
