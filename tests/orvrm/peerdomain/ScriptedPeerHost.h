// The managers a node's host runs for peer domains and management-server
// records, scripted for tests: "Kor.PeerDomain", "Kor.PeerNode" and
// "Kor.ManagementServer" served by the resource-manager framework over a
// real service's socket, resources kept in a registry of their own (so
// selections are the registry's), states set by the test, and every
// operation that reached them recorded in order ("PeerDomain.online",
// "DoPreprpnode 127.0.0.1", ...). Queries can be made to fail (a host that
// answers with errors) or to stall (a host that never answers in time).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"

namespace peerdomaintest {

class ScriptedRmcp;

class ScriptedPeerHost {
public:
    // A manager on the service at `socketPath` acting for the host whose
    // state root is `hostRoot` (its node id stamps the handles, so requests
    // naming them are routed to that host), its registry at `treeDir` under
    // that root.
    ScriptedPeerHost(const std::string& socketPath, const std::string& hostRoot,
                     const std::string& treeDir);
    ~ScriptedPeerHost();
    // False when it did not register in time.
    bool start();

    // The host's one peer domain, and its peer nodes in order.
    void setDomain(const std::string& name, uint32_t opState);
    void addPeerNode(const std::string& name, uint32_t opState);
    // A management-server record listing `nodes`, answering "SyncData" with
    // a leading element and (attribute id, value) pairs.
    void addRecord(const std::string& msHostname, const std::vector<std::string>& nodes,
                   zn::SdPtr syncReply);

    // A domain defined here is made known to these hosts' managers under
    // the same handle, as a domain is known on every node it names.
    void mirrorDomainsTo(std::vector<ScriptedPeerHost*> hosts);
    void adoptDomain(const zn_resource_handle& handle, const std::string& name);

    // Queries are answered with an error / after `stallMs` milliseconds.
    void failQueries(bool fail);
    void stallQueries(int stallMs);

    std::vector<std::string> calls() const;
    // Whether an operation starting with `prefix` was recorded.
    bool called(const std::string& prefix) const;
    std::vector<std::string> peerNodes() const;

private:
    std::unique_ptr<ScriptedRmcp> rmcp_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
};

}  // namespace peerdomaintest
