#include "znpex/client/Connection.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace znpex::client {
namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Connects fd to addr within the deadline; 0 or an errno value.
int connectWithin(int fd, const sockaddr* addr, socklen_t len, Clock::time_point end) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int err = 0;
    if (::connect(fd, addr, len) != 0) {
        err = errno;
        if (err == EINPROGRESS || err == EAGAIN || err == EINTR) {
            pollfd p{fd, POLLOUT, 0};
            int rc;
            do {
                rc = ::poll(&p, 1, msLeft(end));
            } while (rc < 0 && errno == EINTR);
            if (rc == 0) {
                return ETIMEDOUT;
            }
            socklen_t sl = sizeof err;
            err = 0;
            if (rc < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &sl) != 0) {
                err = errno;
            }
        }
    }
    ::fcntl(fd, F_SETFL, flags);
    return err;
}

int openLocal(const Contact& c, Clock::time_point end, std::string* why) {
    std::string path = c.text();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *why = "the socket path is too long";
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *why = std::strerror(errno);
        return -1;
    }
    int err = connectWithin(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr, end);
    if (err != 0) {
        *why = std::strerror(err);
        ::close(fd);
        return -1;
    }
    return fd;
}

int openTcp(const Contact& c, Clock::time_point end, std::string* why) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    std::string port = std::to_string(c.port);
    int rc = ::getaddrinfo(c.host.c_str(), port.c_str(), &hints, &list);
    if (rc != 0) {
        *why = ::gai_strerror(rc);
        return -1;
    }
    int fd = -1;
    *why = "no address";
    for (addrinfo* a = list; a != nullptr && fd < 0; a = a->ai_next) {
        int s = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (s < 0) {
            *why = std::strerror(errno);
            continue;
        }
        int err = connectWithin(s, a->ai_addr, a->ai_addrlen, end);
        if (err != 0) {
            *why = std::strerror(err);
            ::close(s);
            continue;
        }
        int one = 1;
        ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        fd = s;
    }
    ::freeaddrinfo(list);
    return fd;
}

}  // namespace

std::unique_ptr<Connection> Connection::open(const Contact& contact, int connectTimeoutMs,
                                             std::string* why) {
    auto end = Clock::now() + std::chrono::milliseconds(connectTimeoutMs);
    int fd = contact.local ? openLocal(contact, end, why) : openTcp(contact, end, why);
    if (fd < 0) {
        return nullptr;
    }
    return std::unique_ptr<Connection>(new Connection(fd, contact));
}

Connection::Connection(int fd, Contact contact)
    : fd_(fd), contact_(std::move(contact)), reader_(fd) {}

Connection::~Connection() {
    ::close(fd_);
}

Connection::Status Connection::call(const std::string& method, proto::Json params, int timeoutMs,
                                    proto::RpcMessage& reply, std::string* why) {
    uint64_t id = nextId_++;
    if (Status st = send(id, method, std::move(params), timeoutMs, why); st != Status::Ok) {
        return st;
    }
    return receive(id, id + 1, timeoutMs, reply, why);
}

Connection::Status Connection::callMany(std::vector<Request> requests, size_t window, int timeoutMs,
                                        std::vector<proto::RpcMessage>& replies, std::string* why) {
    size_t n = requests.size();
    replies.assign(n, proto::RpcMessage{});
    std::vector<bool> have(n, false);
    uint64_t first = nextId_;
    nextId_ += n;
    window = window > 0 ? window : 1;
    size_t sent = 0;
    size_t got = 0;
    while (got < n) {
        for (; sent < n && sent - got < window; ++sent) {
            Request& r = requests[sent];
            if (Status st = send(first + sent, r.method, std::move(r.params), timeoutMs, why);
                st != Status::Ok) {
                return st;
            }
        }
        proto::RpcMessage m;
        if (Status st = receive(first, first + sent, timeoutMs, m, why); st != Status::Ok) {
            return st;
        }
        size_t i = static_cast<size_t>(m.id.get<uint64_t>() - first);
        if (!have[i]) {  // a second answer to one request is not counted twice
            have[i] = true;
            replies[i] = std::move(m);
            ++got;
        }
    }
    return Status::Ok;
}

Connection::Status Connection::send(uint64_t id, const std::string& method, proto::Json params,
                                    int timeoutMs, std::string* why) {
    if (broken_) {
        *why = "the connection was lost earlier";
        return Status::Failed;
    }
    std::string payload = proto::dumpJson(proto::makeRequest(id, method, std::move(params)));
    proto::IoStatus ws = proto::writeFrame(fd_, payload, timeoutMs);
    if (ws != proto::IoStatus::Ok) {
        // Part of the frame may be on the wire: nothing more can follow it.
        broken_ = true;
        *why = ws == proto::IoStatus::Failed ? std::strerror(errno) : proto::ioStatusText(ws);
        return ws == proto::IoStatus::Timeout ? Status::Timeout : Status::Failed;
    }
    return Status::Ok;
}

Connection::Status Connection::receive(uint64_t first, uint64_t last, int timeoutMs,
                                       proto::RpcMessage& reply, std::string* why) {
    if (broken_) {
        *why = "the connection was lost earlier";
        return Status::Failed;
    }
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        std::string frame;
        proto::IoStatus rs = reader_.next(frame, msLeft(end));
        if (rs == proto::IoStatus::Timeout) {
            *why = "no answer";
            return Status::Timeout;  // a late answer is skipped by the next call
        }
        if (rs != proto::IoStatus::Ok) {
            broken_ = true;
            *why = rs == proto::IoStatus::Failed ? std::strerror(errno) : proto::ioStatusText(rs);
            return Status::Failed;
        }
        if (filter_ && filter_(frame)) {
            continue;
        }
        try {
            reply = proto::parseMessage(frame);
        } catch (const proto::ProtocolError& e) {
            broken_ = true;
            *why = e.what();
            return Status::Failed;
        }
        bool isReply = reply.kind == proto::RpcMessage::Kind::Result ||
                       reply.kind == proto::RpcMessage::Kind::Error;
        if (!isReply) {
            if (sink_) {
                sink_(std::move(reply));
            }
            continue;
        }
        if (reply.id.is_number_unsigned()) {
            uint64_t id = reply.id.get<uint64_t>();
            if (id >= first && id < last) {
                return Status::Ok;
            }
        }
        if (reply.kind == proto::RpcMessage::Kind::Error && reply.id.is_null()) {
            // The service could not read what we sent and is closing.
            broken_ = true;
            *why = reply.errorMessage;
            return Status::Failed;
        }
        // Anything else answers an earlier call that timed out.
    }
}

Connection::Status Connection::pump(int timeoutMs, std::string* why, int wakeFd) {
    if (broken_) {
        *why = "the connection was lost earlier";
        return Status::Failed;
    }
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0);
    bool took = false;
    for (;;) {
        std::string frame;
        proto::IoStatus rs = reader_.next(frame, 0);  // what has come already
        if (rs == proto::IoStatus::Timeout) {
            if (took || timeoutMs == 0) {
                return Status::Ok;
            }
            int left = timeoutMs < 0 ? -1 : msLeft(end);
            if (left == 0) {
                return Status::Timeout;
            }
            pollfd p[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};  // a negative fd is skipped
            int n = ::poll(p, 2, left);
            if (n < 0 && errno != EINTR) {
                broken_ = true;
                *why = std::strerror(errno);
                return Status::Failed;
            }
            if (n > 0 && p[1].revents != 0) {
                return Status::Ok;  // woken: the caller looks why
            }
            continue;  // the socket has something, or it closed: next() tells
        }
        if (rs != proto::IoStatus::Ok) {
            broken_ = true;
            *why = rs == proto::IoStatus::Failed ? std::strerror(errno) : proto::ioStatusText(rs);
            return Status::Failed;
        }
        took = true;
        if (filter_ && filter_(frame)) {
            continue;
        }
        proto::RpcMessage m;
        try {
            m = proto::parseMessage(frame);
        } catch (const proto::ProtocolError& e) {
            broken_ = true;
            *why = e.what();
            return Status::Failed;
        }
        if (m.kind == proto::RpcMessage::Kind::Notification && sink_) {
            sink_(std::move(m));
        }
    }
}

}  // namespace znpex::client
