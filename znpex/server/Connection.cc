#include "znpex/server/Connection.h"

#include <algorithm>
#include <vector>

#include "znpex/proto/Frame.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {
namespace {

std::atomic<uint64_t> gNextConnectionId{1};

// Payload bytes are read in pieces of this size, so memory follows what has
// actually arrived rather than what the header announced.
constexpr size_t kReadChunk = 64u << 10;
// Frames handed to one gathered write.
constexpr size_t kWriteBatch = 64;
// After the last message, what the peer still sends is read and dropped for
// this long (or this much) so the close does not reset the connection before
// the peer has read that message.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr size_t kLingerBytes = 1u << 20;
constexpr size_t kDrainChunk = 4096;

}  // namespace

Connection::Connection(Socket socket, Transport transport, std::string identity, uid_t uid,
                       ConnectionHandler& handler)
    : socket_(std::move(socket)),
      strand_(asio::make_strand(socket_.get_executor())),
      id_(gNextConnectionId.fetch_add(1)),
      transport_(transport),
      identity_(std::move(identity)),
      uid_(uid),
      handler_(handler) {}

Connection::~Connection() = default;

void Connection::start() {
    asio::dispatch(strand_, [self = shared_from_this()] { self->readHeader(); });
}

void Connection::readHeader() {
    auto self = shared_from_this();
    asio::async_read(socket_, asio::buffer(header_),
                     asio::bind_executor(strand_, [self](const asio::error_code& ec, size_t) {
                         if (ec) {
                             self->shutdown();
                             return;
                         }
                         if (!self->reading_) {
                             return;
                         }
                         uint32_t n = proto::frameLength(self->header_);
                         if (n > proto::kMaxFrame) {
                             self->reading_ = false;
                             self->handler_.onOversize(self, n);
                             return;
                         }
                         self->want_ = n;
                         self->body_.clear();
                         self->readBody(0);
                     }));
}

void Connection::readBody(size_t have) {
    auto self = shared_from_this();
    if (have == want_) {
        std::string payload;
        payload.swap(body_);
        handler_.onMessage(self, std::move(payload));
        if (reading_ && !closed_) {
            readHeader();
        }
        return;
    }
    size_t chunk = std::min(kReadChunk, want_ - have);
    body_.resize(have + chunk);
    asio::async_read(
        socket_, asio::buffer(body_.data() + have, chunk),
        asio::bind_executor(strand_, [self, have, chunk](const asio::error_code& ec, size_t) {
            if (ec) {
                self->shutdown();
                return;
            }
            if (self->reading_) {
                self->readBody(have + chunk);
            }
        }));
}

void Connection::send(std::string payload) {
    enqueue(std::move(payload), false);
}

void Connection::sendThenClose(std::string payload) {
    enqueue(std::move(payload), true);
}

void Connection::close() {
    asio::dispatch(strand_, [self = shared_from_this()] { self->shutdown(); });
}

void Connection::enqueue(std::string payload, bool last) {
    asio::dispatch(strand_, [self = shared_from_this(), payload = std::move(payload), last] {
        if (self->closed_ || self->closeAfterWrite_) {
            return;
        }
        std::string frame;
        frame.reserve(proto::kFrameHeader + payload.size());
        proto::appendFrameHeader(frame, payload.size());
        frame.append(payload);
        self->outBytes_ += frame.size();
        if (self->outBytes_ > kMaxQueuedBytes) {
            // The peer does not read what it asked for: it alone is dropped,
            // so the others' messages keep flowing.
            serviceLog("connection %llu (%s) closed: more than %zu MiB sent to it are unread",
                       static_cast<unsigned long long>(self->id_), self->identity_.c_str(),
                       kMaxQueuedBytes >> 20);
            self->shutdown();
            return;
        }
        self->out_.push_back(std::move(frame));
        if (last) {
            self->closeAfterWrite_ = true;
            self->reading_ = false;
        }
        self->writeNext();
    });
}

void Connection::writeNext() {
    if (writing_ || closed_) {
        return;
    }
    if (out_.empty()) {
        if (closeAfterWrite_) {
            lingerThenClose();
        }
        return;
    }
    size_t count = std::min(out_.size(), kWriteBatch);
    std::vector<asio::const_buffer> bufs;
    bufs.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        bufs.push_back(asio::buffer(out_[i]));
    }
    writing_ = true;
    auto self = shared_from_this();
    asio::async_write(
        socket_, bufs,
        asio::bind_executor(strand_, [self, count](const asio::error_code& ec, size_t) {
            self->writing_ = false;
            for (size_t i = 0; i < count && !self->out_.empty(); ++i) {
                self->outBytes_ -= self->out_.front().size();
                self->out_.pop_front();
            }
            if (ec) {
                self->shutdown();
                return;
            }
            self->writeNext();
        }));
}

void Connection::lingerThenClose() {
    asio::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_send, ignored);
    lingerTimer_ = std::make_unique<asio::steady_timer>(strand_, kLingerTime);
    auto self = shared_from_this();
    lingerTimer_->async_wait([self](const asio::error_code&) { self->shutdown(); });
    drainBuf_ = std::make_unique<char[]>(kDrainChunk);
    drain(0);
}

void Connection::drain(size_t dropped) {
    auto self = shared_from_this();
    socket_.async_read_some(
        asio::buffer(drainBuf_.get(), kDrainChunk),
        asio::bind_executor(strand_, [self, dropped](const asio::error_code& ec, size_t n) {
            if (ec || dropped + n > kLingerBytes) {
                self->shutdown();
                return;
            }
            self->drain(dropped + n);
        }));
}

void Connection::shutdown() {
    if (closed_.exchange(true)) {
        return;
    }
    asio::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_both, ignored);
    socket_.close(ignored);
    if (lingerTimer_) {
        lingerTimer_->cancel();
    }
    out_.clear();
    outBytes_ = 0;
    handler_.onClosed(shared_from_this());
}

}  // namespace znpex::server
