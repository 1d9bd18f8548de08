// A resource manager's connection to the monitoring service on this host.
// One I/O thread connects to the service's local socket, registers the
// manager's name and every class definition, turns the service's "rm.*"
// requests into RMRequests for the control point's dispatch threads and
// sends their replies back; notifications and peer messages leave through
// the RMServiceLink it installs on the control point while registered. When
// the connection drops it tells the control point (connectionChanged),
// reconnects with exponential backoff and registers again; the service may
// start before or after the manager. While it runs, the process's table
// refreshes and heartbeat tuning go to the same service (RMDiLink).
//
// Dispatch threads never block on the socket: replies and notifications go
// into a bounded queue that the I/O thread writes (when it is full they are
// dropped); a reply whose connection has meanwhile been replaced is dropped;
// a connection that takes nothing for stallTimeout is made again. Stop it (stop() or the
// destructor) before the control point goes; destroy it only after the control point has stopped
// calling the link. Thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "tarn_rmf2v/RMServiceLink.h"

namespace tarn_rmf2v {

class RMRmcp;
class RMServiceOutbox;

struct RMServiceConnectionOptions {
    std::string socketPath;  // "": the system's service socket under the state root
    std::chrono::milliseconds minBackoff{100};
    std::chrono::milliseconds maxBackoff{std::chrono::seconds(5)};
    // How long the service may take to accept the registration.
    std::chrono::milliseconds registerTimeout{std::chrono::seconds(10)};
    // Bytes waiting to be written; past this, messages are dropped rather
    // than the queue grow without end.
    size_t maxQueuedBytes = 64u << 20;
    // A connection on which nothing could be written for this long counts as
    // dead and is made again.
    std::chrono::milliseconds stallTimeout{std::chrono::seconds(30)};
    // What times the backoff and the timeouts above (not owned); null: the
    // process clock.
    zn::Clock* clock = nullptr;
};

class RMServiceConnection : public RMServiceLink {
public:
    explicit RMServiceConnection(RMRmcp& rmcp, RMServiceConnectionOptions options = {});
    ~RMServiceConnection() override;
    RMServiceConnection(const RMServiceConnection&) = delete;
    RMServiceConnection& operator=(const RMServiceConnection&) = delete;

    // Starts the I/O thread. Call once.
    void start();
    // Takes the link off the control point, closes the connection and joins
    // the thread. Idempotent.
    void stop();

    // Registered with the service right now.
    bool connected() const;
    // Connections tried so far, made or not.
    uint64_t attempts() const;
    // Successful registrations so far (one per connection made).
    uint64_t registrations() const;
    // Replies and notifications dropped because the queue was full.
    uint64_t dropped() const;

    void resourcesUndefined(const std::string& className,
                            const std::vector<zn_resource_handle>& handles) override;
    void attributesModified(const std::string& className, const zn_resource_handle* handle,
                            bool persistent, const rm_attribute_value* values,
                            unsigned int count) override;
    void sendPeerMessage(int type, int subtype, const void* data, unsigned int length) override;

private:
    void run();
    // A registration was accepted / the registered connection is gone.
    void established();
    void lost();

    RMRmcp& rmcp_;
    const RMServiceConnectionOptions options_;
    std::shared_ptr<RMServiceOutbox> outbox_;
    std::thread thread_;
    std::atomic<bool> started_{false};
    std::atomic<uint64_t> attempts_{0};
    std::atomic<uint64_t> registrations_{0};
};

}  // namespace tarn_rmf2v
