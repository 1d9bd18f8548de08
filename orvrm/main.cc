// The daemon's entry point: trace, daemon object, control point, log, the five
// classes in their fixed order, dispatch threads, one peer message, then the
// controller loop until the daemon is told to stop.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/WexTrace.h"
#include "orvrm/ClassList.h"
#include "orvrm/ORVRMDaemon.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMMessages.h"
#include "orvrm/ORVRMMetrics.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/ORVRMTrace.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "platform/metrics/MetricsServer.h"
#include "platform/paths.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"

namespace {

constexpr char kRmName[] = "Kor.ORVRM";
constexpr char kDefaultTraceSpec[] = "*:Errors=255,_RMF:Info=2,_OVD:Info=1";
constexpr char kFullTraceSpec[] = "*:*=255";
constexpr char kTraceFile[] = "/var/zn/trace/Kor.ORVRM.trace";

// Step 4: a daemon without a log still starts; the failure is traced.
void openLogOrTrace() {
    std::string why;
    int rc = orvrm::openLog(&why);
    if (rc == 0) {
        return;
    }
    cu_error_t* err = nullptr;
    if (!why.empty()) {
        cu_pkg_error_1(&err, 267, nullptr, orvrm::kCatalog, 1, 47, orvrm::defaultMessageText(47),
                       rc, why.c_str());
    } else {
        cu_pkg_error_1(&err, 267, nullptr, orvrm::kCatalog, 1, 48, orvrm::defaultMessageText(48),
                       rc);
    }
    if (auto* tc = orvrm::traceComponent()) {
        tc->writef(orvrm::kTraceErrors, "ORVRM main: %s", cu_error_text(err).c_str());
    }
    cu_rel_error_1(err);
}

[[noreturn]] void startupFailed(const std::exception& e) {
    std::fprintf(stderr, "Cannot start resource manager %s due to exception %s, see trace file",
                 kRmName, e.what());
    if (const auto* ce = dynamic_cast<const tarn_base::CException*>(&e)) {
        if (ce->getErrorCode() != 0) {
            std::fprintf(stderr, "error code = %d\n", ce->getErrorCode());
        }
        std::string msg = cu_error_text(ce->getError());
        if (!msg.empty()) {
            std::fprintf(stderr, "  Message=%s\n", msg.c_str());
        }
    }
    std::fflush(stderr);
    // A daemon that cannot start aborts rather than return a status, so the
    // service manager records a crash and its core shows where.
    std::fprintf(stderr, "\n%s:%d: main: Assertion `0' failed.\n", __FILE__, __LINE__);
    std::abort();
}

// The metrics page when ORVRM_METRICS_ADDRESS names an address; a wrong
// one is reported and the daemon goes on without it.
std::unique_ptr<zn::metrics::MetricsServer> startMetrics(ORVRMRmcp* rmcp) {
    const char* address = std::getenv(orvrm::kMetricsAddressEnv);
    if (address == nullptr || *address == '\0') {
        return nullptr;
    }
    auto* nodes = dynamic_cast<orvrm::ManagedNodeRccp*>(
        rmcp->findRccpByName(const_cast<char*>(orvrm::kManagedNodeClass)));
    if (nodes == nullptr) {
        return nullptr;
    }
    try {
        auto server = std::make_unique<zn::metrics::MetricsServer>(
            address, [nodes] { return orvrm::renderMetrics(*nodes); });
        orvrm::traceRecord(13, ("main: metrics on " + std::string(address) + " port " +
                                std::to_string(server->port()))
                                   .c_str());
        return server;
    } catch (const std::runtime_error& e) {
        std::fprintf(stderr, "%s: no metrics: %s\n", kRmName, e.what());
        if (auto* tc = orvrm::traceComponent()) {
            tc->writef(orvrm::kTraceErrors, "ORVRM main: no metrics: %s", e.what());
        }
        return nullptr;
    }
}

}  // namespace

int main() {
    tarn_base::CTraceManager::setFile(zn::paths::resolve(kTraceFile));
    ORVRMDaemon* daemon = nullptr;
    ORVRMRmcp* rmcp = nullptr;
    tarn_rmf2v::RMServiceConnection* service = nullptr;
    std::unique_ptr<zn::metrics::MetricsServer> metrics;
    int status = 0;
    try {
        // 1. Trace component.
        if (orvrm::traceComponent() == nullptr) {
            throw tarn_rmf::RMNoTrace();
        }
        // The shared helpers write into the daemon's own trace.
        WEX_COMMON::TRACE_COMP_ID = orvrm::traceComponent();
        WEX_COMMON::TRACE_ENABLED = true;
        // 2. Daemon object (sets the default trace specification).
        daemon = new ORVRMDaemon(kRmName, 262144, 5242880, kDefaultTraceSpec, kFullTraceSpec);
        if (daemon == nullptr) {
            throw tarn_rmf::RMOperError("main", __LINE__, __FILE__, "new ORVRMDaemon", 0);
        }
        // 3. Control point (the daemon's text is reused here on purpose).
        rmcp = new ORVRMRmcp(kRmName, 1);
        if (rmcp == nullptr) {
            throw tarn_rmf::RMOperError("main", __LINE__, __FILE__, "new ORVRMDaemon", 0);
        }
        // 4. Logging facility.
        openLogOrTrace();
        // 5. Environment for the registry.
        static char env[] = "SR_UNCOMMITTED_UPDATES_VISIBLE=1";
        putenv(env);
        // 6. The classes, in their fixed order.
        for (const orvrm::ClassEntry& step : orvrm::classList()) {
            cu_error_t* err = nullptr;
            std::string name = step.name;
            if (rmcp->createRCCP(name.data(), &err) == nullptr) {
                throw tarn_rmf::RMOperError("main", __LINE__, __FILE__, step.failureText,
                                            err != nullptr ? err->cu_error_id : 0);
            }
            cu_rel_error_1(err);
        }
        // 7. Dispatch threads.
        unsigned long threadIds[5] = {};
        for (unsigned long& id : threadIds) {
            rmcp->start(&id);
        }
        // The link to the monitoring service: connects (and reconnects) in
        // the background, so the service may start before or after us.
        service = new tarn_rmf2v::RMServiceConnection(*rmcp);
        service->start();
        metrics = startMetrics(rmcp);
        // 8. Tell the other instances we are here.
        rmcp->sendPEXMessage(2, 0, nullptr, 0);
        // 9. Controller loop.
        orvrm::traceRecord(11, "main: entering the controller loop");
        status = daemon->handleSRC(0);
    } catch (const std::exception& e) {
        startupFailed(e);
    }
    // 10. Shutdown: service link, control point, log, daemon. The connection
    // object outlives the control point, whose threads may still hold the link.
    if (service != nullptr) {
        service->stop();
    }
    metrics.reset();  // it reads the control point's nodes
    delete rmcp;
    delete service;
    if (orvrm::logIsOpen()) {
        orvrm::closeLog();
    }
    delete daemon;
    orvrm::traceRecordInt(12, "main: exit status", status);
    tarn_base::CTraceManager::flush();
    return status;
}
