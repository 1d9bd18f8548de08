#include "znpex/server/Connection.h"

#include <algorithm>
#include <vector>

#include "znpex/proto/Frame.h"
#include "znpex/server/BufferBudget.h"

namespace znpex::server {
namespace {

std::atomic<uint64_t> gNextConnectionId{1};

// Bytes are read in pieces of at most this size, so memory follows what has
// actually arrived rather than what the header announced.
constexpr size_t kReadChunk = 64u << 10;
// Input buffer kept between bursts; a larger one is given back once empty.
constexpr size_t kKeptInput = 4u << 10;
// Frames handed to one gathered write.
constexpr size_t kWriteBatch = 64;
// After the last message, what the peer still sends is read and dropped for
// this long (or this much) so the close does not reset the connection before
// the peer has read that message.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr size_t kLingerBytes = 1u << 20;
constexpr size_t kDrainChunk = 4096;

}  // namespace

const char* closeReasonText(CloseReason r) {
    switch (r) {
        case CloseReason::None:
            return "closed";
        case CloseReason::ReadTimeout:
            return "a frame did not arrive whole in time";
        case CloseReason::IdleTimeout:
            return "idle too long";
        case CloseReason::WriteTimeout:
            return "does not read what it is sent";
        case CloseReason::QueueFull:
            return "too much sent to it is unread";
        case CloseReason::Budget:
            return "the service's buffers are full and it held the oldest";
    }
    return "closed";
}

Connection::Connection(Socket socket, Transport transport, std::string identity, uid_t uid,
                       ConnectionHandler& handler, ConnectionLimits limits, BufferBudget* budget)
    : socket_(std::move(socket)),
      strand_(asio::make_strand(socket_.get_executor())),
      id_(gNextConnectionId.fetch_add(1)),
      transport_(transport),
      identity_(std::move(identity)),
      uid_(uid),
      handler_(handler),
      budget_(budget),
      limits_(limits),
      authenticated_(transport == Transport::Local) {}

Connection::~Connection() = default;

void Connection::start() {
    asio::dispatch(strand_, [self = shared_from_this()] {
        self->applySocketLimits(0);
        self->lastFrame_ = Clock::now();
        self->armWatchdog();
        self->readMore(false);
    });
}

Connection::Clock::time_point Connection::heldSince() const {
    return Clock::time_point(Clock::duration(heldSince_.load(std::memory_order_relaxed)));
}

bool Connection::readingPaused() const {
    return limits_.pauseReadingAbove != 0 && outBytes_ > limits_.pauseReadingAbove;
}

void Connection::hold(size_t bytes) {
    size_t old = held_.exchange(bytes, std::memory_order_relaxed);
    if (old == 0 && bytes != 0) {
        heldSince_.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    if (budget_ == nullptr || old == bytes) {
        return;
    }
    if (bytes > old) {
        budget_->charge(bytes - old);
    } else {
        budget_->release(old - bytes);
    }
}

void Connection::applySocketLimits(size_t previousSendBuffer) {
    size_t want = limits_.kernelSendBuffer;
    if (want == previousSendBuffer || closed_ || (want == 0 && previousSendBuffer == 0)) {
        return;
    }
    // Once fixed, the kernel no longer sizes the buffer itself: a caller
    // that authenticated gets a large one instead.
    asio::error_code ignored;
    socket_.set_option(
        asio::socket_base::send_buffer_size(static_cast<int>(want != 0 ? want : (4u << 20))),
        ignored);
}

void Connection::readMore(bool tryNow) {
    auto self = shared_from_this();
    for (;;) {
        if (!reading_ || closed_) {
            return;
        }
        if (!inFrame_ && readingPaused()) {
            readParked_ = true;  // resumed when the peer has read enough
            return;
        }
        size_t need = 0;
        if (takeFrame(&need)) {
            continue;
        }
        if (!reading_ || closed_) {
            return;  // the header announced too much
        }
        if (tryNow) {
            // What has already arrived comes in one read rather than two
            // per frame; an idle connection keeps no buffer for it.
            size_t got = 0;
            if (!readAvailable(&got)) {
                shutdown();
                return;
            }
            tryNow = got == kReadChunk;  // a full read: more may be waiting
            if (got > 0) {
                continue;
            }
        }
        // Wait for what the header or the frame still lacks, a piece at a time.
        size_t have = in_.size();
        size_t chunk = std::min(kReadChunk, need);
        in_.resize(have + chunk);
        hold(outBytes_ + in_.size());
        if (closed_) {
            return;  // the budget closed it (possibly this one)
        }
        asio::async_read(socket_, asio::buffer(in_.data() + have, chunk),
                         asio::bind_executor(strand_, [self](const asio::error_code& ec, size_t) {
                             if (ec) {
                                 self->shutdown();
                                 return;
                             }
                             self->readMore(true);
                         }));
        return;
    }
}

bool Connection::takeFrame(size_t* need) {
    size_t avail = in_.size() - inOff_;
    if (avail < proto::kFrameHeader) {
        compactInput();
        *need = proto::kFrameHeader - avail;
        return false;
    }
    const auto* head = reinterpret_cast<const unsigned char*>(in_.data() + inOff_);
    uint32_t n = proto::frameLength(head);
    if (n > limits_.maxFrame) {
        reading_ = false;
        handler_.onOversize(shared_from_this(), n);
        return false;
    }
    if (avail - proto::kFrameHeader < n) {
        if (!inFrame_) {
            inFrame_ = true;
            frameStarted_ = Clock::now();
            armWatchdog();
        }
        compactInput();
        *need = proto::kFrameHeader + n - avail;
        return false;
    }
    std::string payload(in_.data() + inOff_ + proto::kFrameHeader, n);
    inOff_ += proto::kFrameHeader + n;
    inFrame_ = false;
    lastFrame_ = Clock::now();
    if (inOff_ == in_.size()) {
        compactInput();  // what is left moves to the front only when more must be read
    }
    hold(outBytes_ + in_.size() - inOff_);
    handler_.onMessage(shared_from_this(), std::move(payload));
    return true;
}

bool Connection::readAvailable(size_t* got) {
    // One scratch buffer per I/O thread; what came is copied out at once.
    thread_local std::unique_ptr<char[]> scratch(new char[kReadChunk]);
    asio::error_code ec;
    if (!socket_.non_blocking()) {
        socket_.non_blocking(true, ec);  // a read that would wait returns at once
    }
    size_t n = ec ? 0 : socket_.read_some(asio::buffer(scratch.get(), kReadChunk), ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again ||
        ec == asio::error::interrupted) {
        *got = 0;
        return true;
    }
    if (ec) {
        return false;  // closed by the peer, or failed
    }
    in_.append(scratch.get(), n);
    *got = n;
    hold(outBytes_ + in_.size());
    return !closed_;
}

void Connection::compactInput() {
    if (inOff_ == 0) {
        return;
    }
    if (inOff_ == in_.size()) {
        // All handled: a connection that bursted does not keep its buffer.
        if (in_.capacity() > kKeptInput) {
            std::string().swap(in_);
        } else {
            in_.clear();
        }
    } else {
        in_.erase(0, inOff_);
    }
    inOff_ = 0;
}

void Connection::send(std::string payload) {
    enqueue(std::move(payload), false, nullptr);
}

void Connection::send(std::string payload, Written written) {
    enqueue(std::move(payload), false, std::move(written));
}

void Connection::sendThenClose(std::string payload) {
    enqueue(std::move(payload), true, nullptr);
}

void Connection::close() {
    asio::dispatch(strand_, [self = shared_from_this()] { self->shutdown(); });
}

void Connection::closeFor(CloseReason reason) {
    CloseReason none = CloseReason::None;
    closeReason_.compare_exchange_strong(none, reason);
    close();
}

bool Connection::condemn() {
    if (closed_ || condemned_.exchange(true)) {
        return false;
    }
    size_t n = held_.load(std::memory_order_relaxed);
    condemnedBytes_.store(n);
    if (budget_ != nullptr) {
        budget_->releasing(n);
    }
    closeFor(CloseReason::Budget);
    return true;
}

void Connection::setLimits(const ConnectionLimits& limits) {
    asio::dispatch(strand_, [self = shared_from_this(), limits] {
        size_t previous = self->limits_.kernelSendBuffer;
        self->limits_ = limits;
        self->applySocketLimits(previous);
        self->armWatchdog();
        if (self->readParked_ && !self->readingPaused() && self->reading_ && !self->closed_) {
            self->readParked_ = false;
            self->readMore(false);
        }
    });
}

void Connection::authenticate(const ConnectionLimits& limits) {
    authenticated_ = true;
    setLimits(limits);
}

void Connection::enqueue(std::string payload, bool last, Written written) {
    asio::dispatch(strand_, [self = shared_from_this(), payload = std::move(payload), last,
                             written = std::move(written)]() mutable {
        if (self->closed_ || self->closeAfterWrite_) {
            if (written) {
                written(false);
            }
            return;
        }
        std::string frame;
        frame.reserve(proto::kFrameHeader + payload.size());
        proto::appendFrameHeader(frame, payload.size());
        frame.append(payload);
        if (self->outBytes_ == 0) {
            self->lastWrite_ = Clock::now();  // the write deadline counts from here
        }
        self->outBytes_ += frame.size();
        if (self->outBytes_ > self->limits_.maxQueued) {
            // The peer does not read what it asked for: it alone is dropped,
            // so the others' messages keep flowing.
            self->closeFor(CloseReason::QueueFull);
            if (written) {
                written(false);
            }
            return;
        }
        self->out_.push_back(Outgoing{std::move(frame), std::move(written)});
        self->hold(self->outBytes_ + self->in_.size() - self->inOff_);
        if (last) {
            self->closeAfterWrite_ = true;
            self->reading_ = false;
        }
        self->armWatchdog();
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
        bufs.push_back(asio::buffer(out_[i].frame));
    }
    writing_ = true;
    auto self = shared_from_this();
    asio::async_write(
        socket_, bufs,
        asio::bind_executor(strand_, [self, count](const asio::error_code& ec, size_t) {
            self->writing_ = false;
            for (size_t i = 0; i < count && !self->out_.empty(); ++i) {
                Outgoing done = std::move(self->out_.front());
                self->outBytes_ -= done.frame.size();
                self->out_.pop_front();
                if (done.written) {
                    done.written(!ec);
                }
            }
            if (ec) {
                self->shutdown();
                return;
            }
            self->lastWrite_ = Clock::now();
            self->hold(self->outBytes_ + self->in_.size() - self->inOff_);
            if (self->readParked_ && self->reading_ &&
                self->outBytes_ <= self->limits_.pauseReadingAbove / 2) {
                self->readParked_ = false;
                self->readMore(false);
            }
            self->writeNext();
        }));
}

void Connection::armWatchdog() {
    if (closed_) {
        return;
    }
    const ConnectionLimits& l = limits_;
    Clock::time_point at = Clock::time_point::max();
    if (inFrame_ && l.readTimeout.count() > 0) {
        at = std::min(at, frameStarted_ + l.readTimeout);
    }
    if (!inFrame_ && l.idleTimeout.count() > 0) {
        at = std::min(at, lastFrame_ + l.idleTimeout);
    }
    if (outBytes_ > 0 && l.writeTimeout.count() > 0) {
        at = std::min(at, lastWrite_ + l.writeTimeout);
    }
    if (at == Clock::time_point::max() || (watchdog_ != nullptr && watchdogAt_ <= at)) {
        return;  // no deadline, or the timer fires first and looks again
    }
    if (watchdog_ == nullptr) {
        watchdog_ = std::make_unique<asio::steady_timer>(strand_);
    }
    watchdogAt_ = at;
    watchdog_->expires_at(at);
    std::weak_ptr<Connection> weak = weak_from_this();
    watchdog_->async_wait([weak, at](const asio::error_code& ec) {
        auto self = weak.lock();
        if (ec || self == nullptr || self->watchdogAt_ != at) {
            return;  // cancelled or re-armed meanwhile
        }
        self->watchdog();
    });
}

void Connection::watchdog() {
    watchdog_.reset();
    if (closed_) {
        return;
    }
    const ConnectionLimits& l = limits_;
    auto now = Clock::now();
    if (inFrame_ && l.readTimeout.count() > 0 && now >= frameStarted_ + l.readTimeout) {
        closeFor(CloseReason::ReadTimeout);
    } else if (!inFrame_ && l.idleTimeout.count() > 0 && now >= lastFrame_ + l.idleTimeout) {
        closeFor(CloseReason::IdleTimeout);
    } else if (outBytes_ > 0 && l.writeTimeout.count() > 0 && now >= lastWrite_ + l.writeTimeout) {
        closeFor(CloseReason::WriteTimeout);
    } else {
        armWatchdog();
    }
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
    if (watchdog_) {
        watchdog_->cancel();
        watchdog_.reset();
    }
    std::deque<Outgoing> dropped;
    dropped.swap(out_);
    outBytes_ = 0;
    for (Outgoing& o : dropped) {
        if (o.written) {
            o.written(false);
        }
    }
    hold(0);
    if (budget_ != nullptr && condemned_) {
        budget_->released(condemnedBytes_.load());
    }
    handler_.onClosed(shared_from_this());
}

}  // namespace znpex::server
