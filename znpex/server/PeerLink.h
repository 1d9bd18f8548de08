// One outbound link from this service to another host's service: a TCP
// connection made on demand (each listed address in turn, each attempt
// bounded by the connect time), opened with a greeting in which each host
// proves its host key to the other ("peer.hello", "peer.prove"), reused by
// later requests, and re-made after a failure with growing pauses. A far
// end that cannot prove the key this host's trusted host list holds for the
// link's host is not spoken to. Every request
// ends exactly once: answered, timed out, or lost (no link, link gone, queue
// full). While a host is down its requests are dropped at once, so it never
// delays anyone; the outage is logged once. Nothing here blocks the caller
// or an I/O thread. Thread-safe; callbacks run without the link's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "znpex/proto/Json.h"
#include "znpex/server/AsioConfig.h"
#include "znpex/server/Connection.h"
#include "znpex/server/ManagerSession.h"
#include "znpex/server/PeerMessages.h"
#include "znpex/server/PeerOutageLog.h"

namespace znpex::server {

struct PeerLinkOptions {
    uint16_t port = 0;
    std::chrono::milliseconds connectTimeout{std::chrono::seconds(3)};
    std::chrono::milliseconds helloTimeout{std::chrono::seconds(5)};
    std::chrono::milliseconds backoffMin{std::chrono::milliseconds(250)};
    std::chrono::milliseconds backoffMax{std::chrono::seconds(30)};
    // A host that has never answered (most often one without a service,
    // powered off) is let grow this many times further before each try.
    int neverReachedFactor = 10;
    // Where outages and returns are logged; none: one line each, here.
    std::shared_ptr<PeerOutageLog> outages;
    // The local address outbound connections leave from ("": the kernel's choice).
    std::string sourceAddress;
    // Requests waiting for the link to come up.
    size_t maxQueued = 1024;
    // The link's connection until the far end proved its key, and after.
    ConnectionLimits greetingLimits;
    ConnectionLimits peerLimits;
};

class PeerLink : public std::enable_shared_from_this<PeerLink> {
public:
    using Outcome = ManagerSession::Outcome;
    // Answered: the peer's whole response message. Otherwise null.
    using Done = ManagerSession::Done;
    // The link came up (after every (re)connect), outside the lock.
    using OnUp = std::function<void(const std::string& host)>;
    // The link went down (true) or left that state (false). Called under the
    // link's lock, in the order of the changes: it must not call the link.
    using OnDown = std::function<void(const std::string& host, bool down)>;
    enum class State { Idle, Connecting, Up, Down };

    PeerLink(asio::any_io_executor executor, std::string host, PeerHello self,
             PeerLinkOptions options, OnUp onUp, OnDown onDown = nullptr);
    ~PeerLink();

    // The addresses to try, in order (numeric IPv4 or IPv6).
    void setAddresses(std::vector<std::string> addresses);
    // Sends a request; `done` is called exactly once, possibly before this
    // returns (lost at once while the host is down).
    void request(const std::string& method, proto::Json params, std::chrono::milliseconds timeout,
                 Done done);
    // The host was heard from (it greeted this one): a link waiting out its
    // pause tries again now, and a host never reached counts as reached.
    void heardFrom();
    // Ends everything (at shutdown): waiting requests are lost, no reconnects.
    void shutdown();

    const std::string& host() const { return host_; }
    State state() const;
    proto::Json status() const;

    // What the link's connection reports (through a handler that outlives
    // every connection, since a connection may report after its link is gone).
    void onMessage(const std::shared_ptr<Connection>& c, std::string payload);
    void onOversize(const std::shared_ptr<Connection>& c, uint64_t length);
    void onClosed(const std::shared_ptr<Connection>& c);

private:
    struct Queued {
        std::string method;
        proto::Json params;
        std::chrono::steady_clock::time_point deadline;
        Done done;
        std::unique_ptr<asio::steady_timer> timer;
    };
    using Clock = std::chrono::steady_clock;

    void startConnectLocked();
    void setStateLocked(State s);
    void tryAddress(uint64_t gen, size_t index);
    void connected(uint64_t gen, asio::ip::tcp::socket socket);
    void helloDone(uint64_t gen, Outcome outcome, const proto::Json& response);
    void proveDone(uint64_t gen, Outcome outcome, const proto::Json& response);
    void failed(uint64_t gen, const std::string& why);
    void expireQueued(uint64_t id);
    void scheduleRetryLocked();
    void flush(std::map<uint64_t, Queued> queued, const std::shared_ptr<ManagerSession>& session);
    static void fail(std::map<uint64_t, Queued> queued);

    asio::any_io_executor executor_;
    asio::strand<asio::any_io_executor> strand_;  // connect attempts and the retry timer
    const std::string host_;
    const PeerHello self_;
    const PeerLinkOptions options_;
    const OnUp onUp_;
    const OnDown onDown_;

    mutable std::mutex mu_;  // guards everything below
    State state_ = State::Idle;
    std::vector<std::string> addresses_;
    uint64_t gen_ = 0;  // the connect attempt in progress; stale callbacks compare it
    std::shared_ptr<Connection> conn_;
    std::shared_ptr<ManagerSession> session_;
    std::vector<uint8_t> nonce_;  // this attempt's challenge for the far end
    std::map<uint64_t, Queued> queued_;
    uint64_t nextQueued_ = 1;
    std::chrono::milliseconds backoff_;
    Clock::time_point retryAt_{};
    std::unique_ptr<asio::steady_timer> retryTimer_;
    bool stopped_ = false;
    bool outageLogged_ = false;
    bool reached_ = false;  // answered or greeted this host at least once
    std::string lastError_;
    uint64_t ups_ = 0, failures_ = 0, dropped_ = 0;
};

}  // namespace znpex::server
