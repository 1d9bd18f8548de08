#include "tarn_rmf2v/link/RMServiceSession.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMServiceOutbox.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ServiceMessages.h"

namespace tarn_rmf2v {
namespace {

namespace proto = znpex::proto;

// The id of the registration request; the service's own requests use theirs.
const proto::Json kRegisterId = "register";

bool stop(std::string* why, std::string text) {
    *why = std::move(text);
    return false;
}

}  // namespace

RMServiceSession::RMServiceSession(int fd, RMRmcp& rmcp, std::shared_ptr<RMServiceOutbox> outbox,
                                   zn::Clock& clock, std::chrono::milliseconds registerTimeout,
                                   std::chrono::milliseconds stallTimeout,
                                   std::function<void()> onRegistered)
    : fd_(fd),
      rmcp_(rmcp),
      outbox_(std::move(outbox)),
      clock_(clock),
      registerTimeout_(registerTimeout),
      stallTimeout_(stallTimeout),
      onRegistered_(std::move(onRegistered)) {}

RMServiceSession::~RMServiceSession() {
    outbox_->end();
    ::close(fd_);
}

bool RMServiceSession::run(std::string* why) {
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
    generation_ = outbox_->begin();
    proto::RegisterParams reg;
    reg.rm = rmcp_.getRmName();
    for (RMRccp* c : rmcp_.classes()) {
        reg.classes.push_back(c->classDef());
    }
    outbox_->post(generation_, proto::dumpJson(proto::makeRequest(kRegisterId, proto::kRmRegister,
                                                                  proto::encodeRegister(reg))));
    const zn::Clock::Duration registerBy = clock_.monoNow() + registerTimeout_;
    for (;;) {
        if (outbox_->stopping()) {
            *why = "stopping";
            return registered_;
        }
        zn::Clock::Duration now = clock_.monoNow();
        if (woff_ < wbuf_.size() && now - lastProgress_ > stallTimeout_) {
            *why = "the service does not read what is sent to it";
            return registered_;
        }
        // The stall timeout is looked at between polls, at least this often.
        zn::Clock::Duration wait = std::chrono::milliseconds(100);
        if (!registered_) {
            if (now >= registerBy) {
                *why = "the service did not answer the registration in time";
                return false;
            }
            wait = std::min(wait, clock_.waitSlice(registerBy));
        }
        if (woff_ == wbuf_.size()) {
            wbuf_.clear();
            woff_ = 0;
            outbox_->takeAll(wbuf_);
            lastProgress_ = now;
        }
        pollfd fds[2] = {{fd_, static_cast<short>(POLLIN | (wbuf_.empty() ? 0 : POLLOUT)), 0},
                         {outbox_->wakeFd(), POLLIN, 0}};
        int rc = ::poll(fds, 2, zn::pollTimeoutMs(wait));
        if (rc < 0 && errno != EINTR) {
            *why = std::string("poll: ") + std::strerror(errno);
            return registered_;
        }
        if (rc <= 0) {
            continue;
        }
        if (fds[1].revents != 0) {
            outbox_->clearWake();
        }
        if ((fds[0].revents & POLLOUT) != 0 && !writeSome(why)) {
            return registered_;
        }
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0 && !readSome(why)) {
            return registered_;
        }
    }
}

bool RMServiceSession::writeSome(std::string* why) {
    while (woff_ < wbuf_.size()) {
        ssize_t n =
            ::send(fd_, wbuf_.data() + woff_, wbuf_.size() - woff_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        if (n <= 0) {
            return stop(why, std::string("writing to the service: ") + std::strerror(errno));
        }
        woff_ += static_cast<size_t>(n);
        lastProgress_ = clock_.monoNow();
    }
    return true;
}

bool RMServiceSession::readSome(std::string* why) {
    char buf[64 * 1024];
    ssize_t n = ::recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return true;
    }
    if (n < 0) {
        return stop(why, std::string("reading from the service: ") + std::strerror(errno));
    }
    if (n == 0) {
        return stop(why, "the service closed the connection");
    }
    std::vector<std::string> frames;
    try {
        frames = decoder_.feed(buf, static_cast<size_t>(n));
    } catch (const proto::ProtocolError& e) {
        return stop(why, std::string("the service sent a bad frame: ") + e.what());
    }
    for (const std::string& f : frames) {
        if (!handle(f, why)) {
            return false;
        }
    }
    return true;
}

bool RMServiceSession::handle(const std::string& payload, std::string* why) {
    proto::RpcMessage m;
    try {
        m = proto::parseMessage(payload);
    } catch (const proto::ProtocolError& e) {
        return stop(why, std::string("the service sent a bad message: ") + e.what());
    }
    switch (m.kind) {
        case proto::RpcMessage::Kind::Request:
            handleRequest(m);
            return true;
        case proto::RpcMessage::Kind::Notification:
            if (m.method == proto::kPeerReceived) {
                try {
                    proto::PeerMessage p = proto::decodePeerMessage(m.params);
                    rmcp_.PEXMessageReceived(p.type, p.subtype, p.data.data(),
                                             static_cast<unsigned int>(p.data.size()));
                } catch (const proto::ProtocolError&) {
                    // A peer message we cannot read is dropped; it has no reply.
                }
            }
            return true;  // the service's connection notice needs no action
        case proto::RpcMessage::Kind::Result:
        case proto::RpcMessage::Kind::Error:
            return m.id == kRegisterId ? handleRegisterAnswer(m, why) : true;
    }
    return true;
}

bool RMServiceSession::handleRegisterAnswer(const proto::RpcMessage& m, std::string* why) {
    if (registered_) {
        return true;
    }
    if (m.kind == proto::RpcMessage::Kind::Error) {
        std::string text = m.errorMessage;
        if (m.errorData.is_object() && m.errorData.contains("text") &&
            m.errorData["text"].is_string()) {
            text = m.errorData["text"].get<std::string>();
        }
        return stop(why, "the service refused the registration: " + text);
    }
    registered_ = true;
    outbox_->setRegistered(true);
    if (onRegistered_) {
        onRegistered_();
    }
    return true;
}

void RMServiceSession::handleRequest(proto::RpcMessage& m) {
    auto op = proto::opFromRmMethod(m.method);
    if (!op || !registered_) {
        outbox_->post(generation_, proto::dumpJson(proto::makeError(m.id, proto::kMethodNotFound,
                                                                    "no method " + m.method)));
        return;
    }
    RMRequest request;
    try {
        request = proto::decodeRequestParams(*op, m.params);
    } catch (const proto::ProtocolError& e) {
        outbox_->post(generation_,
                      proto::dumpJson(proto::makeError(m.id, proto::kInvalidParams, e.what())));
        return;
    }
    // The reply is written by the I/O thread; a dispatch thread only queues it,
    // and drops it if this connection has been replaced meanwhile.
    rmcp_.submit(std::move(request), [outbox = outbox_, generation = generation_,
                                      id = m.id](RMReply&& reply) {
        std::string payload;
        try {
            payload = proto::dumpJson(proto::makeResult(id, proto::encodeReply(reply)));
        } catch (const std::exception& e) {
            payload = proto::dumpJson(proto::makeError(id, proto::kInternalError, e.what()));
        }
        outbox->post(generation, payload);
    });
}

}  // namespace tarn_rmf2v
