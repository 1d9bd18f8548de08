// Pairing two nodes that serve one storage facility image into a two-node
// peer domain: find the pair, ask each for its status, then prepare,
// create, start, repair or synchronise as the two codes require.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"

namespace orvrm {
namespace {

std::string byId(const char* op, uint64_t id) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "UniversalId%s0x%016" PRIx64, op, id);
    return buf;
}

bool filled(const char* s) {
    return s != nullptr && *s != '\0';
}

// The node's host name and one text column, or empty texts when there is no node.
std::string hostOf(ManagedNodeRcp* node) {
    char* h = node->getHostName();
    std::string out = h != nullptr ? h : "";
    std::free(h);
    return out;
}

}  // namespace

void freePeerDomainInfo(PeerDomainInfo* info) {
    if (info == nullptr) {
        return;
    }
    for (char* s : {info->imageId, info->domainName, info->host1, info->host2}) {
        std::free(s);
    }
    delete info;
}

int ManagedNodeRccp::getPeerNodeData(uint64_t nodeId, PeerDomainInfo** out) {
    orvrminfo_trace("Entering ManagedNodeRccp::getPeerNodeData");
    *out = new PeerDomainInfo();
    std::string first = byId("==", nodeId);
    ManagedNodeRcp* node = getFirstRcpMatchSlctStr(first.c_str());
    if (node == nullptr) {
        orvrminfo_trace("Leaving ManagedNodeRccp::getPeerNodeData");
        return -1;
    }
    std::string host1 = hostOf(node);
    zn::OwnedValue image = node->getAttrValue(kMnStorageFacilityImageID);
    node->unreserve();
    std::string imageId = image.type() == ZN_CHAR_PTR && image.value().ptr_char != nullptr
                              ? image.value().ptr_char
                              : "";
    std::string partnerSel =
        imageId.empty() ? first
                        : byId("!=", nodeId) + " && StorageFacilityImageID==\"" + imageId + "\"";
    ManagedNodeRcp* partner = getFirstRcpMatchSlctStr(partnerSel.c_str());
    if (partner == nullptr) {
        orvrminfo_trace("Leaving ManagedNodeRccp::getPeerNodeData");
        return -1;
    }
    std::string host2 = hostOf(partner);
    partner->unreserve();

    int result = -1;
    PeerDomainInfo* info = *out;
    if (filled(host1.c_str()) && filled(imageId.c_str()) && filled(host2.c_str())) {
        info->imageId = strdup(imageId.c_str());
        info->host1 = strdup(host1.c_str());
        info->host2 = strdup(host2.c_str());
        NodePEXIface iface;
        char* name1 = nullptr;
        char* name2 = nullptr;
        info->status1 = iface.getPeerDomainStatus(info->host1, &name1);
        info->status2 = iface.getPeerDomainStatus(info->host2, &name2);
        result = 0;
        if (name1 != nullptr && name2 != nullptr && std::strcmp(name1, name2) != 0) {
            result = -1;  // the two belong to different domains
        }
        if (name1 != nullptr) {
            info->domainName = name1;
            std::free(name2);
        } else {
            info->domainName = name2;
        }
    }
    if (info->status1 == kPdFailed || info->status2 == kPdFailed) {
        result = -1;
    }
    orvrminfo_trace("Leaving ManagedNodeRccp::getPeerNodeData");
    return result;
}

int ManagedNodeRccp::setupPeerDomain(uint64_t nodeId) {
    orvrminfo_trace("Entering ManagedNodeRccp::setupPeerDomain");
    PeerDomainInfo* info = nullptr;
    int rc = getPeerNodeData(nodeId, &info);
    if (rc == 0) {
        NodePEXIface iface;
        const int s1 = info->status1;
        const int s2 = info->status2;
        char* h1 = info->host1;
        char* h2 = info->host2;
        // Each step looks at the codes as first read; they are not exclusive.
        if (s1 != kPdOnlineBoth) {
            orvrminfo_trace("About to call preprpnode on %s", h1);
            rc = iface.prepPeerNode(h1, h2);
        }
        if (s2 != kPdOnlineBoth) {
            orvrminfo_trace("About to call preprpnode on %s", h2);
            rc = iface.prepPeerNode(h2, h1);
        }
        if (s1 == kPdNone && s2 == kPdNone) {
            rc = iface.mkPeerDomain(info->imageId, h1, h2);
        }
        if (s1 == kPdOffline || s2 == kPdOffline) {
            rc = iface.startPeerDomain(s1 == kPdOffline ? h1 : h2);
        }
        if ((s1 == kPdNone && s2 == kPdOnlineOneOfTwo) ||
            (s1 == kPdOnlineOneOfTwo && s2 == kPdNone)) {
            orvrminfo_trace("No Peer Domain on one node and PeerDomain defined on other node");
            char* a = s1 == kPdOnlineOneOfTwo ? h1 : h2;  // has the domain
            char* b = a == h1 ? h2 : h1;                  // has none
            orvrminfo_trace("Status of 0 returned from node %s", b);
            rc = iface.rmPeerNode(a, b);
            if (rc == 0) {
                rc = iface.addPeerNode(a, b);
            }
            if (rc == 0) {
                rc = iface.startPeerDomain(a);
            }
        }
        if (s1 == kPdOnlineOneOfTwo && s2 == kPdOnlineOneOfTwo) {
            rc = iface.syncPeerDomainConfig(info->domainName, h1, h2);
            if (rc == 0) {
                rc = iface.startPeerDomain(h1);
            }
        }
    }
    freePeerDomainInfo(info);
    orvrminfo_trace("Leaving ManagedNodeRccp::setupPeerDomain");
    return rc;
}

}  // namespace orvrm
