// The class control point of "Kor.ManagedNode": the nodes this server
// manages, one resource per row of "/Kor/ManagedNode/Resources". It defines
// and undefines nodes and keeps their companions in step (the node's network
// interfaces, the node groups, the reachability poller), answers the other
// classes' lookups by host name, universal id and selection, records the
// management mode, and runs the reachability poll "NodeStatusUpdate" at the
// domain's heartbeat frequency. Power status comes from the hardware-control
// manager's events, watched on a local session of the monitoring service.
//
// Locks: the class lock is taken before a node's own lock, never after.
// Lookups (hostnameExists, getRcpByHostname, ...) take neither: the other
// classes call them while holding their own class locks. Lookups of one node
// use the table's hash indexes on Hostname and UniversalId, whatever the size.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvrm/FpingClass.h"
#include "orvrm/HeartbeatTargets.h"
#include "orvrm/OrvTableRccp.h"
#include "orvrm/PartitionStatus.h"
#include "orvrm/strent.h"
#include "tarn_rmf2v/RMSchedule.h"
#include "znpex/client/px_event.h"
#include "znpex/di/DiTypes.h"

class ORVRMRmcp;

namespace orvrm {

// Two nodes serving one storage facility image, and their peer-domain states.
struct PeerDomainInfo {
    char* imageId = nullptr;     // the name a new domain gets
    char* domainName = nullptr;  // of an existing domain, or null
    char* host1 = nullptr;       // the node asked for
    int status1 = 0;
    char* host2 = nullptr;  // its partner
    int status2 = 0;
};
void freePeerDomainInfo(PeerDomainInfo* info);

class EventDispatchThread;
class ManagedNodeRcp;
class MNNetworkInterfaceRccp;
class NodeGroupHooks;
class OrvCtrlRccp;

// A node's partition on the console: its LParID "*" HWModel "*" HWSerialNum.
std::string partitionIdOf(const char* lparId, const char* hwModel, const char* hwSerial);

class ManagedNodeRccp : public OrvTableRccp, public NodeHeartbeatTarget {
public:
    ManagedNodeRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp);
    ~ManagedNodeRccp() override;

    // Defines a node from the request's values (the class lock is taken).
    // Returns a new copy of its handle (the caller frees it), or null with
    // *err set (the caller owns it).
    zn_resource_handle* createResource(zn_structured_data* options, rm_attribute_value* values,
                                       unsigned int count, cu_error_t** err);
    // Node authentication's way in: the node found by hostExists gets the
    // values (updateAttributeValues), else a node is defined with them.
    // 0, or -1 with *err set.
    int createOrUpdateResource(const char* hostname, uint64_t universalId,
                               rm_attribute_value* values, unsigned int count, cu_error_t** err);
    // The same; returns this server's node id, or 0 with *err set.
    uint64_t createOrUpdateResourceRetNodeId(const char* hostname, uint64_t universalId,
                                             rm_attribute_value* values, unsigned int count,
                                             cu_error_t** err);
    // Undefines one node with its whole cascade (the class lock is taken).
    // Null, or the error (the caller owns it).
    using RMTableRccp::removeResource;
    cu_error_t* removeResource(zn_resource_handle handle, unsigned int flags);
    // The node's management request succeeded: its mode becomes "Managed".
    void reqNodeMgmtSuccCB(const char* hostname);

    // Reserved lookups: the caller ends the reservation with unreserve().
    ManagedNodeRcp* getRcpByHostname(const char* hostname);
    ManagedNodeRcp* getRcpByUniversalId(uint64_t universalId);
    ManagedNodeRcp* getFirstRcpMatchSlctStr(const char* selectString);
    // 1 when a node has it, 0 when none, -1 with *err set on a table error.
    int hostnameExists(const char* hostname, cu_error_t** err);
    int universalIdExists(uint64_t universalId, cu_error_t** err);
    int mNodeExists(const char* hostname, cu_error_t** err);
    // The node a request names by host name and universal id, reserved, or
    // null: by id when a node has it (its host name is then updated by the
    // caller), else by host name. When the node with the id has another host
    // name and a different node has this one: null with error 268 (message 33).
    ManagedNodeRcp* hostExists(const char* hostname, uint64_t universalId, cu_error_t** err);
    // Host names of the nodes a selection string picks, in table order.
    // Throws RMTableError for a selection that does not hold.
    std::vector<std::string> selectStrMembers(const char* selectString);

    // Whether a node may ask to be managed: 2 when the node exists and its
    // AllowManageRequest is 1, 1 when it exists without it, 0 when no node
    // is found, 127 with *err set when the lookup fails.
    int isAllowMngReq(const char* hostname, uint64_t universalId, cu_error_t** err);
    // 1 when the node exists and its status messages are logged (ControlFlag
    // bit kControlStatusLogs), else 0.
    int isAllowStatusLogs(const char* hostname);
    // Clear the node's AllowManageRequest / status-log flag and tell the node groups.
    void resetAllowManageReqAttr(const char* hostname);
    void stopStatusLogging(const char* hostname);
    static constexpr uint32_t kControlStatusLogs = 0x1;

    // Host names of the nodes in table order (all, or only the minimally
    // managed ones); *out is a new list the caller frees (null when none).
    // Throws RMOperError when memory runs out.
    void readHostList(strent** out, unsigned int minManagedOnly);
    // Reports "Status" of each named node to the clients that monitor it.
    void sendStatusChanges(strent* hosts);
    // A node's heartbeat report (node id = its universal id; 0 is ignored).
    void pexHearbeatMsgCB(uint64_t nodeId, int heartbeat) override;
    // A heartbeat by host name; the caller holds the class lock.
    void setHeartbeat(const char* hostname, unsigned int heartbeat);
    void setPowerStatus(const char* hostname, unsigned int powerStatus);
    // One reachability poll, then the next one scheduled a heartbeat
    // frequency later (read anew each time).
    static void nodeStatusUpdate(void* rccp);
    // Polls run so far.
    uint64_t statusPolls() const { return statusPolls_.load(); }
    // What the metrics page shows (ManagedNodeMetrics.cc): the nodes by
    // Status and Mode and by PowerStatus, the polls' time, heartbeat reports.
    struct NodeCounts {
        std::map<std::pair<uint32_t, std::string>, uint64_t> byStatusAndMode;
        std::map<uint32_t, uint64_t> byPowerStatus;
    };
    NodeCounts countNodes();
    double lastPollSeconds() const { return lastPollNanos_.load() / 1e9; }
    double pollSecondsTotal() const { return pollNanosTotal_.load() / 1e9; }
    uint64_t heartbeatReports() const { return heartbeatReports_.load(); }

    // Power status from "Kor.NodeHwCtrl": the watch is registered on a local
    // session `seconds` from now (15 after start, 30 after a failure or a
    // lost session, again and again until it holds); its events arrive on
    // LocalPEXCBThread.
    void scheduleLocalPEXEventReg(unsigned int seconds);
    static void regLocalPEXEvent(void* rccp);
    static void powerStatusEventCB(void* session, px_event_2_t* event, void* rccp);
    // Keeps *session (registered as `regId`) and starts LocalPEXCBThread on
    // it; false when the class is going away (the caller ends the session).
    bool createLocalPEXCBThread(px_session_t* session, uint64_t regId);
    // Whether the power-status watch is registered now.
    bool powerEventsRegistered();
    // The dispatch thread's end: `rc` is px_dispatch's result on `session`.
    // 4 (ended on purpose) clears the session; anything else also ends it
    // and schedules the recovery.
    void localDispatchEnded(px_session_t session, int rc);
    void dpexDispatchEnded(px_session_t session, int rc);

    // The console's side of power status (only when onConsole()): the
    // partition monitor's entries from the table, a node's status there
    // (127 when unknown or not on the console), the next power poll
    // (2 minutes after start, then every 5), and the monitor's callbacks.
    bool onConsole() const { return onConsole_; }
    PartitionStatus* partitions() { return partitions_.get(); }
    tarn_rmf2v::RMSchedule* powerSchedule() { return powerSchedule_.get(); }
    void getPartitionInfo(PartitionEntry** out);
    int getNodePowerStatus(const char* hostname);
    void schedulePowerStatusUpdates();
    static void nodePowerStatusUpdate(void* rccp);
    static void PartitionStatusChangeCB(void* rccp, strent* hosts);
    static void PowerStatusChangeCBStub(void* rccp, strent* hosts);
    static void PartitionDeleteCB(void* rccp, char* hostname);

    // Pairs the node with this universal id and the node serving the same
    // storage facility image into a two-node peer domain, as their statuses
    // require. The result of the last operation run (0 or -1), or -1 when
    // the pair or their statuses could not be had.
    int setupPeerDomain(uint64_t nodeId);
    // Finds the pair and asks each for its peer-domain status; *out is
    // always a new record (freePeerDomainInfo). 0, or -1.
    int getPeerNodeData(uint64_t nodeId, PeerDomainInfo** out);

    // Publication to the distributed-information node table. One change:
    // 0, or the refresh's code (8, applied here only, counts as 0). Under
    // the control point's distributed-information mutex.
    int updatePEXNodeInfo(di_table_op_t op, uint64_t nodeId, const char* hostname, char** names,
                          unsigned int nameCount, char** addresses, unsigned int addressCount);
    // The whole table (emptied first, every node that resolves); 0 or a code.
    int sendAllManagedNodesPEXD();
    // One node as its row has it now; -1 when it is unknown or does not resolve.
    int addNodePEXD(const char* hostname);
    int removeNodePEXD(const char* hostname);
    int updateNodePEXD(const char* oldHostname, uint64_t oldNodeId, const char* newHostname,
                       uint64_t newNodeId);
    // "InitDPEXInfo" 20 s from now: the whole table when the service may
    // have lost it, then the management-server records' watch on a domain
    // session (PEXCBThread); tried again 20 s later when it fails.
    void scheduleDPEXUpdate();
    static void initializeDistributedPEXInfo(void* rccp);
    bool createPEXCBThread(px_session_t* session, uint64_t regId);
    bool mgmtSvrEventsRegistered();
    static void mgmtSvrCfgChngEvntCB(void* session, px_event_2_t* event, void* rccp);
    // 1 when the event's "Hostname" (the record's management server) is this
    // server's primary host name, else 0.
    int isValidEvent(px_event_2_t* event);
    // The record of this server on node `hostname` went: the node is silent.
    // The caller holds the class lock.
    void rsrcUndefCB(const char* hostname, const char* managementServerName);

    // Writes the resource table back "RegSyncDelay" seconds from now.
    void scheduleTableSync();
    static void tableSync(void* rccp);

    FpingClass& poller() { return *poller_; }
    tarn_rmf2v::RMSchedule& statusSchedule() { return *statusSchedule_; }
    tarn_rmf2v::RMSchedule& syncSchedule() { return *syncSchedule_; }

    void defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp, zn_structured_data* options,
                        rm_attribute_value* values, unsigned int count) override;
    void undefineResources(tarn_rmf2v::RMUndefineResourcesResponse* rsp,
                           zn_structured_data* options, zn_resource_handle* handles,
                           unsigned int count) override;
    virtual void coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp);

    // The classes this one keeps in step; null while absent.
    MNNetworkInterfaceRccp* interfaces();
    NodeGroupHooks* nodeGroups();
    OrvCtrlRccp* domainControl();

protected:
    tarn_rmf2v::RMTableRcp* makeRcp(const zn_resource_handle& handle,
                                    unsigned int variety) override;
    cu_error_t* checkDefineValue(const tarn_rmf2v::RMAttrSpec& attr,
                                 const rm_attribute_value& value) override;
    cu_error_t* checkDefineRow(DefineRow& row) override;

private:
    // Undefines one node (class lock held): interfaces first, so that a
    // crash part way leaves a whole node for the start-up check to keep.
    cu_error_t* undefineOne(ManagedNodeRcp* rcp);
    // One interface per address of a node that has a host name and a
    // universal id, with a peer message after each.
    void createInterfaces(const char* hostname, uint64_t universalId, const zn_array* addresses);
    // Makes the node and interface tables agree after a crash between their
    // commits: interfaces a node no longer has go, missing ones are made.
    void reconcileInterfaces();
    // One reserved node for a parametrised selection, or null.
    ManagedNodeRcp* reserveFirst(const char* selection, const tarn_rmf::RMSelParams* params);
    int exists(const char* selection, const tarn_rmf::RMSelParams& params, cu_error_t** err,
               const char* op);
    void scheduleStatusUpdate();
    // The console's partition monitor and its power poll (constructor).
    void startConsole();
    // Publishes the node named `hostname` with `op`; `invalidTrace` when it
    // does not resolve.
    int publishNode(di_table_op_t op, const char* hostname, const char* invalidTrace);

    // An event session of the class and the thread that dispatches it.
    struct EventLink {
        px_session_t session = nullptr;
        uint64_t regId = 0;
        std::unique_ptr<EventDispatchThread> thread;
    };
    // Keeps a registered session and starts `thread` on it (a session the
    // link still holds is ended and its thread joined first). False when
    // the class is going: the caller ends the session.
    bool adoptEventSession(EventLink& link, px_session_t session, uint64_t regId,
                           std::unique_ptr<EventDispatchThread> thread);
    // Clears the link if it still holds `session`; true when it did.
    bool clearEventSession(EventLink& link, px_session_t session);
    // Ends both sessions and waits for their threads (destruction).
    void endEventSessions();

    std::unique_ptr<FpingClass> poller_;
    std::atomic<uint64_t> statusPolls_{0};
    std::atomic<int64_t> lastPollNanos_{0}, pollNanosTotal_{0};
    std::atomic<uint64_t> heartbeatReports_{0};
    // The whole node table was published since start or since the service
    // was last lost.
    std::atomic<bool> tablePublished_{false};
    ORVRMRmcp* const orvrmcp_;
    // On the console: taken once at start; the monitor and its schedule
    // exist only there. Minutes between power polls.
    const bool onConsole_;
    std::unique_ptr<PartitionStatus> partitions_;
    std::unique_ptr<tarn_rmf2v::RMSchedule> powerSchedule_;
    unsigned int powerInterval_ = 2;
    // The status schedule runs the poll; the sync schedule the write-back
    // (each cancels by its own argument).
    std::unique_ptr<tarn_rmf2v::RMSchedule> statusSchedule_;
    std::unique_ptr<tarn_rmf2v::RMSchedule> syncSchedule_;
    // What the define in progress accepted (borrowed from its request; the
    // class lock is held from the walk to the cascade).
    struct DefineFacts {
        const char* hostname = nullptr;
        uint64_t universalId = 0;
        const zn_array* addresses = nullptr;
        // The last of ManagementServer..Mode given: the define examines it
        // for the minimal mode, whichever of the seven it was.
        const char* modeToExamine = nullptr;
        bool hasPartition = false;  // LParID, HWModel and HWSerialNum all given
    };
    DefineFacts facts_;

    std::mutex eventMu_;   // guards the links and stopping_
    EventLink localLink_;  // power-status events
    EventLink dpexLink_;   // management-server records
    bool stopping_ = false;
};

}  // namespace orvrm
