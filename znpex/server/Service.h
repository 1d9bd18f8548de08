// The monitoring service as one object: its access rules, the registry of
// resource managers, the router, the listening sockets and the I/O threads
// (one io_context, a small pool). start() binds and starts the threads;
// stop() (or the destructor) closes everything and joins them. Paths left
// empty in the options are the system's own, under the state root.
// start/stop from one controlling thread; reloadAcl and status from any.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/metrics/MetricsServer.h"
#include "znpex/server/AclStore.h"
#include "znpex/server/AsioConfig.h"
#include "znpex/server/Listeners.h"
#include "znpex/server/RmRegistry.h"
#include "znpex/server/Router.h"

namespace znpex::server {

inline constexpr uint16_t kDefaultPort = 657;

struct ServiceOptions {
    std::string socketPath;      // "": the system's local socket
    std::string aclPath;         // "": the system's access list file
    std::string aclDefaultPath;  // "": the platform's default list
    std::string diPath;          // "": the tables' store under the state root
    bool tcp = true;
    std::string tcpAddress = "0.0.0.0";
    uint16_t tcpPort = kDefaultPort;  // 0: the kernel picks one
    unsigned threads = 2;
    // Join the management domain: links to the node table's other hosts, peer
    // messages and table replication (needs tcp). Off, the service acts alone.
    bool peers = false;
    // Where the metrics page is served ("host:port"); "": nowhere.
    std::string metricsAddress;
    RouterOptions router;
};

class Service {
public:
    explicit Service(ServiceOptions options);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Loads the access list (a failure is logged and leaves nobody any
    // right), binds the sockets and starts the I/O threads. Throws
    // std::runtime_error when a socket cannot be bound.
    void start();
    // Idempotent.
    void stop();

    uint16_t tcpPort() const { return listeners_.tcpPort(); }
    // The metrics page's port, 0 when it is not served.
    uint16_t metricsPort() const { return metrics_ != nullptr ? metrics_->port() : 0; }
    const std::string& socketPath() const { return options_.socketPath; }
    bool reloadAcl(std::string* why) { return router_.reloadAcl(why); }
    Router& router() { return router_; }
    RmRegistry& registry() { return registry_; }
    di::DiStore& diStore() { return *di_; }

private:
    ServiceOptions options_;
    AclStore acl_;
    RmRegistry registry_;
    std::unique_ptr<di::DiStore> di_;
    // Declared before the io_context: handlers that refer to it are destroyed
    // with the context, before it goes.
    Router router_;
    asio::io_context io_;
    Listeners listeners_;
    std::vector<std::thread> threads_;
    std::unique_ptr<zn::metrics::MetricsServer> metrics_;
    // Set once start() has built everything the metrics page reads: the
    // page is served from its own thread from the moment its socket is
    // bound, which is before the rest of the start.
    std::atomic<bool> started_{false};
    bool running_ = false;
};

}  // namespace znpex::server
