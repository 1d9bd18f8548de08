// The reading commands: classes, list and status.
#include <map>

#include "znpex/cli/Commands.h"
#include "znpex/cli/Table.h"
#include "znpex/cli/ValueText.h"
#include "znpex/client/Responses.h"
#include "znpex/client/Session.h"
#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::cli {
namespace {

using proto::Json;
using tarn_rmf2v::RMActionDef;
using tarn_rmf2v::RMAttrDef;

void addAttrRows(Table& t, const char* kind, const std::vector<RMAttrDef>& list) {
    for (const auto& a : list) {
        t.add({kind, a.name, std::to_string(a.id), typeLabel(a.type)});
    }
}

void addActionRows(Table& t, const char* kind, const std::vector<RMActionDef>& list) {
    for (const auto& a : list) {
        std::string input;
        for (zn_data_type_t in : a.input) {
            if (!input.empty()) {
                input += ',';
            }
            input += typeLabel(in);
        }
        t.add({kind, a.name, std::to_string(a.id), input});
    }
}

// Flattens a status object into "path  value" rows.
void flatten(const Json& j, const std::string& path, Table& t) {
    if (j.is_object()) {
        for (auto it = j.begin(); it != j.end(); ++it) {
            flatten(it.value(), path.empty() ? it.key() : path + "." + it.key(), t);
        }
    } else if (j.is_array()) {
        for (size_t i = 0; i < j.size(); ++i) {
            flatten(j[i], path + "[" + std::to_string(i) + "]", t);
        }
    } else {
        t.add({path, j.is_string() ? j.get<std::string>() : proto::dumpJson(j)});
    }
}

// The value of attribute `name` in one resource's entry, or null.
const px_attr_value_t* findValue(const px_resources_rsp_t* rsp, size_t i, const std::string& name) {
    if (rsp == nullptr || i >= rsp->resource_count) {
        return nullptr;
    }
    const px_resource_rsp_t& e = rsp->resources[i];
    for (uint32_t k = 0; k < e.attr_count; ++k) {
        if (name == e.attrs[k].pv_name) {
            return &e.attrs[k];
        }
    }
    return nullptr;
}

}  // namespace

int cmdClasses(CliSession& cli) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    std::vector<proto::ClassInfo> classes;
    if (client::listClasses(*s, classes) != PX_OK) {
        return cli.failCall();
    }
    if (cli.opts().json()) {
        Json out = Json::array();
        for (const auto& c : classes) {
            out.push_back(proto::encodeClassInfo(c));
        }
        cli.out() << out.dump(2) << '\n';
        return kExitOk;
    }
    for (size_t i = 0; i < classes.size(); ++i) {
        const auto& c = classes[i];
        cli.out() << (i > 0 ? "\n" : "") << c.def.name << " (resource manager " << c.rm << ", "
                  << (c.connected ? "connected" : "not connected") << ")\n";
        Table t({"  KIND", "NAME", "ID", "TYPE"});
        addAttrRows(t, "  class persistent", c.def.classPersistent);
        addAttrRows(t, "  class dynamic", c.def.classDynamic);
        addAttrRows(t, "  persistent", c.def.persistent);
        addAttrRows(t, "  dynamic", c.def.dynamic);
        addActionRows(t, "  class action", c.def.classActions);
        addActionRows(t, "  action", c.def.actions);
        t.print(cli.out());
    }
    return kExitOk;
}

int cmdList(CliSession& cli, const ListArgs& args) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    std::vector<std::string> pers, dyn;
    if (args.attrs.empty()) {
        for (const auto& a : def.persistent) {
            pers.push_back(a.name);
        }
        if (args.dynamic) {
            for (const auto& a : def.dynamic) {
                dyn.push_back(a.name);
            }
        }
    }
    for (const auto& name : args.attrs) {
        if (proto::findAttr(def.persistent, name) != nullptr) {
            pers.push_back(name);
        } else if (proto::findAttr(def.dynamic, name) != nullptr) {
            dyn.push_back(name);
        } else {
            return cli.usage("the class " + def.name + " has no attribute named " + name);
        }
    }
    px_session_t s = cli.session();
    px_enumerate_rsp_t* found = nullptr;
    if (px_enumerate_select(s, args.className.c_str(), args.selection.c_str(), &found) != PX_OK) {
        return cli.failCall();
    }
    client::RspPtr<px_enumerate_rsp_t> enumerated(found);
    if (found->hdr.pr_error != nullptr) {
        return cli.fail(found->hdr.pr_error);
    }
    auto query = [&](auto fn, const std::vector<std::string>& names,
                     client::RspPtr<px_resources_rsp_t>& out) {
        if (names.empty() || found->handle_count == 0) {
            return PX_OK;
        }
        std::vector<const char*> cnames;
        for (const auto& n : names) {
            cnames.push_back(n.c_str());
        }
        px_resources_rsp_t* r = nullptr;
        int rc = fn(s, args.className.c_str(), found->handles, found->handle_count, cnames.data(),
                    static_cast<uint32_t>(cnames.size()), &r);
        out.reset(r);
        return rc;
    };
    client::RspPtr<px_resources_rsp_t> persRsp, dynRsp;
    if (query(px_query_persistent_attrs, pers, persRsp) != PX_OK ||
        query(px_query_dynamic_attrs, dyn, dynRsp) != PX_OK) {
        return cli.failCall();
    }
    for (const auto* rsp : {persRsp.get(), dynRsp.get()}) {
        if (rsp != nullptr && rsp->hdr.pr_error != nullptr) {
            return cli.fail(rsp->hdr.pr_error);
        }
    }
    int status = kExitOk;
    std::vector<std::string> columns = pers;
    columns.insert(columns.end(), dyn.begin(), dyn.end());
    std::vector<std::string> header{"HANDLE"};
    header.insert(header.end(), columns.begin(), columns.end());
    Table table(header);
    Json json = Json::array();
    for (uint32_t i = 0; i < found->handle_count; ++i) {
        std::string handle = proto::handleToHex(found->handles[i]);
        std::vector<std::string> row{handle};
        Json entry{{"handle", handle}};
        Json attrs = Json::object();
        for (const auto* rsp : {persRsp.get(), dynRsp.get()}) {
            if (rsp != nullptr && i < rsp->resource_count && rsp->resources[i].error != nullptr) {
                cli.printError(rsp->resources[i].error, handle);
                entry["error"] = CliSession::errorJson(rsp->resources[i].error);
                status = kExitFailed;
            }
        }
        for (const auto& name : columns) {
            const px_attr_value_t* v = findValue(persRsp.get(), i, name);
            if (v == nullptr) {
                v = findValue(dynRsp.get(), i, name);
            }
            if (v == nullptr) {
                row.push_back("");
                continue;
            }
            if (v->pv_error != nullptr) {
                cli.printError(v->pv_error, handle + " " + name);
                entry["errors"][name] = CliSession::errorJson(v->pv_error);
                status = kExitFailed;
                row.push_back("(error)");
                continue;
            }
            row.push_back(formatValue(v->pv_type, v->pv_value));
            attrs[name] = proto::encodeBareValue(v->pv_type, v->pv_value);
        }
        table.add(std::move(row));
        entry["attributes"] = std::move(attrs);
        json.push_back(std::move(entry));
    }
    if (cli.opts().json()) {
        cli.out() << json.dump(2) << '\n';
    } else {
        table.print(cli.out());
    }
    return status;
}

int cmdStatus(CliSession& cli) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    Json result;
    if (client::call(*s, proto::kServiceStatus, Json::object(), result) != PX_OK) {
        return cli.failCall();
    }
    if (cli.opts().json()) {
        cli.out() << result.dump(2) << '\n';
        return kExitOk;
    }
    Table t({"ITEM", "VALUE"});
    flatten(result, "", t);
    t.print(cli.out());
    return kExitOk;
}

}  // namespace znpex::cli
