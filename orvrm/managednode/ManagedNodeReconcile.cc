// The start-up check of the node and interface tables. A node and its
// interfaces are separate commits, so a crash can fall between them: after
// a define, the node lacks interfaces; after a rename or a change of id or
// addresses, interfaces of the old state remain. Undefine removes the
// interfaces before the node, so a crash there leaves a whole node behind.
// Interfaces of names no node ever had (a client defined them) are kept.
#include <cstring>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf2v/RMRmcp.h"

namespace orvrm {
namespace {

struct NodeFacts {
    uint64_t universalId = 0;
    std::set<std::string> addresses;
};

std::string textAt(const tarn_rmf::RMRowSet& rows, unsigned r, int col) {
    return col < 0 ? std::string()
                   : std::string(rows.viewField(r, static_cast<unsigned>(col)).text());
}

uint64_t numberAt(const tarn_rmf::RMRowSet& rows, unsigned r, int col) {
    return col < 0 ? 0 : rows.viewField(r, static_cast<unsigned>(col)).num.u;
}

}  // namespace

void ManagedNodeRccp::reconcileInterfaces() {
    MNNetworkInterfaceRccp* netif = interfaces();
    if (netif == nullptr || netif->resourceTable() == nullptr) {
        return;
    }
    std::unordered_map<std::string, NodeFacts> nodes;
    std::unordered_map<uint64_t, std::string> byId;
    tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
    int hostCol = rows.getColumnIndex("Hostname");
    int idCol = rows.getColumnIndex("UniversalId");
    int addrCol = rows.getColumnIndex("ConnectivityIPAddrs");
    for (unsigned r = 0; r < rows.getRowCount(); ++r) {
        NodeFacts f;
        f.universalId = numberAt(rows, r, idCol);
        tarn_rmf::RMArrayCursor cursor(rows.viewField(r, static_cast<unsigned>(addrCol)));
        for (tarn_rmf::RMValueView a; cursor.next(a);) {
            if (!a.isNull && a.data != nullptr) {
                f.addresses.emplace(a.text());
            }
        }
        std::string host = textAt(rows, r, hostCol);
        if (f.universalId != 0) {
            byId.emplace(f.universalId, host);
        }
        nodes.emplace(std::move(host), std::move(f));
    }

    // Which interfaces stay, which go.
    std::set<std::pair<std::string, std::string>> present;  // node, address
    std::vector<zn_resource_handle> stale;
    tarn_rmf::RMRowSet ifaces = netif->resourceTable()->getMetadata();
    int handleCol = ifaces.getColumnIndex("ResourceHandle");
    int nameCol = ifaces.getColumnIndex("Name");
    int uidCol = ifaces.getColumnIndex("UniversalId");
    int ipCol = ifaces.getColumnIndex("IPAddress");
    for (unsigned r = 0; r < ifaces.getRowCount(); ++r) {
        std::string name = textAt(ifaces, r, nameCol);
        uint64_t uid = numberAt(ifaces, r, uidCol);
        std::string address = textAt(ifaces, r, ipCol);
        auto node = nodes.find(name);
        bool remove = false;
        if (node != nodes.end()) {
            // A node with an id owns the interfaces under its name: exactly
            // one per address it lists, with its id.
            remove = node->second.universalId != 0 && (uid != node->second.universalId ||
                                                       node->second.addresses.count(address) == 0 ||
                                                       !present.emplace(name, address).second);
        } else {
            // Made for a node that has since taken another name.
            remove = uid != 0 && byId.count(uid) != 0;
        }
        tarn_rmf::RMValueView h = ifaces.viewField(r, static_cast<unsigned>(handleCol));
        if (remove && !h.isNull && h.data != nullptr) {
            zn_resource_handle handle{};
            std::memcpy(handle.bytes, h.data, sizeof handle.bytes);
            stale.push_back(handle);
        }
    }
    for (const zn_resource_handle& h : stale) {
        tarn_rmf::RMSelParams p;
        p.setHandle("RH", h);
        netif->removeResource("ResourceHandle == $RH", &p);
    }

    unsigned made = 0;
    for (const auto& [host, facts] : nodes) {
        if (facts.universalId == 0) {
            continue;
        }
        for (const std::string& address : facts.addresses) {
            if (present.count({host, address}) == 0) {
                netif->createResource(host.c_str(), facts.universalId, address.c_str());
                getRmcp()->sendPEXMessage(2, 0, nullptr, 0);
                ++made;
            }
        }
    }
    if (!stale.empty() || made != 0) {
        orvrminfo_trace(
            "ManagedNodeRccp: the interfaces were brought in line with the nodes: "
            "%zu removed, %u made",
            stale.size(), made);
    }
}

}  // namespace orvrm
