// The nodes' power status from the hardware-control manager: a watch on its
// class "Kor.NodeHwCtrl" over a local session, registered 15 seconds after
// start and every 30 seconds after a failure or a lost session, and the
// handling of its events (a change of a host's "PowerStatus", or an error
// that makes the host's power status unknown).
#include <cstring>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/managednode/PEXCBThread.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

constexpr char kHwCtrlClass[] = "Kor.NodeHwCtrl";
constexpr char kPowerExpression[] = "PowerStatus!=PowerStatus@P";
// Error events after which a host's power status is no longer known: the
// resource went, its manager went or refused to monitor, the host cannot be
// reached, the service is stopping.
constexpr int32_t kUnknownAfter[] = {0x40004, 0x4000a, 0x4000b, 0x4000c, 0x40010};

const px_event_attr_t* findAttr(const px_event_2_t* event, const char* name) {
    for (uint32_t i = 0; i < event->pe_attr_count; ++i) {
        const px_event_attr_t& a = event->pe_attrs[i];
        if (a.pe_name != nullptr && std::strcmp(a.pe_name, name) == 0) {
            return &a;
        }
    }
    return nullptr;
}

// The host name an event carries, or null.
const char* hostnameOf(const px_event_2_t* event) {
    const px_event_attr_t* a = findAttr(event, "Hostname");
    return a != nullptr && a->pe_type == ZN_CHAR_PTR ? a->pe_value.ptr_char : nullptr;
}

// "PowerStatus" as an unsigned number; false when absent or not an integer
// in range (the manager is another program: its values are checked).
bool powerStatusOf(const px_event_2_t* event, uint32_t* out) {
    const px_event_attr_t* a = findAttr(event, "PowerStatus");
    if (a == nullptr) {
        return false;
    }
    switch (a->pe_type) {
        case ZN_UINT32:
            *out = a->pe_value.val_uint32;
            return true;
        case ZN_INT32:
            *out = static_cast<uint32_t>(a->pe_value.val_int32);
            return a->pe_value.val_int32 >= 0;
        case ZN_UINT64:
            *out = static_cast<uint32_t>(a->pe_value.val_uint64);
            return a->pe_value.val_uint64 <= UINT32_MAX;
        case ZN_INT64:
            *out = static_cast<uint32_t>(a->pe_value.val_int64);
            return a->pe_value.val_int64 >= 0 && a->pe_value.val_int64 <= UINT32_MAX;
        default:
            return false;
    }
}

}  // namespace

void ManagedNodeRccp::scheduleLocalPEXEventReg(unsigned int seconds) {
    statusSchedule_->addOperation("PowerStatusEventReg", &ManagedNodeRccp::regLocalPEXEvent, this,
                                  seconds);
}

void ManagedNodeRccp::regLocalPEXEvent(void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    NodePEXIface pex;
    px_session_t session = nullptr;
    if (pex.startSession(nullptr, 1, &session) != PX_OK) {
        cu_error_t* err = nullptr;
        cu_get_error(&err);
        cu_rel_error_1(err);
        self->scheduleLocalPEXEventReg(30);
        return;
    }
    const char* names[] = {"Hostname"};
    px_reg_event_rsp_t* rsp = nullptr;
    int rc = px_reg_event_select(session, 2, kHwCtrlClass, nullptr, names, 1, kPowerExpression,
                                 nullptr, &ManagedNodeRccp::powerStatusEventCB, self, &rsp);
    if (rc == PX_OK && rsp->hdr.pr_error == nullptr) {
        orvrminfo_trace("regLocalPEXEvent: Registration Successful");
        uint64_t regId = rsp->registration;
        px_free_response(rsp);
        if (!self->createLocalPEXCBThread(&session, regId)) {
            pex.endSession(session);  // the class is going away
        }
        return;
    }
    cu_error_t* err = nullptr;
    if (rc != PX_OK) {
        cu_get_error(&err);
        orvrmlog_error("ManagedNodeRccp::regLocalPEXEvent", err);
        cu_rel_error_1(err);
    } else {
        orvrmlog_error("ManagedNodeRccp::regLocalPEXEvent", rsp->hdr.pr_error);
    }
    px_free_response(rsp);
    pex.endSession(session);
    self->scheduleLocalPEXEventReg(30);
}

bool ManagedNodeRccp::createLocalPEXCBThread(px_session_t* session, uint64_t regId) {
    return adoptEventSession(localLink_, *session, regId,
                             std::make_unique<LocalPEXCBThread>(this, *session));
}

void ManagedNodeRccp::powerStatusEventCB(void*, px_event_2_t* event, void* arg) {
    auto* self = static_cast<ManagedNodeRccp*>(arg);
    {
        tarn_rmf2v::lockRccp guard(self);
        orvrminfo_trace("powerStatusEventCB: Entered");
        if ((event->pe_flags & PX_EVENT_ERROR) == 0) {
            orvrminfo_trace("powerStatusEventCB: event Flag %x", event->pe_flags);
            orvrminfo_trace("powerStatusEventCB: Attribute Count %d",
                            static_cast<int>(event->pe_attr_count));
            uint32_t power = 0;
            const char* host = hostnameOf(event);
            if (host != nullptr && powerStatusOf(event, &power)) {
                self->setPowerStatus(host, power);
            }
        } else {
            orvrminfo_trace("powerStatusEventCB: Error Event errnum %x",
                            static_cast<unsigned>(event->pe_errnum));
            bool known = false;
            for (int32_t e : kUnknownAfter) {
                known = known || e == event->pe_errnum;
            }
            const char* host = known ? hostnameOf(event) : nullptr;
            if (host != nullptr) {
                orvrminfo_trace("powerStatusEventCB: Error event - Hostname %s", host);
                self->setPowerStatus(host, kStatusUnknown);
            }
        }
    }
    px_free_response(event);
}

}  // namespace orvrm
