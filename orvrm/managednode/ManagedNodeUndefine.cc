// Undefining nodes with their whole cascade: interfaces, row, reachability
// poller, node groups, and the clients that watch.
#include <cstdlib>

#include "orvrm/NodeGroupHooks.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/netif/MNNetworkInterfaceRccp.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

cu_error_t* unknownHandle() {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(tarn_rmf::RM_EINVALIDHANDLE, nullptr, &e, "undefineResource");
    return e;
}

}  // namespace

cu_error_t* ManagedNodeRccp::undefineOne(ManagedNodeRcp* rcp) {
    char* hostname = rcp->getHostName();
    uint64_t universalId = rcp->getHostUniversalId();
    zn_array* addresses = rcp->getConnectivityIPAddrs();
    MNNetworkInterfaceRccp* netif = interfaces();
    if (netif != nullptr && hostname != nullptr) {
        tarn_rmf::RMSelParams p;
        p.setString("N", hostname);
        netif->removeResource("Name == $N", &p);
    }
    cu_error_t* err = nullptr;
    try {
        orvrminfo_trace("Removing node %s", hostname != nullptr ? hostname : "");
        removeResource(static_cast<tarn_rmf2v::RMTableRcp*>(rcp));
    } catch (std::exception& e) {
        err = tarn_rmf::RMMapExceptionToError(e);
        orvrmlog_error("ManagedNodeRccp::removeResource", err);
        // The node stays: it gets its interfaces back.
        createInterfaces(hostname, universalId, addresses);
    }
    if (err == nullptr && hostname != nullptr) {
        poller_->removeHost(hostname);
        if (partitions_ != nullptr) {
            partitions_->removeHost(hostname);
        }
        if (NodeGroupHooks* groups = nodeGroups()) {
            groups->nodeDelOrChangeCB(hostname, nullptr);
        }
        removeNodePEXD(hostname);
    }
    std::free(hostname);
    if (addresses != nullptr) {
        zn_value_t v{};
        v.ptr_array = addresses;
        zn_value_free(ZN_CHAR_PTR_ARRAY, v);
    }
    return err;
}

void ManagedNodeRccp::undefineResources(tarn_rmf2v::RMUndefineResourcesResponse* rsp,
                                        zn_structured_data*, zn_resource_handle* handles,
                                        unsigned int count) {
    tarn_rmf2v::lockRccp guard(this);
    std::vector<zn_resource_handle> gone;
    for (unsigned int i = 0; handles != nullptr && i < count; ++i) {
        auto* rcp = dynamic_cast<ManagedNodeRcp*>(findRcpByHandle(&handles[i]));
        zn::ErrorPtr err(rcp == nullptr ? unknownHandle() : undefineOne(rcp));
        if (rcp == nullptr) {
            orvrminfo_trace("undefineResource: no node has this handle");
        }
        rsp->result(&handles[i], err.get());
        if (!err) {
            gone.push_back(handles[i]);
        }
    }
    rsp->done(nullptr);
    if (!gone.empty()) {
        notifyUndefined(gone);
        for (size_t i = 0; i < gone.size(); ++i) {
            reportClassEvent("ResourceUndefined");
        }
    }
}

cu_error_t* ManagedNodeRccp::removeResource(zn_resource_handle handle, unsigned int) {
    tarn_rmf2v::lockRccp guard(this);
    auto* rcp = dynamic_cast<ManagedNodeRcp*>(findRcpByHandle(&handle));
    if (rcp == nullptr) {
        orvrminfo_trace("undefineResource: no node has this handle");
        return unknownHandle();
    }
    cu_error_t* err = undefineOne(rcp);
    if (err == nullptr) {
        notifyUndefined({handle});
        reportClassEvent("ResourceUndefined");
    }
    return err;
}

}  // namespace orvrm
