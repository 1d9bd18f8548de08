#include "znpex/server/Service.h"

#include "znpex/server/ServiceMetrics.h"

#include <cstdio>

#include "platform/paths.h"
#include "znpex/server/ServiceLog.h"
#include "znpex/server/ServiceMetrics.h"

namespace znpex::server {
namespace {

ServiceOptions withDefaults(ServiceOptions o) {
    if (o.socketPath.empty()) {
        o.socketPath = zn::paths::resolve(zn::paths::kPexSocket);
    }
    if (o.aclPath.empty()) {
        o.aclPath = zn::paths::resolve(zn::paths::kAclFile);
    }
    if (o.aclDefaultPath.empty()) {
        o.aclDefaultPath = zn::paths::resolve(zn::paths::kAclDefaultFile);
    }
    if (o.diPath.empty()) {
        o.diPath = zn::paths::resolve(zn::paths::kDiTablesDir) + "/tables.db";
    }
    if (o.threads == 0) {
        o.threads = 1;
    }
    return o;
}

// The tables are rebuilt by the managers' next publication and by the other
// hosts, so a store that cannot be opened is set aside (kept for a look)
// rather than keep the whole service down.
std::unique_ptr<di::DiStore> openTables(const std::string& path) {
    try {
        return std::make_unique<di::DiStore>(path);
    } catch (const std::exception& e) {
        std::string aside = path + ".bad";
        serviceLog("table store unusable, moved to %s and started empty: %s", aside.c_str(),
                   e.what());
        std::rename(path.c_str(), aside.c_str());
        for (const char* suffix : {"-wal", "-shm"}) {
            std::remove((path + suffix).c_str());
        }
        return std::make_unique<di::DiStore>(path);  // a failure here is not ours to hide
    }
}

}  // namespace

Service::Service(ServiceOptions options)
    : options_(withDefaults(std::move(options))),
      acl_(options_.aclPath, options_.aclDefaultPath),
      di_(openTables(options_.diPath)),
      router_(acl_, registry_, *di_, options_.router),
      listeners_(io_,
                 [this](Connection::Socket s, Transport t) { router_.accept(std::move(s), t); }) {
    router_.setExecutor(io_.get_executor());
}

Service::~Service() {
    stop();
}

void Service::start() {
    router_.reloadAcl(nullptr);
    // First, so a wrong address stops the start before any socket serves.
    if (!options_.metricsAddress.empty()) {
        metrics_ = std::make_unique<zn::metrics::MetricsServer>(options_.metricsAddress, [this] {
            return started_.load(std::memory_order_acquire)
                       ? renderServiceMetrics(router_.status())
                       : std::string("# the service is starting\n");
        });
        serviceLog("metrics on %s (port %u)", options_.metricsAddress.c_str(),
                   static_cast<unsigned>(metrics_->port()));
    }
    listeners_.openLocal(options_.socketPath);
    serviceLog("listening on %s", options_.socketPath.c_str());
    if (options_.tcp) {
        listeners_.openTcp(options_.tcpAddress, options_.tcpPort);
        serviceLog("listening on tcp %s port %u", options_.tcpAddress.c_str(),
                   static_cast<unsigned>(listeners_.tcpPort()));
        if (options_.peers) {
            router_.startPeers(options_.tcpAddress, listeners_.tcpPort());
        }
    }
    router_.startHousekeeping();
    running_ = true;
    started_.store(true, std::memory_order_release);
    for (unsigned i = 0; i < options_.threads; ++i) {
        threads_.emplace_back([this] { io_.run(); });
    }
}

void Service::stop() {
    metrics_.reset();  // it reads the router
    if (!running_) {
        listeners_.close();
        return;
    }
    running_ = false;
    asio::post(io_, [this] { listeners_.close(); });
    router_.stopEvents();
    router_.closeAll();
    io_.stop();
    for (auto& t : threads_) {
        t.join();
    }
    threads_.clear();
    // Run what the closes left queued (aborted reads, closed notices) here,
    // so every socket is closed and every waiting request ended on return.
    io_.restart();
    io_.poll();
    listeners_.close();
}

}  // namespace znpex::server
