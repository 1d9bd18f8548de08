// One client or resource-manager connection of the service (local socket or
// TCP): reads length-prefixed frames and hands each payload to its handler,
// and sends frames from a bounded queue. All socket work runs on the
// connection's strand; send() and close() may be called from any thread.
// What has arrived is read in one piece and split into frames, so a burst
// costs one read, not two per frame. A payload is stored as it arrives,
// never reserved from the announced length, and a header over the
// connection's frame cap is reported before more than one read's piece is
// stored. What the connection may hold and how long it may take are its
// limits (ConnectionLimits), which the router tightens for callers that have
// not authenticated. Owned through shared_ptr: the pending read keeps it
// alive until it closes.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "znpex/server/AsioConfig.h"

namespace znpex::server {

class BufferBudget;
class Connection;
class ManagerSession;

// What a connection reports to the service. Called on the connection's strand.
class ConnectionHandler {
public:
    virtual ~ConnectionHandler() = default;
    virtual void onMessage(const std::shared_ptr<Connection>& c, std::string payload) = 0;
    // The header announced `length` bytes, more than the cap; nothing more is read.
    virtual void onOversize(const std::shared_ptr<Connection>& c, uint64_t length) = 0;
    // Called once, when the connection has closed for whatever reason.
    virtual void onClosed(const std::shared_ptr<Connection>& c) = 0;
};

enum class Transport { Local, Tcp };

// What one connection may hold and how long it may take. A zero duration
// means no deadline; a zero pause threshold means reading never pauses.
struct ConnectionLimits {
    size_t maxFrame = 16u << 20;
    // Unsent output beyond this: the peer does not read what it gets, and is dropped.
    size_t maxQueued = 64u << 20;
    // While more than this is unsent, the peer's next request is not read,
    // so a caller that never reads cannot make the service hold its answers.
    size_t pauseReadingAbove = 0;
    // A frame whose header has come must be complete within this.
    std::chrono::milliseconds readTimeout{0};
    // No complete frame for this long: closed.
    std::chrono::milliseconds idleTimeout{0};
    // Unsent output that makes no progress for this long: closed.
    std::chrono::milliseconds writeTimeout{0};
    // The kernel's send buffer for the socket (0: the kernel sizes it). Kept
    // small for callers that may never read: every answer the kernel holds
    // for them is one the service had to work out.
    size_t kernelSendBuffer = 0;
};

// Why a connection was closed by the service rather than by its peer.
enum class CloseReason { None, ReadTimeout, IdleTimeout, WriteTimeout, QueueFull, Budget };
const char* closeReasonText(CloseReason r);

// Per-connection state of the session layer, guarded by Connection::stateMu.
struct SessionState {
    uint64_t sessionId = 0;  // 0: no session started
    std::string clientName;
    std::set<std::string> watched;            // classes whose notifications it asked for
    size_t pendingRequests = 0;               // forwarded and not answered yet
    std::shared_ptr<ManagerSession> manager;  // set once it registered as a manager
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::generic::stream_protocol::socket;
    using Clock = std::chrono::steady_clock;

    // `budget` (may be null) is told what the connection holds in its buffers.
    Connection(Socket socket, Transport transport, std::string identity, uid_t uid,
               ConnectionHandler& handler, ConnectionLimits limits = {},
               BufferBudget* budget = nullptr);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Starts reading. Call once, after construction through make_shared.
    void start();
    // Called on the connection's strand once a message has gone to the
    // socket (true), or was dropped unsent (false).
    using Written = std::function<void(bool written)>;

    // Queues one message (the frame header is added here). Dropped once closing.
    void send(std::string payload);
    // The same, told when the message has gone: a sender can be answered
    // only once its message left, so a peer that does not read slows those
    // sending to it instead of piling their messages up here.
    void send(std::string payload, Written written);
    // Queues a last message, stops reading, and closes once it is written.
    void sendThenClose(std::string payload);
    // Closes at once; queued messages are dropped.
    void close();
    // Closes at once for `reason` (logged by the handler's owner through closeReason()).
    void closeFor(CloseReason reason);
    // Replaces the limits (from any thread); frames already begun keep their cap.
    void setLimits(const ConnectionLimits& limits);
    // The peer proved who it is: it keeps its identity and gets `limits`.
    void authenticate(const ConnectionLimits& limits);

    uint64_t id() const { return id_; }
    Transport transport() const { return transport_; }
    bool isLocal() const { return transport_ == Transport::Local; }
    // "<user>@LOCALHOST" on the local socket, "UNAUTHENT" on TCP. Fixed for
    // the connection's life (a peer that proves its host key is known to the
    // router by that host; its connection identity stays).
    const std::string& identity() const { return identity_; }
    bool isLocalRoot() const { return isLocal() && uid_ == 0; }
    // The peer's user id on the local socket; (uid_t)-1 on TCP.
    uid_t uid() const { return uid_; }
    bool closed() const { return closed_.load(); }
    // Local connections are authenticated by the kernel; TCP ones once they prove a key.
    bool authenticated() const { return authenticated_.load(); }
    // Bytes held in this connection's buffers, and since when it has held any
    // (the oldest holders are the first to go when the service runs short).
    size_t heldBytes() const { return held_.load(std::memory_order_relaxed); }
    Clock::time_point heldSince() const;
    // Why the service closed it (None: the peer or an error did).
    CloseReason closeReason() const { return closeReason_.load(); }
    // Marks the connection as being closed by a reclaim: its bytes stop
    // counting against the budget. False when it was already marked or closed.
    bool condemn();

    std::mutex stateMu;
    SessionState state;

private:
    // Handles the frames already read, then reads on (first what has already
    // arrived when `tryNow`), until reading stops or must wait.
    void readMore(bool tryNow);
    // Handles the next complete frame in the input; otherwise false, with
    // `need` what it still lacks (reading may have stopped: an oversize header).
    bool takeFrame(size_t* need);
    // Appends what the socket has now without waiting; false on end or error.
    bool readAvailable(size_t* got);
    void compactInput();
    void enqueue(std::string payload, bool last, Written written);
    void writeNext();
    void lingerThenClose();
    void drain(size_t dropped);
    void shutdown();
    void hold(size_t bytes);  // sets what the buffers hold now (strand only)
    void applySocketLimits(size_t previousSendBuffer);
    void armWatchdog();
    void watchdog();
    bool readingPaused() const;

    Socket socket_;
    asio::strand<asio::any_io_executor> strand_;
    const uint64_t id_;
    const Transport transport_;
    const std::string identity_;
    const uid_t uid_;
    ConnectionHandler& handler_;
    BufferBudget* const budget_;

    // Strand-only state.
    ConnectionLimits limits_;
    std::string in_;  // bytes read and not yet handled, from inOff_
    size_t inOff_ = 0;
    struct Outgoing {
        std::string frame;
        Written written;
    };
    std::deque<Outgoing> out_;
    size_t outBytes_ = 0;
    bool writing_ = false;
    bool closeAfterWrite_ = false;
    bool reading_ = true;
    bool readParked_ = false;  // reading stopped while too much is unsent
    bool inFrame_ = false;     // a header came, its payload has not all come
    Clock::time_point frameStarted_{};
    Clock::time_point lastFrame_{};
    Clock::time_point lastWrite_{};  // last write progress, or when output began to wait
    std::unique_ptr<asio::steady_timer> watchdog_;
    Clock::time_point watchdogAt_{};
    std::unique_ptr<asio::steady_timer> lingerTimer_;
    std::unique_ptr<char[]> drainBuf_;  // only while lingering: idle connections stay small

    std::atomic<bool> closed_{false};
    std::atomic<bool> authenticated_{false};
    std::atomic<bool> condemned_{false};
    std::atomic<size_t> condemnedBytes_{0};  // what condemn() told the budget is leaving
    std::atomic<CloseReason> closeReason_{CloseReason::None};
    std::atomic<size_t> held_{0};
    std::atomic<int64_t> heldSince_{0};  // steady clock ticks
};

}  // namespace znpex::server
