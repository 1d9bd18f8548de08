// The straightforward expansion: every group read back from the group table
// by name, selections queried against the node table, work lists kept as
// linked lists without duplicates. Expansion::Rescan recomputes this way;
// it is the measure the indexed recomputation is held to.
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf/registry/RMSelParams.h"

namespace orvrm {
namespace {

// Appends a copy of `s` unless the list holds it; a list still empty is
// started with it. False when memory runs out.
bool addUnique(strent** list, const char* s) {
    if (*list == nullptr) {
        *list = createstrent(s);
        return *list != nullptr;
    }
    return addstrifuniqtolist(s, *list) >= 0;
}

}  // namespace

int NodeGroupRccp::getandAddMembersToLst(const char* name, strent** groups, strent** nodeList,
                                         int live) {
    tarn_rmf::RMSelParams p;
    p.setString("N", name != nullptr ? name : "");
    tarn_rmf::RMRowSet rows = resourceTable()->select("Name == $N", &p);
    if (rows.getRowCount() != 1) {
        return -1;
    }
    auto view = [&](const char* column) {
        return rows.viewField(0, static_cast<unsigned>(rows.getColumnIndex(column)));
    };
    for (const std::string& m : namesOf(view("MemberList"))) {
        bool ok = !m.empty() && m[0] == kNgGroupPrefix ? addUnique(groups, m.c_str() + 1)
                                                       : addUnique(nodeList, m.c_str());
        if (!ok) {
            return -1;
        }
    }
    std::string select(view("SelectStr").text());
    if (!select.empty()) {
        NameList names;
        if (live != 0) {
            ManagedNodeRccp* mn = nodes();
            try {
                if (mn != nullptr) {
                    names = mn->selectStrMembers(select.c_str());
                }
            } catch (const std::exception& e) {
                orvrminfo_trace("getandAddMembersToLst: %s", e.what());
                return -1;
            }
        } else {
            names = namesOf(view("ExpMemberList"));
        }
        for (const std::string& n : names) {
            if (!addUnique(nodeList, n.c_str())) {
                return -1;
            }
        }
    }
    return 1;
}

bool NodeGroupRccp::expandRescan(const GroupRecord& g, bool live, NameList& out) {
    out.clear();
    strent* groups = nullptr;
    strent* nodeList = nullptr;
    int rc = getandAddMembersToLst(g.name.c_str(), &groups, &nodeList, live ? 1 : 0);
    // The list grows at its tail while it is walked.
    for (strent* e = groups; rc == 1 && e != nullptr; e = e->next) {
        rc = getandAddMembersToLst(e->str, &groups, &nodeList, 0);
    }
    for (strent* e = nodeList; rc == 1 && e != nullptr; e = e->next) {
        out.emplace_back(e->str);
    }
    freestrlst(groups);
    freestrlst(nodeList);
    return rc == 1;
}

int NodeGroupRccp::cyclicRescan(const char* group, const char* candidate) {
    strent* groups = createstrent(candidate);
    if (groups == nullptr) {
        return -1;
    }
    strent* nodeList = nullptr;
    int rc = 1;
    for (strent* e = groups; rc == 1 && e != nullptr; e = e->next) {
        rc = getandAddMembersToLst(e->str, &groups, &nodeList, 0);
    }
    int cyclic = rc != 1 ? -1 : (group != nullptr && checkstrinlist(group, groups) != 0 ? 1 : 0);
    freestrlst(groups);
    freestrlst(nodeList);
    return cyclic;
}

}  // namespace orvrm
