// The distributed information's start and recovery ("InitDPEXInfo", 20
// seconds after start and after a lost domain session): the whole node table
// published when the service may have lost it, and the watch on the
// management-server records' "ConfigChanged" registered on a domain session
// whose events PEXCBThread dispatches. A record of this server that reports
// a change shows its node alive; one that goes, or whose host cannot be
// reached, shows it silent.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/PEXCBThread.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

constexpr int32_t kRecordUndefined = 0x40004;
constexpr int32_t kHostUnreachable = 0x4000c;

const char* textAttr(const px_event_2_t* event, const char* name) {
    for (uint32_t i = 0; i < event->pe_attr_count; ++i) {
        const px_event_attr_t& a = event->pe_attrs[i];
        if (a.pe_name != nullptr && std::strcmp(a.pe_name, name) == 0 && a.pe_type == ZN_CHAR_PTR) {
            return a.pe_value.ptr_char;
        }
    }
    return nullptr;
}

// The node id a resource handle carries (bytes 4-11, big-endian): the host
// whose manager made the record.
uint64_t nodeIdOf(const zn_resource_handle& h) {
    uint64_t id = 0;
    for (int k = 0; k < 8; ++k) {
        id = (id << 8) | h.bytes[4 + k];
    }
    return id;
}

}  // namespace

void ManagedNodeRccp::scheduleDPEXUpdate() {
    timespec when{};
    getCurrentTime(&when);
    when.tv_sec += 20;
    statusSchedule_->addOperation("InitDPEXInfo", &ManagedNodeRccp::initializeDistributedPEXInfo,
                                  this, &when);
}

void ManagedNodeRccp::initializeDistributedPEXInfo(void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    if (!self->tablePublished_.load()) {
        self->tablePublished_.store(self->sendAllManagedNodesPEXD() == 0);
    }
    NodePEXIface pex;
    px_session_t session = nullptr;
    if (pex.startDistributedSession(nullptr, &session) != PX_OK) {
        cu_error_t* err = nullptr;
        cu_get_error(&err);
        orvrmlog_error("ManagedNodeRccp::initializeDistributedPEXInfo", err);
        cu_rel_error_1(err);
        self->tablePublished_.store(false);  // no service: it may come back empty
        self->scheduleDPEXUpdate();
        return;
    }
    uint64_t regId = 0;
    if (pex.regForMgmtSvrConfigChngEvnt(session, &ManagedNodeRccp::mgmtSvrCfgChngEvntCB, self,
                                        &regId) != PX_OK ||
        regId == 0) {
        pex.endSession(session);
        self->scheduleDPEXUpdate();
        return;
    }
    if (!self->createPEXCBThread(&session, regId)) {
        pex.endSession(session);  // the class is going away
    }
}

bool ManagedNodeRccp::createPEXCBThread(px_session_t* session, uint64_t regId) {
    return adoptEventSession(dpexLink_, *session, regId,
                             std::make_unique<PEXCBThread>(this, *session));
}

void ManagedNodeRccp::dpexDispatchEnded(px_session_t session, int rc) {
    clearEventSession(dpexLink_, session);
    if (rc == PX_DISPATCH_ENDED) {
        return;
    }
    px_end_session(session);
    // The service went away: it may come back without the table.
    tablePublished_.store(false);
    std::lock_guard<std::mutex> g(eventMu_);
    if (!stopping_) {
        scheduleDPEXUpdate();
    }
}

bool ManagedNodeRccp::mgmtSvrEventsRegistered() {
    std::lock_guard<std::mutex> g(eventMu_);
    return dpexLink_.regId != 0;
}

int ManagedNodeRccp::isValidEvent(px_event_2_t* event) {
    const char* server = textAttr(event, "Hostname");
    orvrminfo_trace("isValidEvent: ManagementServer name %s", server != nullptr ? server : "");
    NodePEXIface pex;
    char* primary = pex.getPrimaryHostname(nullptr);
    orvrminfo_trace("isValidEvent: Primary Hostname %s", primary != nullptr ? primary : "");
    int valid = server != nullptr && primary != nullptr && strcasecmp(server, primary) == 0;
    std::free(primary);
    orvrminfo_trace("isValidEvent: Leaving - %d", valid);
    return valid;
}

void ManagedNodeRccp::rsrcUndefCB(const char* hostname, const char* managementServerName) {
    orvrminfo_trace("rsrcUndefCB: Entered");
    orvrminfo_trace("Hostname %s and ManagementServerName %s", hostname != nullptr ? hostname : "",
                    managementServerName != nullptr ? managementServerName : "");
    setHeartbeat(hostname, 0);
    orvrminfo_trace("rsrcUndefCB: Leaving");
}

void ManagedNodeRccp::mgmtSvrCfgChngEvntCB(void*, px_event_2_t* event, void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    {
        tarn_rmf2v::lockRccp guard(self);
        orvrminfo_trace("mgmtSvrCfgChngEvntCB: Entered");
        // The record belongs to the node whose host's manager made it.
        ManagedNodeRcp* node = event->pe_has_handle != 0
                                   ? self->getRcpByUniversalId(nodeIdOf(event->pe_handle))
                                   : nullptr;
        char* hostname = node != nullptr ? node->getHostName() : nullptr;
        if (node != nullptr) {
            node->unreserve();
        }
        if (hostname == nullptr) {
            orvrminfo_trace("mgmtSvrCfgChngEvntCB: no node for this record");
        } else if (self->isValidEvent(event) != 0) {
            bool error = (event->pe_flags & PX_EVENT_ERROR) != 0;
            if (!error) {
                self->setHeartbeat(hostname, 1);
            } else if (event->pe_errnum == kRecordUndefined) {
                self->rsrcUndefCB(hostname, textAttr(event, "Hostname"));
            } else if (event->pe_errnum == kHostUnreachable) {
                self->setHeartbeat(hostname, 0);
            }
        }
        std::free(hostname);
    }
    px_free_response(event);
}

}  // namespace orvrm
