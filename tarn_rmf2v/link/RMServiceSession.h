// One connection of a resource manager to the monitoring service, from the
// moment it is connected until it is lost: registers the manager and its
// classes, hands the service's requests to the control point and writes
// whatever the outbox holds. Runs on the connection's I/O thread; owns the
// socket and closes it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace tarn_rmf2v {

class RMRmcp;
class RMServiceOutbox;

class RMServiceSession {
public:
    // The clock (not owned) times the registration and the stall timeout.
    RMServiceSession(int fd, RMRmcp& rmcp, std::shared_ptr<RMServiceOutbox> outbox,
                     zn::Clock& clock, std::chrono::milliseconds registerTimeout,
                     std::chrono::milliseconds stallTimeout, std::function<void()> onRegistered);
    ~RMServiceSession();
    RMServiceSession(const RMServiceSession&) = delete;
    RMServiceSession& operator=(const RMServiceSession&) = delete;

    // Runs until the connection ends, fails or a stop is asked. Returns true
    // when the registration had been accepted. `why` says how it ended.
    bool run(std::string* why);

private:
    // False when the connection must end (`why` set).
    bool handle(const std::string& payload, std::string* why);
    void handleRequest(znpex::proto::RpcMessage& m);
    bool handleRegisterAnswer(const znpex::proto::RpcMessage& m, std::string* why);
    bool readSome(std::string* why);
    bool writeSome(std::string* why);

    const int fd_;
    RMRmcp& rmcp_;
    std::shared_ptr<RMServiceOutbox> outbox_;
    zn::Clock& clock_;
    const std::chrono::milliseconds registerTimeout_;
    const std::chrono::milliseconds stallTimeout_;
    std::function<void()> onRegistered_;
    uint64_t generation_ = 0;
    bool registered_ = false;
    znpex::proto::FrameDecoder decoder_;
    std::string wbuf_;
    size_t woff_ = 0;
    // Last time the write buffer was filled or drained a little.
    zn::Clock::Duration lastProgress_{};
};

}  // namespace tarn_rmf2v
