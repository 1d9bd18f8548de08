#include "tarn_rmf2v/RMSchedule.h"

#include <exception>
#include <set>

#include "tarn_base/CTraceManager.h"

namespace tarn_rmf2v {
namespace {

// Every live schedule, for allIdle(). A schedule leaves it before it stops,
// so what is listed is alive while the list's mutex is held.
struct Registry {
    std::mutex mu;
    std::set<const RMSchedule*> all;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: schedules may outlive statics
    return *r;
}

tarn_base::CTraceComponent* rmfTrace() {
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    static tarn_base::CTraceComponent* c = tarn_base::CTraceManager::newComponent("_RMF", cats, 2);
    return c;
}

}  // namespace

RMSchedule::RMSchedule(zn::Clock& clock) : clock_(clock), thread_([this] { loop(); }) {
    std::lock_guard<std::mutex> g(registry().mu);
    registry().all.insert(this);
}

RMSchedule::~RMSchedule() {
    stop();
    std::lock_guard<std::mutex> g(registry().mu);
    registry().all.erase(this);
}

void RMSchedule::stop() {
    {
        std::lock_guard<std::mutex> g(mu_);
        stop_ = true;
        queue_.clear();
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void RMSchedule::add(const char* name, Operation fn, void* arg, zn::Clock::Duration deadline) {
    if (fn == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> g(mu_);
        if (stop_) {
            return;
        }
        queue_.emplace(Key{deadline, seq_++}, Entry{name != nullptr ? name : "", fn, arg});
    }
    cv_.notify_all();
}

void RMSchedule::addOperation(const char* name, Operation fn, void* arg, timespec* when) {
    zn::Clock::Duration delay{0};
    if (when != nullptr) {
        timespec now = clock_.wallNow();
        delay = std::chrono::seconds(when->tv_sec - now.tv_sec) +
                std::chrono::nanoseconds(when->tv_nsec - now.tv_nsec);
    }
    if (delay < zn::Clock::Duration::zero()) {
        delay = zn::Clock::Duration::zero();
    }
    add(name, fn, arg, clock_.monoNow() + delay);
}

void RMSchedule::addOperation(const char* name, Operation fn, void* arg, unsigned int seconds) {
    add(name, fn, arg, clock_.monoNow() + std::chrono::seconds(seconds));
}

unsigned RMSchedule::removeOperation(void* arg) {
    std::unique_lock<std::mutex> lk(mu_);
    unsigned removed = 0;
    for (auto it = queue_.begin(); it != queue_.end();) {
        if (it->second.arg == arg) {
            it = queue_.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    // An operation may remove its own argument; waiting then would deadlock.
    if (std::this_thread::get_id() != thread_.get_id()) {
        doneCv_.wait(lk, [&] { return !(running_ && runningArg_ == arg); });
    }
    return removed;
}

size_t RMSchedule::pending() const {
    std::lock_guard<std::mutex> g(mu_);
    return queue_.size();
}

uint64_t RMSchedule::completed() const {
    std::lock_guard<std::mutex> g(mu_);
    return completed_;
}

bool RMSchedule::idle() const {
    std::lock_guard<std::mutex> g(mu_);
    return !running_ && (queue_.empty() || queue_.begin()->first.first > clock_.monoNow());
}

bool RMSchedule::allIdle() {
    std::lock_guard<std::mutex> g(registry().mu);
    for (const RMSchedule* s : registry().all) {
        if (!s->idle()) {
            return false;
        }
    }
    return true;
}

void RMSchedule::loop() {
    std::unique_lock<std::mutex> lk(mu_);
    while (!stop_) {
        if (queue_.empty()) {
            cv_.wait(lk);
            continue;
        }
        auto first = queue_.begin();
        if (first->first.first > clock_.monoNow()) {
            clock_.waitUntil(cv_, lk, first->first.first);
            continue;
        }
        Entry e = first->second;
        queue_.erase(first);
        running_ = true;
        runningArg_ = e.arg;
        lk.unlock();
        if (auto* t = rmfTrace(); t != nullptr && t->enabled(1)) {
            t->writef(1, "RMSchedule: running %s", e.name.c_str());
        }
        try {
            e.fn(e.arg);
        } catch (const std::exception& ex) {
            if (auto* t = rmfTrace(); t != nullptr) {
                t->writef(0, "RMSchedule: operation %s threw: %s", e.name.c_str(), ex.what());
            }
        } catch (...) {
            if (auto* t = rmfTrace(); t != nullptr) {
                t->writef(0, "RMSchedule: operation %s threw", e.name.c_str());
            }
        }
        lk.lock();
        running_ = false;
        runningArg_ = nullptr;
        ++completed_;
        doneCv_.notify_all();
    }
}

}  // namespace tarn_rmf2v
