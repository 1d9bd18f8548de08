// The service's side of one registered resource manager: requests forwarded
// to it under ids of its own, each waiting with a deadline, so an answer goes
// back to the right client request and a silent manager gives an error
// instead of a hang. Every forwarded request ends exactly once: answered,
// timed out, or failed because the manager's connection is gone.
// Thread-safe; callbacks run without the session's lock held.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "znpex/proto/Json.h"
#include "znpex/server/AsioConfig.h"
#include "znpex/server/RmRegistry.h"

namespace znpex::server {

class Connection;

class ManagerSession : public ManagerEndpoint, public std::enable_shared_from_this<ManagerSession> {
public:
    enum class Outcome { Answered, TimedOut, Lost };
    // Answered: the manager's whole response message. Otherwise null.
    using Done = std::function<void(Outcome, proto::Json response)>;

    ManagerSession(std::weak_ptr<Connection> connection, std::string rmName,
                   asio::any_io_executor executor);
    ~ManagerSession() override;

    // Sends `method` with `params` to the manager and calls `done` once with
    // how it ended. False (and `done` is not called) when the manager's
    // connection is gone or the session has failed.
    bool forward(const std::string& method, proto::Json params, std::chrono::milliseconds timeout,
                 Done done);
    // A response from the manager. False when no request waits for `id`
    // (answered too late, or never asked).
    bool complete(uint64_t id, proto::Json response);
    // The connection is gone: every waiting request ends as Lost, later
    // forwards are refused.
    void failAll();

    const std::string& rmName() const { return rmName_; }
    size_t pending() const;
    uint64_t answered() const;
    uint64_t timedOut() const;

private:
    struct Pending {
        Done done;
        std::unique_ptr<asio::steady_timer> timer;
    };
    void expire(uint64_t id);

    const std::weak_ptr<Connection> connection_;
    const std::string rmName_;
    asio::any_io_executor executor_;
    mutable std::mutex mu_;  // guards everything below
    std::map<uint64_t, Pending> pending_;
    uint64_t nextId_ = 1;
    bool failed_ = false;
    uint64_t answered_ = 0;
    uint64_t timedOut_ = 0;
};

}  // namespace znpex::server
