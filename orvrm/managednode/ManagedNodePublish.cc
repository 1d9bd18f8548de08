// Publication of the managed nodes to the distributed-information node
// table: one node added, changed or removed as it happens, and the whole
// table 20 seconds after start and whenever the link to the service was
// lost ("InitDPEXInfo"). Every publication holds the control point's
// distributed-information mutex. A node is published under its universal
// id with its names (the host name, the resolver's official name and
// aliases) and addresses (its ConnectivityIPAddrs, else the resolver's); a
// node whose name does not resolve is left out.
#include <cstdlib>
#include <mutex>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "znpex/di/di_table.h"

namespace orvrm {
namespace {

bool refreshed(int rc) {
    return rc == DI_OK || rc == DI_EPARTIAL;
}

// A node's names and addresses; false when its name does not resolve or it
// has no address. The caller frees `ids` (freeHostIdsContent) either way.
bool gatherIds(const char* hostname, const zn_array* given, HostIdList* ids) {
    zn_value_t list{};
    list.ptr_array = const_cast<zn_array*>(given);
    NodePEXIface pex;
    return pex.getNameAndIpAddrList(hostname, list, ids) == 0 && ids->numIpAddrs > 0;
}

}  // namespace

int ManagedNodeRccp::updatePEXNodeInfo(di_table_op_t op, uint64_t nodeId, const char* hostname,
                                       char** names, unsigned int nameCount, char** addresses,
                                       unsigned int addressCount) {
    std::unique_lock<std::mutex> g(orvrmcp_->diMutex());
    di_table_t table = nullptr;
    int rc = di_init_table_1(op, &table);
    if (rc != DI_OK) {
        g.unlock();
        orvrminfo_trace("updatePEXNodeInfo::di_init_table err rc %d", rc);
        return rc;
    }
    rc = di_mn_table_entry_1(table, nodeId, hostname, names, nameCount, addresses, addressCount);
    if (rc != DI_OK) {
        g.unlock();
        orvrminfo_trace("updatePEXNodeInfo::di_mn_table_entry err rc %d", rc);
        di_free_table_1(table);
        return rc;
    }
    rc = di_refresh_table_1(table);
    if (refreshed(rc)) {
        rc = 0;  // 8: applied here, the other hosts catch up
    } else {
        orvrminfo_trace("updatePEXNodeInfo::di_refresh_table err rc %d", rc);
    }
    di_free_table_1(table);
    return rc;
}

int ManagedNodeRccp::sendAllManagedNodesPEXD() {
    // The rows first, then the names, without the class lock: resolving may
    // take a while, and a change meanwhile publishes itself.
    struct Node {
        std::string hostname;
        uint64_t id;
        zn::OwnedValue addresses;
    };
    std::vector<Node> all;
    {
        tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
        int hostCol = rows.getColumnIndex("Hostname");
        int idCol = rows.getColumnIndex("UniversalId");
        for (unsigned r = 0; r < rows.getRowCount(); ++r) {
            tarn_rmf::RMValueView host = rows.viewField(r, static_cast<unsigned>(hostCol));
            if (host.isNull || host.data == nullptr) {
                continue;
            }
            tarn_rmf::RMValueView id = rows.viewField(r, static_cast<unsigned>(idCol));
            all.push_back(
                Node{std::string(host.text()), id.num.u,
                     zn::OwnedValue(ZN_CHAR_PTR_ARRAY, rows.getField(r, "ConnectivityIPAddrs"))});
        }
    }
    std::lock_guard<std::mutex> g(orvrmcp_->diMutex());
    di_table_t table = nullptr;
    int rc = di_init_table_1(DI_TABLE_ADD, &table);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllManagedNodesPEXD::di_init_table node err rc %d", rc);
        return rc;
    }
    rc = di_mn_null_table_1(table);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllManagedNodesPEXD::di_mn_null_table err rc %d", rc);
        di_free_table_1(table);
        return rc;
    }
    for (const Node& n : all) {
        HostIdList ids;
        if (!gatherIds(n.hostname.c_str(), n.addresses.value().ptr_array, &ids)) {
            orvrminfo_trace("sendAllManagedNodesPEXD::Invalid Hostname or IpAddr");
            NodePEXIface::freeHostIdsContent(ids);
            continue;
        }
        rc = di_mn_table_entry_1(table, n.id, n.hostname.c_str(), ids.names,
                                 static_cast<unsigned>(ids.numNames), ids.ipAddrs,
                                 static_cast<unsigned>(ids.numIpAddrs));
        NodePEXIface::freeHostIdsContent(ids);
        if (rc != DI_OK) {
            orvrminfo_trace("sendAllManagedNodesPEXD::di_mn_table_entry node err rc %d", rc);
            di_free_table_1(table);
            return rc;
        }
    }
    rc = di_refresh_table_1(table);
    di_free_table_1(table);
    if (!refreshed(rc)) {
        orvrminfo_trace(
            "sendAllManagedNodesPEXD::di_refresh_table node err                        rc %d", rc);
        return rc;
    }
    return 0;
}

int ManagedNodeRccp::publishNode(di_table_op_t op, const char* hostname, const char* invalidTrace) {
    ManagedNodeRcp* node = getRcpByHostname(hostname);
    if (node == nullptr) {
        return -1;
    }
    uint64_t id = node->getHostUniversalId();
    zn_value_t given{};
    given.ptr_array = node->getConnectivityIPAddrs();
    zn::OwnedValue addresses(ZN_CHAR_PTR_ARRAY, given);
    node->unreserve();
    HostIdList ids;
    int rc = -1;
    if (!gatherIds(hostname, given.ptr_array, &ids)) {
        orvrminfo_trace("%s", invalidTrace);
    } else {
        rc = updatePEXNodeInfo(op, id, hostname, ids.names, static_cast<unsigned>(ids.numNames),
                               ids.ipAddrs, static_cast<unsigned>(ids.numIpAddrs));
    }
    NodePEXIface::freeHostIdsContent(ids);
    return rc;
}

int ManagedNodeRccp::addNodePEXD(const char* hostname) {
    return publishNode(DI_TABLE_ADD, hostname, "addNodePEXD::Invalid Hostname or IpAddr");
}

int ManagedNodeRccp::removeNodePEXD(const char* hostname) {
    orvrminfo_trace("removeNodePEXD::Removing node %s", hostname != nullptr ? hostname : "");
    return updatePEXNodeInfo(DI_TABLE_REMOVE, 0, hostname, nullptr, 0, nullptr, 0);
}

int ManagedNodeRccp::updateNodePEXD(const char* oldHostname, uint64_t, const char* newHostname,
                                    uint64_t) {
    // The table's key is the host name: a renamed node leaves its old row.
    if (oldHostname != nullptr && newHostname != nullptr &&
        std::string(oldHostname) != newHostname) {
        removeNodePEXD(oldHostname);
    }
    return publishNode(DI_TABLE_UPDATE, newHostname, "updateNodePEXD::Invalid Hostname or IpAddr");
}

}  // namespace orvrm
