#include "znpex/server/ManagerSession.h"

#include <vector>

#include "znpex/server/Connection.h"

namespace znpex::server {

ManagerSession::ManagerSession(std::weak_ptr<Connection> connection, std::string rmName,
                               asio::any_io_executor executor)
    : connection_(std::move(connection)),
      rmName_(std::move(rmName)),
      executor_(std::move(executor)) {}

ManagerSession::~ManagerSession() = default;

bool ManagerSession::forward(const std::string& method, proto::Json params,
                             std::chrono::milliseconds timeout, Done done) {
    auto conn = connection_.lock();
    if (conn == nullptr || conn->closed()) {
        return false;
    }
    uint64_t id = 0;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (failed_) {
            return false;
        }
        id = nextId_++;
        Pending p;
        p.done = std::move(done);
        p.timer = std::make_unique<asio::steady_timer>(executor_, timeout);
        std::weak_ptr<ManagerSession> weak = weak_from_this();
        p.timer->async_wait([weak, id](const asio::error_code& ec) {
            auto self = weak.lock();
            if (!ec && self != nullptr) {
                self->expire(id);
            }
        });
        pending_.emplace(id, std::move(p));
    }
    proto::Json msg = {
        {"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(params)}};
    conn->send(proto::dumpJson(msg));
    return true;
}

bool ManagerSession::complete(uint64_t id, proto::Json response) {
    Pending p;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = pending_.find(id);
        if (it == pending_.end()) {
            return false;
        }
        p = std::move(it->second);
        pending_.erase(it);
        ++answered_;
    }
    p.timer->cancel();
    p.done(Outcome::Answered, std::move(response));
    return true;
}

void ManagerSession::expire(uint64_t id) {
    Pending p;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = pending_.find(id);
        if (it == pending_.end()) {
            return;
        }
        p = std::move(it->second);
        pending_.erase(it);
        ++timedOut_;
    }
    p.done(Outcome::TimedOut, nullptr);
}

void ManagerSession::failAll() {
    std::map<uint64_t, Pending> lost;
    {
        std::lock_guard<std::mutex> g(mu_);
        failed_ = true;
        lost.swap(pending_);
    }
    for (auto& [id, p] : lost) {
        p.timer->cancel();
        p.done(Outcome::Lost, nullptr);
    }
}

size_t ManagerSession::pending() const {
    std::lock_guard<std::mutex> g(mu_);
    return pending_.size();
}

uint64_t ManagerSession::answered() const {
    std::lock_guard<std::mutex> g(mu_);
    return answered_;
}

uint64_t ManagerSession::timedOut() const {
    std::lock_guard<std::mutex> g(mu_);
    return timedOut_;
}

}  // namespace znpex::server
