#include "tarn_rmf2v/link/RMServiceOutbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "znpex/proto/Frame.h"

namespace tarn_rmf2v {

RMServiceOutbox::RMServiceOutbox(size_t maxBytes, zn::Clock& clock)
    : maxBytes_(maxBytes), clock_(clock) {
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

RMServiceOutbox::~RMServiceOutbox() {
    ::close(wakeFd_);
}

uint64_t RMServiceOutbox::begin() {
    std::lock_guard<std::mutex> g(mu_);
    generation_ = ++lastGeneration_;
    registered_ = false;
    queue_.clear();
    bytes_ = 0;
    return generation_;
}

void RMServiceOutbox::end() {
    std::lock_guard<std::mutex> g(mu_);
    generation_ = 0;
    registered_ = false;
    queue_.clear();
    bytes_ = 0;
}

void RMServiceOutbox::setRegistered(bool registered) {
    std::lock_guard<std::mutex> g(mu_);
    registered_ = registered;
}

bool RMServiceOutbox::registered() const {
    std::lock_guard<std::mutex> g(mu_);
    return registered_;
}

bool RMServiceOutbox::post(uint64_t generation, std::string_view payload) {
    if (payload.size() > znpex::proto::kMaxFrame) {
        return false;
    }
    bool first = false;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (generation_ == 0 || (generation != 0 && generation != generation_) ||
            (generation == 0 && !registered_)) {
            return false;
        }
        size_t size = znpex::proto::kFrameHeader + payload.size();
        if (bytes_ + size > maxBytes_) {
            ++dropped_;
            return false;
        }
        std::string frame;
        frame.reserve(size);
        znpex::proto::appendFrameHeader(frame, payload.size());
        frame.append(payload);
        first = queue_.empty();
        queue_.push_back(std::move(frame));
        bytes_ += size;
    }
    // Messages after the first find the I/O thread already woken: it takes
    // the whole queue at once.
    if (first) {
        wake();
    }
    return true;
}

void RMServiceOutbox::takeAll(std::string& out) {
    std::lock_guard<std::mutex> g(mu_);
    for (std::string& f : queue_) {
        out.append(f);
    }
    queue_.clear();
    bytes_ = 0;
}

uint64_t RMServiceOutbox::dropped() const {
    std::lock_guard<std::mutex> g(mu_);
    return dropped_;
}

void RMServiceOutbox::wake() {
    uint64_t one = 1;
    // A full counter already means "wake up"; nothing to do on failure.
    [[maybe_unused]] ssize_t n = ::write(wakeFd_, &one, sizeof(one));
}

void RMServiceOutbox::clearWake() {
    uint64_t v = 0;
    [[maybe_unused]] ssize_t n = ::read(wakeFd_, &v, sizeof(v));
}

void RMServiceOutbox::requestStop() {
    {
        std::lock_guard<std::mutex> g(mu_);
        stopping_ = true;
    }
    cv_.notify_all();
    wake();
}

bool RMServiceOutbox::stopping() const {
    std::lock_guard<std::mutex> g(mu_);
    return stopping_;
}

bool RMServiceOutbox::sleepUnlessStopped(std::chrono::milliseconds d) {
    const zn::Clock::Duration until = clock_.monoNow() + d;
    std::unique_lock<std::mutex> lk(mu_);
    while (!stopping_ && clock_.monoNow() < until) {
        clock_.waitUntil(cv_, lk, until);
    }
    return stopping_;
}

}  // namespace tarn_rmf2v
