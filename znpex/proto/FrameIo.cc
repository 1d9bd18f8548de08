#include "znpex/proto/FrameIo.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {
namespace {

using Clock = std::chrono::steady_clock;

struct Deadline {
    explicit Deadline(int timeoutMs)
        : unlimited(timeoutMs < 0), end(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}
    // Milliseconds left for poll: -1 unlimited, 0 when passed.
    int remaining() const {
        if (unlimited) {
            return -1;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }
    bool unlimited;
    Clock::time_point end;
};

// Waits until fd is ready for `events`. Ok, Timeout or Failed.
IoStatus waitReady(int fd, short events, const Deadline& d) {
    for (;;) {
        pollfd p{fd, events, 0};
        int left = d.remaining();
        if (left == 0 && !d.unlimited) {
            // One last non-blocking look, so a zero timeout still reads what is there.
            int rc = ::poll(&p, 1, 0);
            return rc > 0 ? IoStatus::Ok : rc == 0 ? IoStatus::Timeout : IoStatus::Failed;
        }
        int rc = ::poll(&p, 1, left);
        if (rc > 0) {
            return IoStatus::Ok;
        }
        if (rc == 0) {
            return IoStatus::Timeout;
        }
        if (errno != EINTR) {
            return IoStatus::Failed;
        }
    }
}

ssize_t sendSome(int fd, const char* p, size_t n) {
    ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0 && errno == ENOTSOCK) {
        w = ::write(fd, p, n);
    }
    return w;
}

}  // namespace

const char* ioStatusText(IoStatus s) {
    switch (s) {
        case IoStatus::Ok:
            return "ok";
        case IoStatus::Closed:
            return "connection closed";
        case IoStatus::Timeout:
            return "timed out";
        case IoStatus::TooLarge:
            return "frame too large";
        case IoStatus::Truncated:
            return "connection closed inside a frame";
        case IoStatus::Failed:
            return "i/o failure";
    }
    return "?";
}

IoStatus writeAll(int fd, const void* data, size_t n, int timeoutMs) {
    Deadline d(timeoutMs);
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t w = sendSome(fd, p, n);
        if (w > 0) {
            p += w;
            n -= static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            IoStatus s = waitReady(fd, POLLOUT, d);
            if (s != IoStatus::Ok) {
                return s;
            }
            continue;
        }
        return IoStatus::Failed;
    }
    return IoStatus::Ok;
}

IoStatus writeFrame(int fd, std::string_view payload, int timeoutMs, size_t maxFrame) {
    if (payload.size() > maxFrame) {
        return IoStatus::TooLarge;
    }
    std::string frame = encodeFrame(payload, maxFrame);
    return writeAll(fd, frame.data(), frame.size(), timeoutMs);
}

IoStatus FdFrameReader::next(std::string& payload, int timeoutMs) {
    Deadline d(timeoutMs);
    char buf[64 * 1024];
    while (ready_.empty()) {
        IoStatus s = waitReady(fd_, POLLIN, d);
        if (s != IoStatus::Ok) {
            return s;
        }
        ssize_t r = ::read(fd_, buf, sizeof buf);
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
                continue;
            }
            return IoStatus::Failed;
        }
        if (r == 0) {
            return decoder_.midFrame() ? IoStatus::Truncated : IoStatus::Closed;
        }
        try {
            for (auto& f : decoder_.feed(buf, static_cast<size_t>(r))) {
                ready_.push_back(std::move(f));
            }
        } catch (const ProtocolError&) {
            return IoStatus::TooLarge;
        }
    }
    payload = std::move(ready_.front());
    ready_.pop_front();
    return IoStatus::Ok;
}

}  // namespace znpex::proto
