// The class control point of "Kor.MNNetworkInterface": the interfaces of the
// managed nodes, one per address, kept in step with their nodes by the
// managed-node class (createResource, updateResources, removeResource) and
// given each address's reachability by heartbeat reports (setHeartbeat).
// Clients read the class; a client's define takes the same creation path.
#pragma once

#include <cstdint>

#include "orvrm/HeartbeatTargets.h"
#include "orvrm/OrvTableRccp.h"
#include "tarn_rmf/registry/RMSelParams.h"

class ORVRMRmcp;

namespace orvrm {

class MNNetworkInterfaceRccp : public OrvTableRccp, public InterfaceHeartbeatTarget {
public:
    MNNetworkInterfaceRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp);

    // Defines one interface from the given values. Returns a new copy of its
    // handle (the caller frees it), or null with *err set (the caller owns it).
    zn_resource_handle* createResource(zn_structured_data* options, rm_attribute_value* values,
                                       unsigned int count, cu_error_t** err);
    // The same from a node's host name, universal id and one address; the
    // handle and any error are dropped.
    void createResource(const char* hostname, uint64_t universalId, const char* address);
    // Removes every interface the selection matches (a selection that matches
    // nothing removes and reports nothing).
    using RMTableRccp::removeResource;
    void removeResource(const char* selection, const tarn_rmf::RMSelParams* params = nullptr);
    // Brings a node's interfaces in line with a change of the node: its host
    // name, universal id and address list (null: not given; an array of no
    // elements: none). Nothing happens without the old name.
    void updateResources(const char* oldName, const char* newName, uint64_t oldId, uint64_t newId,
                         const zn_array* oldList, const zn_array* newList);
    // Sets "Status" of every interface with this address.
    void setHeartbeat(char* address, unsigned int state) override;

    void defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp, zn_structured_data* options,
                        rm_attribute_value* values, unsigned int count) override;

protected:
    tarn_rmf2v::RMTableRcp* makeRcp(const zn_resource_handle& handle,
                                    unsigned int variety) override;

private:
    // Creates one interface per address and tells the other servers after each.
    void createAll(const char* name, uint64_t universalId,
                   const std::vector<std::string>& addresses);
};

}  // namespace orvrm
