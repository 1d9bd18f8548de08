// One client or resource-manager connection of the service (local socket or
// TCP): reads length-prefixed frames and hands each payload to its handler,
// and sends frames from a bounded queue. All socket work runs on the
// connection's strand; send() and close() may be called from any thread. A
// payload is stored as it arrives, never reserved from the announced length,
// and a header over the frame cap is reported before anything is stored.
// Owned through shared_ptr: the pending read keeps it alive until it closes.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "znpex/server/AsioConfig.h"

namespace znpex::server {

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

    // The send queue may hold this much before the peer counts as stuck.
    static constexpr size_t kMaxQueuedBytes = 64u << 20;

    Connection(Socket socket, Transport transport, std::string identity, uid_t uid,
               ConnectionHandler& handler);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Starts reading. Call once, after construction through make_shared.
    void start();
    // Queues one message (the frame header is added here). Dropped once closing.
    void send(std::string payload);
    // Queues a last message, stops reading, and closes once it is written.
    void sendThenClose(std::string payload);
    // Closes at once; queued messages are dropped.
    void close();

    uint64_t id() const { return id_; }
    Transport transport() const { return transport_; }
    bool isLocal() const { return transport_ == Transport::Local; }
    // "<user>@LOCALHOST" on the local socket, "UNAUTHENT" on TCP until it
    // authenticates. Fixed for the connection's life.
    const std::string& identity() const { return identity_; }
    bool isLocalRoot() const { return isLocal() && uid_ == 0; }
    // The peer's user id on the local socket; (uid_t)-1 on TCP.
    uid_t uid() const { return uid_; }
    bool closed() const { return closed_.load(); }

    std::mutex stateMu;
    SessionState state;

private:
    void readHeader();
    void readBody(size_t have);
    void enqueue(std::string payload, bool last);
    void writeNext();
    void lingerThenClose();
    void drain(size_t dropped);
    void shutdown();

    Socket socket_;
    asio::strand<asio::any_io_executor> strand_;
    const uint64_t id_;
    const Transport transport_;
    const std::string identity_;
    const uid_t uid_;
    ConnectionHandler& handler_;

    // Strand-only state.
    unsigned char header_[4] = {};
    size_t want_ = 0;
    std::string body_;
    std::deque<std::string> out_;
    size_t outBytes_ = 0;
    bool writing_ = false;
    bool closeAfterWrite_ = false;
    bool reading_ = true;
    std::unique_ptr<asio::steady_timer> lingerTimer_;
    std::unique_ptr<char[]> drainBuf_;  // only while lingering: idle connections stay small
    std::atomic<bool> closed_{false};
};

}  // namespace znpex::server
