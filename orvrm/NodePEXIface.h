// The daemon as a client of the monitoring service: sessions, a host's names
// and addresses, node data from a management-server record, removing such a
// record, watching their configuration, and the peer-domain operations that
// pair this server with a node. Stateless: every operation opens the session
// it needs and ends it before it returns (the event registration uses the
// caller's), so calls from several threads do not interfere. Results are 0
// for success and -1 for failure unless said otherwise; strings passed in are
// not taken over, what is handed out belongs to the caller.
#pragma once

#include <cstdint>

#include "platform/clock.h"
#include "platform/cu_error.h"
#include "tarn_rmf2v/RMTypes.h"
#include "znpex/client/px_client.h"
#include "znpex/client/px_event.h"

// A host's names and addresses, at most kMaxHostIds of each.
struct HostIdList {
    char** names = nullptr;  // the name asked for, the official name, aliases
    int numNames = 0;
    char** ipAddrs = nullptr;  // dotted decimal, no duplicates
    int numIpAddrs = 0;
};

// Peer-domain status of a host.
enum PeerDomainStatus : int {
    kPdNone = 0,
    kPdOffline = 1,
    kPdOnlineLocalOnly = 2,
    kPdOnlineOneOfTwo = 3,
    kPdOnlineBoth = 4,
    kPdFailed = 127,
};

class NodePEXIface {
public:
    static constexpr int kMaxHostIds = 32;
    // Room of the result of syncNodeData.
    static constexpr unsigned int kMaxSyncEntries = 30;
    // How long rmPeerNode lets a node go offline before it removes it.
    static constexpr std::chrono::seconds kPeerNodeOfflineWait{30};

    // The clock that rmPeerNode waits on (tests give a fake one).
    explicit NodePEXIface(zn::Clock& clock = zn::processClock()) : clock_(clock) {}

    // Sessions: null host = this machine's service; else a contact list of
    // that one host. The platform's result (0 on success).
    int startSession(const char* host, px_session_opts_t opts, px_session_t* session);
    // Options 0x401, once more with 1 when the service answers 39.
    int startLocalSession(const char* host, px_session_t* session);
    int startDistributedSession(const char* host, px_session_t* session);
    int endSession(px_session_t session);

    // The names and addresses of `name`: 0, or -1 when it does not resolve
    // (the list then stays empty). With `ipList` (a string array) given and
    // not empty, the addresses are taken from it instead (at most 32).
    int getNameAndIpAddrList(const char* name, HostIdList* out);
    int getNameAndIpAddrList(const char* name, zn_value_t ipList, HostIdList* out);
    static void freeHostIdsContent(HostIdList list);
    // The official name of `host` (this machine's name when null), or a copy
    // of the name itself when it does not resolve; the caller frees it.
    char* getPrimaryHostname(const char* host);
    // Every name getNameAndIpAddrList finds, as a string array (empty when it
    // does not resolve); freed with freeHostArrayContent.
    zn_value_t getAllHostnames(const char* host);
    static void freeHostArrayContent(zn_value_t value);

    // The node's data from the management-server record of `msHostname`
    // that lists `nodeName`: up to kMaxSyncEntries (attribute id, type,
    // value) entries with ids below 47 (strings copied; other pointers
    // null), *count of them, or null with *error set. The caller frees the
    // array and its strings (freeSyncData).
    rm_attribute_value* syncNodeData(const char* nodeName, const char* msHostname,
                                     zn_structured_data* unused, unsigned int* count,
                                     cu_error_t** error);
    static void freeSyncData(rm_attribute_value* entries, unsigned int count);
    // Removes that record (the first that matches); -1 only when it could
    // not be looked for.
    int removeMgmtSvrInfo(const char* nodeName, const char* msHostname);
    // Watches the records' "ConfigChanged" on the caller's session; the
    // registration result, and its id in *regId.
    int regForMgmtSvrConfigChngEvnt(px_session_t session, px_event_cb_t callback, void* arg,
                                    uint64_t* regId);

    // One of PeerDomainStatus for `host`; *domainName gets a copy of the
    // domain's name when one exists.
    int getPeerDomainStatus(const char* host, char** domainName);
    int mkPeerDomain(const char* domainName, const char* node1, const char* node2);
    int startPeerDomain(const char* host);
    int stopPeerDomain(const char* host);
    int addPeerNode(const char* host, const char* nodeName);
    // Takes the node offline, waits kPeerNodeOfflineWait, removes it.
    int rmPeerNode(const char* host, const char* nodeName);
    int rmPeerDomain(const char* host);
    int syncPeerDomainConfig(const char* domainName, const char* host, const char* peerHost);
    int prepPeerNode(const char* host, const char* msHostname);

private:
    // Starts or stops the first domain known on `host`.
    int switchPeerDomain(const char* host, bool online, const char* op);
    // The handle of the first resource of `cls` (matching `selection`) on the
    // session: 1 found, 0 none, -1 failed (logged under `op`, traced with
    // `enumerateError` when the answer carries an error).
    int firstResource(px_session_t s, const char* cls, const char* selection,
                      zn_resource_handle* out, const char* op, const char* enumerateError);

    zn::Clock& clock_;
};
