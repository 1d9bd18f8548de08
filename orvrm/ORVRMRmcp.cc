#include "orvrm/ORVRMRmcp.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/ClassList.h"
#include "orvrm/HeartbeatTargets.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMMessages.h"
#include "orvrm/ORVRMTrace.h"
#include "platform/paths.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "znpex/proto/HeartbeatReport.h"

ORVRMRmcp::ORVRMRmcp(const char* rmName, unsigned int arg)
    : RMRmcp(rmName, static_cast<int>(arg), nullptr, 0, 1) {
    orvrm::traceRecord(4, "ORVRMRmcp::ORVRMRmcp entered");
    tree_ = new tarn_rmf::RMTree(zn::paths::kRegistryTree);
    // Open the store once now, so a registry that cannot be opened stops
    // start-up here rather than in the first class that mounts it.
    try {
        tree_->mountTree();
        tree_->unmountTree();
    } catch (...) {
        delete tree_;
        tree_ = nullptr;
        throw;
    }
    orvrm::traceRecord(5, "ORVRMRmcp::ORVRMRmcp leaving");
}

ORVRMRmcp::~ORVRMRmcp() {
    orvrm::traceRecord(6, "ORVRMRmcp::~ORVRMRmcp entered");
    cleanup();
    orvrm::traceRecord(7, "ORVRMRmcp::~ORVRMRmcp leaving");
}

void ORVRMRmcp::cleanup() {
    RMRmcp::cleanup();
    delete tree_;
    tree_ = nullptr;
}

tarn_rmf::RMTree* ORVRMRmcp::getTree() {
    return tree_;
}

tarn_rmf2v::RMRccp* ORVRMRmcp::createRCCP(char* className, cu_error_t** err) {
    orvrminfo_trace("[8] ORVRMRmcp::createRCCP entered for %s",
                    className != nullptr ? className : "(null)");
    const orvrm::ClassEntry* found = orvrm::findClass(className);
    const char* name = className != nullptr ? className : "";
    if (found == nullptr) {
        if (err != nullptr) {
            cu_pkg_error_1(err, tarn_rmf::RM_EINVALIDCLASS, nullptr, orvrm::kCatalog, 1, 3,
                           "2655-003 Class name %1$s is not recognized by this resource manager.\n",
                           name);
        }
        orvrm::traceRecord(9, "ORVRMRmcp::createRCCP leaving");
        return nullptr;
    }
    tarn_rmf2v::RMRccp* rccp = nullptr;
    try {
        rccp = found->factory(className, RM_OBJECT_CLASS, this);
    } catch (...) {
        if (err != nullptr) {
            cu_pkg_error_1(err, tarn_rmf::RM_EINITRCCP, nullptr, orvrm::kCatalog, 1, 4,
                           "2655-004 Could not initialize control point for class %1$s.\n", name);
        }
        orvrm::traceRecord(9, "ORVRMRmcp::createRCCP leaving");
        return nullptr;
    }
    orvrm::traceRecord(9, "ORVRMRmcp::createRCCP leaving");
    return rccp;
}

void ORVRMRmcp::asyncError(rm_async_error_level level, int code, cu_error_t* err) {
    (void)err;
    orvrm::traceRecordInt(10, "ORVRMRmcp::asyncError code", code);
    if (level == RM_ASYNC_ERROR_SEVERE) {
        // A severe framework error leaves nothing safe to do but stop.
        std::fprintf(stderr, "%s:%d: %s: Assertion `errorLevel != RM_ASYNC_ERROR_SEVERE' failed.\n",
                     __FILE__, __LINE__, __func__);
        std::abort();
    }
}

void ORVRMRmcp::PEXMessageReceived(int, int, void* data, unsigned int length) {
    orvrminfo_trace("ORVRMRmcp::PEXMessageRecieved: Entered");
    auto* ifaces = dynamic_cast<orvrm::InterfaceHeartbeatTarget*>(
        findRccpByName(orvrm::kNetworkInterfaceClass));
    auto* nodes =
        dynamic_cast<orvrm::NodeHeartbeatTarget*>(findRccpByName(orvrm::kManagedNodeClass));
    znpex::proto::HeartbeatReport report;
    std::string why;
    if (!znpex::proto::parseHeartbeatReport(data, length, report, why)) {
        // From another host: a report that does not hold together changes nothing.
        if (auto* tc = orvrm::traceComponent()) {
            tc->writef(orvrm::kTraceErrors, "ORVRMRmcp::PEXMessageRecieved: rejected report: %s",
                       why.c_str());
        }
        orvrminfo_trace("ORVRMRmcp::PEXMessageRecieved: Leaving");
        return;
    }
    int alive = 0;
    for (const auto& e : report.entries) {
        char address[256] = {};
        std::memcpy(address, e.address.data(), e.address.size());
        if (ifaces != nullptr) {
            ifaces->setHeartbeat(address, e.state);
        }
        if (e.state == 1) {
            alive = 1;
        }
    }
    if (nodes != nullptr) {
        nodes->pexHearbeatMsgCB(report.nodeId, alive);
    }
    orvrminfo_trace("ORVRMRmcp::PEXMessageRecieved: Leaving");
}

bool isOnAnXCU() {
    FILE* f = std::fopen(zn::paths::resolve(zn::paths::kLsysu).c_str(), "r");
    if (f != nullptr) {
        std::fclose(f);
        orvrminfo_trace("We are running on the XCU");
        return true;
    }
    orvrminfo_trace("We are not running on the XCU");
    return false;
}
