// The service's listening sockets: the local socket (any local process may
// connect; who it is comes from the kernel) and TCP. Every accepted socket
// goes to the callback as a generic stream socket. Accept failures such as
// running out of descriptors pause accepting briefly instead of spinning.
// Opened before the I/O threads run and closed after they stopped; between
// the two only the accept handlers touch it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/clock.h"
#include "znpex/server/AsioConfig.h"
#include "znpex/server/Connection.h"

namespace znpex::server {

class Listeners {
public:
    using Accepted = std::function<void(Connection::Socket, Transport)>;

    Listeners(asio::io_context& io, Accepted accepted);
    ~Listeners();
    Listeners(const Listeners&) = delete;
    Listeners& operator=(const Listeners&) = delete;

    // Binds the local socket at `path` (mode 0666, folder created). A stale
    // socket file is replaced; one that a live service answers on is not.
    // Throws std::runtime_error saying why.
    void openLocal(const std::string& path);
    // Binds and listens on address:port (port 0: the kernel picks one).
    // Throws std::runtime_error saying why.
    void openTcp(const std::string& address, uint16_t port);
    // The TCP port bound (0 when none).
    uint16_t tcpPort() const { return tcpPort_; }
    // Stops accepting and removes the local socket file.
    void close();

private:
    void acceptLocal();
    void acceptTcp();
    // After a failed accept: log (at most once a second), wait, accept again.
    void retryLater(asio::steady_timer& timer, void (Listeners::*resume)(),
                    const asio::error_code& ec);

    asio::io_context& io_;
    Accepted accepted_;
    asio::local::stream_protocol::acceptor local_;
    asio::ip::tcp::acceptor tcp_;
    asio::steady_timer localPause_;
    asio::steady_timer tcpPause_;
    std::string localPath_;
    uint16_t tcpPort_ = 0;
    zn::Clock& clock_;  // the process clock when made
    std::mutex logMu_;  // guards lastErrorLog_ (both accept chains log)
    zn::Clock::Duration lastErrorLog_{};
};

}  // namespace znpex::server
