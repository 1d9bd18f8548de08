// The service's request routing: every message of every connection arrives
// here, is checked against the method table (where it may come from, who may
// send it), and is either answered by the service itself (sessions, class
// list, status, access list refresh, handshake, registration) or, for a
// resource-manager operation, checked against the access rules and forwarded
// to the manager serving the class, whose answer goes back to the client
// under the client's own id. Notifications from a manager go to the clients
// watching that class that may read it. Thread-safe: handlers run on the
// connections' strands in parallel; shared state sits behind its own locks.
// Outlives every connection and manager session it creates.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "znpex/di/DiStore.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/AclStore.h"
#include "znpex/server/BufferBudget.h"
#include "znpex/server/Connection.h"
#include "znpex/server/EventService.h"
#include "znpex/server/HeartbeatMonitor.h"
#include "znpex/server/ManagerSession.h"
#include "znpex/server/MethodTable.h"
#include "znpex/server/PeerDirectory.h"
#include "znpex/server/PendingLimit.h"
#include "znpex/server/RmRegistry.h"

namespace znpex::server {

struct RouterOptions {
    // How long a forwarded request may wait for its manager's answer.
    std::chrono::milliseconds requestTimeout{std::chrono::seconds(60)};
    // Forwarded requests of one connection waiting at the same time.
    size_t maxPendingPerConnection = 1024;
    // Open connections; more are closed as soon as they are accepted.
    size_t maxConnections = 65536;
    // TCP connections from one address that have not authenticated yet; more
    // are closed as soon as they are accepted (0: no cap). Well above what a
    // storm of nodes asking to be managed keeps open from one address.
    size_t maxPendingPerAddress = 1024;
    // This host as the other hosts' services know it: its name (sent in
    // "peer.hello"; "": the system's host name) and node id (0: the node id file's).
    std::string hostName;
    uint64_t nodeId = 0;
    // The port of the other hosts' services (0: the port this one listens on).
    uint16_t peerPort = 0;
    // How long another host may take to answer one request (peer messages,
    // table replication, its part of a domain request).
    std::chrono::milliseconds peerTimeout{std::chrono::seconds(3)};
    // Longest pause between attempts to reach a host that is down (ten
    // times this for a host that has never answered).
    std::chrono::milliseconds peerBackoffMax{std::chrono::seconds(30)};

    // What a caller that has not authenticated (TCP, before a host proof)
    // may cost: the largest frame it may send, how long it may stay silent,
    // and how much of its output may wait before its requests stop being read.
    size_t unauthenticatedMaxFrame = 64u << 10;
    std::chrono::milliseconds unauthenticatedIdle{std::chrono::seconds(120)};
    size_t unauthenticatedPause = 32u << 10;
    size_t unauthenticatedMaxQueued = 8u << 20;
    // A frame once begun must arrive whole within this (authenticated
    // callers, whose frames may be large, get four times as long).
    std::chrono::milliseconds readTimeout{std::chrono::seconds(30)};
    // Output to an unauthenticated caller that makes no progress for this long closes it.
    std::chrono::milliseconds writeTimeout{std::chrono::seconds(60)};
    // What all connections together may hold in their buffers; past it the
    // oldest holders are closed, unauthenticated callers first.
    size_t bufferBudget = 96u << 20;
    // How far ahead of this host's clock another host's table stamp may be.
    std::chrono::milliseconds maxStampSkew{std::chrono::minutes(5)};
    // The largest replication message: a whole copy above it goes in parts,
    // a change above it goes as whole copies. Well inside one frame.
    size_t replicationChunk = 8u << 20;
};

class Router : public ConnectionHandler {
public:
    Router(AclStore& acl, RmRegistry& registry, di::DiStore& di, RouterOptions options);
    ~Router() override;
    // Where its timers and peer links run; given once, before anything is
    // accepted. Separate from construction because the service declares its
    // io_context after the router, so that the context's handlers, which
    // refer to the router, go first.
    void setExecutor(asio::any_io_executor executor) { executor_ = std::move(executor); }

    // A socket from a listener: becomes a connection with its identity.
    void accept(Connection::Socket socket, Transport transport);

    void onMessage(const std::shared_ptr<Connection>& c, std::string payload) override;
    void onOversize(const std::shared_ptr<Connection>& c, uint64_t length) override;
    void onClosed(const std::shared_ptr<Connection>& c) override;

    // Re-reads the access list; on failure the rules in force stay. Logs.
    bool reloadAcl(std::string* why);
    // The "service.status" result.
    proto::Json status() const;
    size_t connectionCount() const;
    // Closes every connection (at shutdown).
    void closeAll();
    // Ends every event watch with its error event (at shutdown, before closeAll).
    void stopEvents();

    // Applies a table transaction here and tells the tables' watchers;
    // DI_OK, DI_EINVAL or DI_ESTORE (with `why`). Never replicates. A
    // `stamp` other than 0 is stored with the change, in the same commit.
    int applyDi(const di::Transaction& t, std::string* why, uint64_t stamp = 0);
    // Applies a transaction here and hands it on to the other hosts
    // (RouterReplicate.cc); `done` gets DI_OK (every host has it, or there
    // are none), DI_EPARTIAL (some have not acknowledged it), or the failure
    // to apply it here with why. Runs on an I/O thread: it does not block,
    // and `done` may run on any thread.
    void replicateChange(const di::Transaction& t,
                         std::function<void(int code, const std::string& why)> done);
    di::DiStore& diStore() { return di_; }

    // Starts the periodic housekeeping (returning freed memory, syncing the
    // tables' changes to disk). Call once,
    // before the I/O threads run; closeAll() stops it.
    void startHousekeeping();
    // The limits of a connection (RouterLimits.cc): by transport, whether it
    // authenticated, and whether it registered as a resource manager.
    ConnectionLimits limitsFor(Transport transport, bool authenticated, bool manager) const;
    const BufferBudget& budget() const { return budget_; }

    // Starts the links to the other hosts of the domain (RouterPeer.cc):
    // `listenAddress` and `port` are this service's own TCP address and
    // port. Call once, before the I/O threads run; without it this service
    // acts alone (peer messages and replication reach nobody).
    void startPeers(const std::string& listenAddress, uint16_t port);

private:
    void handleRequest(const std::shared_ptr<Connection>& c, proto::RpcMessage& m);
    void handleNotification(const std::shared_ptr<Connection>& c, proto::RpcMessage& m);
    void handleReply(const std::shared_ptr<Connection>& c, proto::RpcMessage& m);
    // Why `c` may not call `info`, or "" when it may.
    std::string refusal(const Connection& c, const MethodInfo& info) const;

    // Service methods (RouterService.cc).
    void sessionStart(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void sessionEnd(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void classList(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void refreshAcl(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);

    // Clients proving their host key (RouterClientAuth.cc).
    void authHello(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void authProve(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    // The host a TCP client proved it runs on, or "".
    std::string clientHostOf(const Connection& c) const;

    // Distributed-information tables (RouterDi.cc).
    void diRefresh(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void diTuneHeartbeat(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void diWatch(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    proto::Json diStatus() const;

    // Links with the other hosts' services (RouterPeer.cc).
    void peerHello(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void peerProve(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    // Why `name` may not be taken by a greeting host, or "": names of this
    // host are never another's.
    std::string ownName(const std::string& name) const;
    void refuseGreeting(const std::shared_ptr<Connection>& c, const proto::Json& id,
                        const std::string& remote, const std::string& why, bool close);
    void peerDeliver(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void diReplicate(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void peerSend(const std::string& rmName, const proto::RpcMessage& m);
    void peerUp(const std::string& host);

    // Table replication (RouterReplicate.cc).
    static uint64_t wallMillis();
    // The newest stamp another host may send: this clock plus the allowed skew.
    uint64_t latestStamp() const;
    // Keeps the stamp with the tables (logged when it cannot be).
    void storeStamp(uint64_t stamp);
    // The whole tables as "di.replicate" params: one message, or parts.
    std::vector<proto::Json> wholeCopy(uint64_t stamp, const di::Transaction& snapshot,
                                       const di::Heartbeat& h) const;
    // Sends the whole tables to a host (a host behind, or whose link came
    // up); `done`, if any, learns whether the host answered every part DI_OK.
    void sendTables(const std::string& host, std::function<void(bool taken)> done = nullptr);
    // The whole tables to each of `hosts`; `done` gets DI_OK when all took
    // them and `allSoFar` holds, DI_EPARTIAL otherwise.
    void copyTo(const std::vector<std::string>& hosts, bool allSoFar,
                std::function<void(int code, const std::string& why)> done);
    // False (after answering) for a stamp no clock of the domain could make.
    bool stampAcceptable(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m,
                         uint64_t stamp);
    // A copy or change no newer than ours: answered as not applied (the
    // stamp lock is let go first); a sender behind us gets our tables.
    void notTaken(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m, bool oursNewer,
                  std::unique_lock<std::mutex>& stampLock);
    // Applies a whole copy (`base` empty) or a change made on the tables
    // stamped `base`, unless it is no newer than ours or, for a change, made
    // on tables this host does not have.
    void takeReplicated(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m,
                        uint64_t stamp, std::optional<uint64_t> base, const di::Transaction& t,
                        std::optional<di::Heartbeat> beat);
    void takeReplicatedHeartbeat(const std::shared_ptr<Connection>& c,
                                 std::optional<di::Heartbeat> beat);
    // Adds one part of a whole copy from `c`; the whole copy once its last
    // part came. Throws ProtocolError for a part out of place or too many rows.
    std::optional<di::Transaction> addPart(const std::shared_ptr<Connection>& c, uint64_t stamp,
                                           uint32_t index, uint32_t count, di::Transaction t,
                                           const std::string& where);
    // The node table's hosts to the peer directory and the heartbeat's view
    // of them: all of them, or the rows of a change (after every change).
    void refreshPeers();
    void refreshPeers(const di::Transaction& change);
    // The host a connection speaks for after its "peer.hello", or "".
    std::string peerHostOf(const Connection& c) const;
    // The identity a connection acts under: "<host>@PEER" once a peer
    // greeted, "root@<host>" once a client proved its host key, else the
    // connection's own.
    std::string identityOf(const Connection& c) const;
    proto::Json peerStatus() const;

    // The domain's heartbeat (RouterHeartbeat.cc).
    void startHeartbeats();
    void heartbeatTick();
    di::Heartbeat heartbeat() const;
    // Whether this host is the one the domain's beats go to.
    bool heartbeatServer(const di::Heartbeat& h) const;
    // Stores a tuning (given here or by another host); *changed tells
    // whether it differs from the one in force. DI_OK or DI_ESTORE (`why`).
    int takeHeartbeat(const di::Heartbeat& h, bool* changed, std::string* why);
    // This host's beat, to the server.
    void sendBeat(const di::Heartbeat& h);
    // A peer message that may be a beat (on the server, it counts).
    void heartbeatReceived(const PeerDeliver& d);
    // Hands a peer message to this host's manager `rm`; false when it is not
    // here. `written` (may be empty) is told once the message has gone to it.
    bool deliverToManager(const std::string& rm, const proto::PeerMessage& m,
                          Connection::Written written = nullptr);
    proto::Json heartbeatStatus() const;

    // Domain-scoped sessions (RouterDomain.cc).
    struct DomainPart {
        std::string host;
        bool local = false;    // this host's manager
        proto::Json params;    // what this host gets
        proto::Json response;  // its whole JSON-RPC response once it ended
    };
    bool inDomainSession(const Connection& c) const;
    void setDomainSession(const Connection& c, bool on);
    void domainForward(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m,
                       const MethodInfo& info, const std::string& cls);
    // Forwards to this host's manager; `done` gets the whole response (a
    // JSON-RPC error when it could not be asked or did not answer).
    void forwardLocal(const std::string& identity, const proto::RpcMessage& m,
                      const MethodInfo& info, const std::string& cls, proto::Json params,
                      std::function<void(proto::Json response)> done);
    static proto::Json gatherAnswers(const proto::Json& id, const std::vector<DomainPart>& parts,
                                     const proto::Json& unknownHosts,
                                     const proto::Json& unknownItems);

    // Connection limits (RouterLimits.cc).
    // Counts a new TCP connection from `remote` as waiting to authenticate;
    // false (logged) when that address has as many waiting as it may.
    bool admitPending(const Connection& c, const std::string& remote);
    void reclaim(size_t over);
    void housekeeping();
    proto::Json limitsStatus() const;
    void noteClosed(const Connection& c);

    // Event watches (EventMethods.cc).
    void eventRegister(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void eventUnregister(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);

    // Resource managers (RouterForward.cc).
    void registerManager(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m);
    void forward(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m,
                 const MethodInfo& info);
    // A forwarded request, as its answer needs it.
    struct Forwarded {
        std::weak_ptr<Connection> client;
        proto::Json clientId;
        std::string method;
        std::string className;
        std::string rmName;
        bool watch = false;
    };
    void answer(const Forwarded& f, ManagerSession::Outcome outcome, proto::Json response);
    static std::shared_ptr<ManagerSession> managerOf(const std::shared_ptr<Connection>& c);
    void managerNotification(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m,
                             const MethodInfo& info);
    // A plain "notify.attributesModified" read without a Json tree; false
    // when the payload is anything else (the general road then takes it).
    bool attributesModifiedText(const std::shared_ptr<Connection>& c, const std::string& payload);
    // Counts the change when `session` manages `cls`.
    bool speaksFor(const std::shared_ptr<ManagerSession>& session, const std::string& cls);
    void attributesModified(const std::shared_ptr<ManagerSession>& session,
                            const proto::AttributesModified& n,
                            const std::function<std::string()>& payload);
    void addWatcher(const std::shared_ptr<Connection>& c, const std::string& className);
    // `makePayload` is called only when someone is watching.
    void notifyWatchers(const std::string& className, OpTarget target,
                        const std::function<std::string()>& makePayload);

    // Replies.
    static void replyResult(const std::shared_ptr<Connection>& c, const proto::Json& id,
                            proto::Json result);
    static void replyError(const std::shared_ptr<Connection>& c, const proto::Json& id, int code,
                           const std::string& message);
    static void replyFailure(const std::shared_ptr<Connection>& c, const proto::Json& id, int code,
                             const cu_error_t& err);

    AclStore& acl_;
    RmRegistry& registry_;
    asio::any_io_executor executor_;
    const RouterOptions options_;
    zn::Clock& clock_;  // the process clock when made
    const zn::Clock::Duration started_;

    mutable std::mutex connMu_;  // guards connections_
    std::map<uint64_t, std::weak_ptr<Connection>> connections_;

    std::mutex watchMu_;  // guards watchers_
    std::map<std::string, std::map<uint64_t, std::weak_ptr<Connection>>> watchers_;

    std::unique_ptr<EventService> events_;

    di::DiStore& di_;
    std::mutex diWatchMu_;  // guards diWatchers_
    std::map<uint64_t, std::weak_ptr<Connection>> diWatchers_;

    // Peers (RouterPeer.cc). peers_ is set once by startPeers, before any
    // message arrives.
    std::unique_ptr<PeerDirectory> peers_;
    mutable std::mutex peerMu_;                     // guards the maps below
    std::map<uint64_t, std::string> tcpAddresses_;  // TCP connection -> remote address
    std::map<uint64_t, std::string> peerHosts_;     // proven connection -> host
    // A greeting waiting for its proof: who the caller says it is, the name
    // it reached this host by, and both challenges.
    struct PendingHello {
        std::string host;
        std::string to;
        std::vector<uint8_t> ourNonce;
        std::vector<uint8_t> theirNonce;
    };
    std::map<uint64_t, PendingHello> hellos_;  // connection -> its greeting
    // Clients' host-key proofs: the challenges given, the hosts proven.
    std::map<uint64_t, PendingHello> clientHellos_;
    std::map<uint64_t, std::string> clientHosts_;
    std::map<uint64_t, std::string> localAddresses_;  // TCP connection -> address it reached
    std::map<std::string, std::weak_ptr<Connection>> managersByName_;
    std::set<uint64_t> domainSessions_;  // connections whose session is domain-scoped
    // The time stamp (ms) of the newest tables this host has: a copy from
    // another host is taken only when it is newer. 0 after a start, so a
    // restarted host takes what the others have.
    std::mutex diStampMu_;  // guards diStamp_; held while a copy is made or taken
    uint64_t diStamp_ = 0;
    std::atomic<uint64_t> peerDelivered_{0}, peerFailed_{0}, peerUnclaimed_{0}, peerReceived_{0},
        replicated_{0}, replicationsPartial_{0}, refusedPeers_{0}, refusedStamps_{0},
        refusedClientProofs_{0};
    // A whole copy coming in parts, per connection.
    static constexpr uint32_t kMaxCopyParts = 4096;
    struct CopyParts {
        uint64_t stamp = 0;
        uint32_t count = 0;
        uint32_t next = 0;
        di::Transaction whole;
    };
    std::mutex partsMu_;  // guards copies_
    std::map<uint64_t, CopyParts> copies_;
    std::atomic<uint64_t> changesSent_{0}, copiesSent_{0}, partsSent_{0}, bytesReplicated_{0},
        behindAnswers_{0}, changesApplied_{0}, copiesApplied_{0};

    // The heartbeat (RouterHeartbeat.cc).
    mutable std::mutex hbMu_;  // guards hb_, selfAddresses_, nextBeat_
    di::Heartbeat hb_;
    std::vector<std::string> selfAddresses_;  // what this host's beats name
    zn::Clock::Duration nextBeat_{};
    HeartbeatMonitor monitor_;  // on the server: the other hosts' beats
    std::atomic<uint64_t> beatsSent_{0}, beatsFailed_{0}, beatsReceived_{0}, beatsRefused_{0},
        silentReports_{0};

    // Connection limits (RouterLimits.cc).
    BufferBudget budget_;
    PendingLimit pending_;
    // Outages of the links to other hosts, summed up at housekeeping.
    const std::shared_ptr<PeerOutageLog> peerOutages_;
    std::mutex housekeepingMu_;  // guards housekeeping_, hbTimer_
    std::unique_ptr<asio::steady_timer> housekeeping_;
    std::unique_ptr<asio::steady_timer> hbTimer_;
    bool diFlushFailing_ = false;  // housekeeping's thread only: logged once
    std::atomic<uint64_t> closedForReadTimeout_{0}, closedForIdle_{0}, closedForWriteTimeout_{0},
        closedForQueue_{0}, closedForBudget_{0};

    std::atomic<uint64_t> nextSession_{1};
    // Counters for "service.status".
    std::atomic<uint64_t> forwarded_{0}, denied_{0}, timedOut_{0}, lost_{0}, malformed_{0},
        notifications_{0}, peerMessages_{0}, refused_{0};
};

}  // namespace znpex::server
