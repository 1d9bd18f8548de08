// The class control point of "Kor.NodeAuthenticate": a class without
// resources whose class actions let a node ask to be managed (exchanging
// public host keys, the request and the reply signed with the secret key of
// the node's hardware frame), grant or withdraw a node's entries in the
// monitoring service's access control list, log node status messages, and
// set up a node's management peer domain.
//
// Locks: keyMu_ around every secret-key lookup; storeMu_ around the host
// token changes of one request (trusted host list and token owners);
// peerDomainMu_ is only ever tried, so that a second peer-domain set-up is
// refused rather than queued. None is held while another class is called,
// except the managed-node lookups of the token rules (which take no lock).
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "common/FrameKeyStore.h"
#include "orvrm/nodeauth/TokenOwners.h"
#include "platform/clock.h"
#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMRccp.h"

class ORVRMRmcp;

namespace orvrm {

class ManagedNodeRccp;
class OrvCtrlRccp;

// The class actions, by number.
enum NodeAuthAction : int {
    kNaSetACL = 0,
    kNaClearACL = 1,
    kNaRequestNodeManagement = 2,
    kNaSupportedProtocols = 3,
    kNaInvokeInstMsgCmd = 4,
    kNaStopStatusLogging = 5,
    kNaSetupMMPeerDomain = 6,
};

// Protocols of "RequestNodeManagement".
inline constexpr uint32_t kProtoUnsigned = 0;
inline constexpr uint32_t kProtoUnsignedNames = 1;
inline constexpr uint32_t kProtoSigned = 512;
inline constexpr uint32_t kProtoSignedNames = 513;
inline constexpr uint32_t kProtoSignedAddrs = 514;
// Tags of the request's and the reply's tagged elements.
inline constexpr int32_t kTagNamesSeen = 1000;
inline constexpr int32_t kTagNamesOwn = 1001;
inline constexpr int32_t kTagClusterTM = 10;
inline constexpr int32_t kTagClusterSNum = 11;
inline constexpr int32_t kTagPrimaryNames = 9;

class NodeAuthenticateRccp : public tarn_rmf2v::RMRccp {
public:
    NodeAuthenticateRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp);
    ~NodeAuthenticateRccp() override;

    void invokeClassAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                           zn_structured_data* input) override;
    void enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) override;
    void enumerateSelectResources(tarn_rmf2v::RMEnumResourcesResponse* rsp,
                                  char* selectString) override;
    void refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) override;

    // The actions; each answers `rsp` (the dispatcher completes it).
    void setACL(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void clearACL(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void reqNodeMgmt(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void retSupportedProtocols(tarn_rmf2v::RMActionResponse* rsp);
    void invokeInstMsgCmd(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void stopStatusLogging(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);
    void setupMMPeerDomain(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);

    // Whether the request may go on: 0 refused, 127 refused with *err set
    // (the caller owns it), anything else allowed (see checkIfCanManage.cc).
    int checkIfCanManage(const zn_structured_data* request, cu_error_t** err);
    // 1 signature good, 0 bad, 127 with *err set when the MTMS has no key.
    int verifySignature(const char* mtms, zn_structured_data_element_t* elements, int count,
                        const zn_binary* signature, cu_error_t** err);
    // 0 with *signature a new malloc'ed binary; -1 with *err set when the
    // MTMS has no key, another code when signing failed.
    int createSignature(const char* mtms, zn_structured_data_element_t* elements, int count,
                        zn_binary** signature, cu_error_t** err);
    // The frame's secret key into *key (the caller's buffer wipes itself);
    // false when the MTMS is unknown. Call with keyMu_ held.
    bool getSecretKey(const char* mtms, WEX_COMMON::SecretBytes* key);

    // The managed node's attribute values a request carries: Hostname and
    // UniversalId, then the tagged values whose tag is an attribute id a
    // node may give about itself (see NodeSystemData.cc). The values point
    // into the request.
    static std::vector<rm_attribute_value> getNodeSystemData(const zn_structured_data* request);

    uint64_t supportedProtocols() const { return supportedProtocols_; }
    // Held by a peer-domain set-up in progress.
    std::mutex& peerDomainMutex() { return peerDomainMu_; }
    WEX_COMMON::FrameKeyStore& frameKeys() { return frameKeys_; }

    ManagedNodeRccp* nodes();
    OrvCtrlRccp* domainControl();

private:
    // Stores the node's token under each name (the store mutex is held):
    // 0, or the trusted host list's code with *failedName set.
    int storeTokens(const char* hostname, uint64_t universalId,
                    const std::vector<std::string>& extraNames, sec_buffer_s token,
                    std::string* failedName);
    // Whether a name may carry the token of node `universalId` (false: a
    // name of this host, or stored for another node; a log line says why).
    bool mayStoreUnder(const std::string& name, uint64_t universalId, const sec_buffer_s& token);
    bool isLocalName(const std::string& name);
    // Builds the reply; 0, or the message number of the failure.
    int buildReply(uint32_t protocol, const char* mtms, const char* hostname, sec_buffer_s local,
                   zn::SdPtr* reply, cu_error_t** err);
    // The entries of the node in the access control list: add (true) or remove.
    int updateACLFile(const char* nodeName, bool add);
    // Common checks of setACL and clearACL; the node name or null with *err.
    const char* checkAclRequest(zn_structured_data* input, const char* function, cu_error_t** err);
    void addClassAclEntries();
    void makeTrustedHostList();

    ORVRMRmcp* orvrmcp_;
    const uint64_t supportedProtocols_ = 0x1F;
    std::mutex keyMu_;
    std::mutex storeMu_;
    std::mutex peerDomainMu_;
    WEX_COMMON::FrameKeyStore frameKeys_;  // guarded by keyMu_
    TokenOwners owners_;                   // guarded by storeMu_

    std::mutex localMu_;                // guards the members below
    std::set<std::string> localNames_;  // this host's names and addresses, lower case
    bool localNamesKnown_ = false;
    zn::Clock::Duration localNamesAt_{};
};

}  // namespace orvrm
