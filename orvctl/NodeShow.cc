// orvctl node show NAME: every persistent attribute of the node and its
// dynamic ones, in the class's order, one per line (or as JSON).
#include "orvctl/NodeFind.h"
#include "orvctl/NodeWords.h"
#include "znpex/cli/Table.h"

namespace orvctl {

int nodeShow(CliSession& cli, const std::string& name) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(kNodeClass, def)) {
        return znpex::cli::kExitFailed;
    }
    int status = znpex::cli::kExitOk;
    std::vector<NodeValues> nodes;
    if (!queryNodes(cli, nameSelection(name), nullptr, nullptr, nodes, &status)) {
        return znpex::cli::kExitFailed;
    }
    if (nodes.empty()) {
        return cli.failMessage(noNodeNamed(name));
    }
    const NodeValues& node = nodes.front();
    if (cli.opts().json()) {
        cli.out() << node.json().dump(2) << '\n';
        return status;
    }
    znpex::cli::Table table({"ATTRIBUTE", "VALUE"});
    for (const auto* list : {&def.persistent, &def.dynamic}) {
        for (const auto& a : *list) {
            const zn::OwnedValue* v = node.find(a.name);
            if (v != nullptr) {
                table.add({a.name, attrText(a.name, v->type(), v->value())});
            } else if (node.errors.count(a.name) != 0) {
                table.add({a.name, "(error)"});
            }
        }
    }
    table.print(cli.out());
    return status;
}

}  // namespace orvctl
