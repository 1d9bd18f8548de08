#include "tarn_rmf2v/link/RMServiceConnection.h"

#include <algorithm>

#include "platform/paths.h"
#include "tarn_base/CTraceManager.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMDiLink.h"
#include "tarn_rmf2v/link/RMServiceCall.h"
#include "tarn_rmf2v/link/RMServiceOutbox.h"
#include "tarn_rmf2v/link/RMServiceSession.h"
#include "znpex/proto/AttributesModifiedText.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/proto/ValueCodec.h"

namespace tarn_rmf2v {
namespace {

namespace proto = znpex::proto;

constexpr unsigned kTraceErrors = 0;
constexpr unsigned kTraceInfo = 1;

tarn_base::CTraceComponent* trace() {
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    static tarn_base::CTraceComponent* c = tarn_base::CTraceManager::newComponent("_RMF", cats, 2);
    return c;
}

RMServiceConnectionOptions withDefaults(RMServiceConnectionOptions o) {
    if (o.socketPath.empty()) {
        o.socketPath = zn::paths::resolve(zn::paths::kPexSocket);
    }
    o.minBackoff = std::max(o.minBackoff, std::chrono::milliseconds(1));
    o.maxBackoff = std::max(o.maxBackoff, o.minBackoff);
    if (o.clock == nullptr) {
        o.clock = &zn::processClock();
    }
    return o;
}

}  // namespace

RMServiceConnection::RMServiceConnection(RMRmcp& rmcp, RMServiceConnectionOptions options)
    : rmcp_(rmcp),
      options_(withDefaults(std::move(options))),
      outbox_(std::make_shared<RMServiceOutbox>(options_.maxQueuedBytes, *options_.clock)) {}

RMServiceConnection::~RMServiceConnection() {
    stop();
}

void RMServiceConnection::start() {
    if (started_.exchange(true)) {
        return;
    }
    installDiLink(options_.socketPath, rmcp_.getRmName());
    thread_ = std::thread([this] { run(); });
}

void RMServiceConnection::stop() {
    outbox_->requestStop();
    if (thread_.joinable()) {
        thread_.join();
        removeDiLink();
    }
}

bool RMServiceConnection::connected() const {
    return outbox_->registered();
}

uint64_t RMServiceConnection::attempts() const {
    return attempts_.load();
}

uint64_t RMServiceConnection::registrations() const {
    return registrations_.load();
}

uint64_t RMServiceConnection::dropped() const {
    return outbox_->dropped();
}

void RMServiceConnection::run() {
    auto delay = options_.minBackoff;
    bool reportedDown = false;
    while (!outbox_->stopping()) {
        std::string why;
        int fd = connectServiceSocket(options_.socketPath, &why);
        attempts_.fetch_add(1);
        if (fd >= 0) {
            bool wasRegistered = false;
            {
                RMServiceSession session(fd, rmcp_, outbox_, *options_.clock,
                                         options_.registerTimeout, options_.stallTimeout,
                                         [this] { established(); });
                wasRegistered = session.run(&why);
            }
            if (wasRegistered) {
                lost();
                delay = options_.minBackoff;  // it worked once: try again soon
                reportedDown = false;
            }
        }
        if (outbox_->stopping()) {
            break;
        }
        if (!reportedDown) {
            // Once per outage, not once per attempt.
            if (auto* t = trace()) {
                t->writef(kTraceErrors, "service connection of %s: %s; retrying",
                          rmcp_.getRmName().c_str(), why.c_str());
            }
            reportedDown = true;
        }
        if (outbox_->sleepUnlessStopped(delay)) {
            break;
        }
        delay = std::min(delay * 2, options_.maxBackoff);
    }
}

void RMServiceConnection::established() {
    registrations_.fetch_add(1);
    if (auto* t = trace()) {
        t->writef(kTraceInfo, "%s registered with the monitoring service",
                  rmcp_.getRmName().c_str());
    }
    rmcp_.setServiceLink(this);
    rmcp_.connectionChanged(RM_CONNECTION_ESTABLISHED);
}

void RMServiceConnection::lost() {
    rmcp_.setServiceLink(nullptr);
    rmcp_.connectionChanged(RM_CONNECTION_LOST);
}

void RMServiceConnection::resourcesUndefined(const std::string& className,
                                             const std::vector<zn_resource_handle>& handles) {
    proto::ResourcesUndefined n{className, handles};
    outbox_->post(0, proto::dumpJson(proto::makeNotification(proto::kNotifyResourcesUndefined,
                                                             proto::encodeResourcesUndefined(n))));
}

void RMServiceConnection::attributesModified(const std::string& className,
                                             const zn_resource_handle* handle, bool persistent,
                                             const rm_attribute_value* values, unsigned int count) {
    if (!outbox_->registered()) {
        return;  // nobody to tell; skip the copies
    }
    try {
        outbox_->post(
            0, proto::attributesModifiedNotification(className, handle, persistent, values, count));
    } catch (const std::exception& e) {
        if (auto* t = trace()) {
            t->writef(kTraceErrors, "attributesModified of %s not sent: %s", className.c_str(),
                      e.what());
        }
    }
}

void RMServiceConnection::sendPeerMessage(int type, int subtype, const void* data,
                                          unsigned int length) {
    if (length > proto::kMaxPeerMessage) {
        if (auto* t = trace()) {
            t->writef(kTraceErrors, "peer message of %u bytes not sent: over the limit", length);
        }
        return;
    }
    proto::PeerMessage m;
    m.type = type;
    m.subtype = subtype;
    if (data != nullptr && length > 0) {
        auto* p = static_cast<const unsigned char*>(data);
        m.data.assign(p, p + length);
    }
    outbox_->post(
        0, proto::dumpJson(proto::makeNotification(proto::kPeerSend, proto::encodePeerMessage(m))));
}

}  // namespace tarn_rmf2v
