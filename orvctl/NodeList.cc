// orvctl node ls: the nodes a selection picks, one line each (Hostname,
// Mode, Status, PowerStatus, addresses; wide: identity and hardware too),
// or every attribute as JSON.
#include "orvctl/NodeFind.h"
#include "orvctl/NodeWords.h"
#include "znpex/cli/Table.h"

namespace orvctl {
namespace {

struct Column {
    const char* header;
    const char* attr;
};

const Column kColumns[] = {
    {"NAME", "Hostname"},
    {"MODE", "Mode"},
    {"STATUS", "Status"},
    {"POWER", "PowerStatus"},
    {"ADDRESSES", "ConnectivityIPAddrs"},
};

const Column kWideColumns[] = {
    {"UNIVERSALID", "UniversalId"},
    {"HWTYPE", "HWType"},
    {"HWMODEL", "HWModel"},
    {"HWSERIAL", "HWSerialNum"},
    {"MGMTSERVER", "ManagementServer"},
    {"COMMENT", "UserComment"},
};

// What the table reads of each node.
const std::vector<std::string> kPersistent = {"Hostname", "Mode", "ConnectivityIPAddrs"};
const std::vector<std::string> kWidePersistent = {
    "Hostname", "Mode",        "ConnectivityIPAddrs", "UniversalId", "HWType",
    "HWModel",  "HWSerialNum", "ManagementServer",    "UserComment"};
const std::vector<std::string> kDynamic = {"Status", "PowerStatus"};

std::string cell(const NodeValues& n, const char* attr) {
    const zn::OwnedValue* v = n.find(attr);
    if (v == nullptr) {
        return n.errors.count(attr) != 0 ? "(error)" : "";
    }
    return attrText(attr, v->type(), v->value());
}

}  // namespace

int nodeList(CliSession& cli, const std::string& selection, bool wide) {
    bool json = cli.opts().json();
    const std::vector<std::string>& pers = wide ? kWidePersistent : kPersistent;
    int status = znpex::cli::kExitOk;
    std::vector<NodeValues> nodes;
    if (!queryNodes(cli, selection, json ? nullptr : &pers, json ? nullptr : &kDynamic, nodes,
                    &status)) {
        return znpex::cli::kExitFailed;
    }
    if (json) {
        znpex::proto::Json out = znpex::proto::Json::array();
        for (const auto& n : nodes) {
            out.push_back(n.json());
        }
        cli.out() << out.dump(2) << '\n';
        return status;
    }
    std::vector<std::string> header;
    for (const auto& c : kColumns) {
        header.emplace_back(c.header);
    }
    if (wide) {
        for (const auto& c : kWideColumns) {
            header.emplace_back(c.header);
        }
    }
    znpex::cli::Table table(header);
    for (const auto& n : nodes) {
        std::vector<std::string> row;
        for (const auto& c : kColumns) {
            row.push_back(cell(n, c.attr));
        }
        if (wide) {
            for (const auto& c : kWideColumns) {
                row.push_back(cell(n, c.attr));
            }
        }
        table.add(std::move(row));
    }
    table.print(cli.out());
    return status;
}

}  // namespace orvctl
