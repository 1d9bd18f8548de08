// One connection of a client to the service: opened with a bounded connect,
// then request/reply calls matched by id (notifications and stale replies of
// earlier timed-out calls are skipped; notifications go to a sink when one
// is set), one at a time or pipelined. Owns its socket. Not thread-safe: the
// session serialises its calls.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "znpex/client/Contact.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace znpex::client {

class Connection {
public:
    // Null with the reason when the service cannot be reached in time.
    static std::unique_ptr<Connection> open(const Contact& contact, int connectTimeoutMs,
                                            std::string* why);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    enum class Status { Ok, Timeout, Failed };
    // Sends one request and waits up to timeoutMs for its reply (a result or
    // an error message). Failed also marks the connection broken: a frame may
    // be half written or the stream is unusable.
    Status call(const std::string& method, proto::Json params, int timeoutMs,
                proto::RpcMessage& reply, std::string* why);
    // Sends the requests with up to `window` of them on the wire at once and
    // puts each reply at its request's index, in whatever order they come.
    // timeoutMs bounds the wait for each next reply, so a long batch that
    // keeps moving never times out. On Timeout or Failed the replies are
    // incomplete; replies that come later are skipped as stale.
    struct Request {
        std::string method;
        proto::Json params;
    };
    Status callMany(std::vector<Request> requests, size_t window, int timeoutMs,
                    std::vector<proto::RpcMessage>& replies, std::string* why);
    // Notifications read by call() or pump() go to the sink (none: skipped).
    using NotificationSink = std::function<void(proto::RpcMessage&&)>;
    void setNotificationSink(NotificationSink sink) { sink_ = std::move(sink); }
    // Sees each frame first; true when it took the frame, which then goes
    // nowhere else (the sink reads only what it leaves).
    using FrameFilter = std::function<bool(const std::string& frame)>;
    void setFrameFilter(FrameFilter filter) { filter_ = std::move(filter); }
    // Waits up to timeoutMs (< 0: no limit) for a frame, then takes whatever
    // else is already there; notifications go to the sink, stale replies are
    // skipped. With wakeFd (-1: none) the wait also ends, Ok, as soon as
    // that descriptor is readable; the caller clears it.
    Status pump(int timeoutMs, std::string* why, int wakeFd = -1);
    bool broken() const { return broken_; }
    const Contact& contact() const { return contact_; }

private:
    Connection(int fd, Contact contact);
    Status send(uint64_t id, const std::string& method, proto::Json params, int timeoutMs,
                std::string* why);
    // Reads until the reply to an id in [first, last) comes; anything else is
    // a notification (to the sink) or the stale reply of an earlier call.
    Status receive(uint64_t first, uint64_t last, int timeoutMs, proto::RpcMessage& reply,
                   std::string* why);
    int fd_;
    Contact contact_;
    proto::FdFrameReader reader_;
    uint64_t nextId_ = 1;
    bool broken_ = false;
    NotificationSink sink_;
    FrameFilter filter_;
};

}  // namespace znpex::client
