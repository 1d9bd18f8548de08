#include "znpex/server/Listeners.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/paths.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {
namespace {

constexpr auto kAcceptPause = std::chrono::milliseconds(50);

// True when a process accepts connections on the local socket `path`.
bool someoneListens(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    bool live = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    ::close(fd);
    return live;
}

}  // namespace

Listeners::Listeners(asio::io_context& io, Accepted accepted)
    : io_(io),
      accepted_(std::move(accepted)),
      local_(io),
      tcp_(io),
      localPause_(io),
      tcpPause_(io),
      clock_(zn::processClock()) {}

Listeners::~Listeners() {
    close();
}

void Listeners::openLocal(const std::string& path) {
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw std::runtime_error("the socket path " + path + " is too long");
    }
    if (int err = zn::paths::ensureParentDir(path); err != 0) {
        throw std::runtime_error("cannot create the folder of " + path + ": " + std::strerror(err));
    }
    if (someoneListens(path)) {
        throw std::runtime_error("another service already listens on " + path);
    }
    ::unlink(path.c_str());
    asio::local::stream_protocol::endpoint ep(path);
    asio::error_code ec;
    local_.open(ep.protocol(), ec);
    if (!ec) {
        local_.bind(ep, ec);
    }
    if (!ec && ::chmod(path.c_str(), 0666) != 0) {
        ec.assign(errno, asio::error::get_system_category());
    }
    if (!ec) {
        local_.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        throw std::runtime_error("cannot listen on " + path + ": " + ec.message());
    }
    localPath_ = path;
    acceptLocal();
}

void Listeners::openTcp(const std::string& address, uint16_t port) {
    asio::error_code ec;
    asio::ip::address addr = asio::ip::make_address(address, ec);
    if (ec) {
        throw std::runtime_error("bad listening address " + address + ": " + ec.message());
    }
    asio::ip::tcp::endpoint ep(addr, port);
    tcp_.open(ep.protocol(), ec);
    if (!ec) {
        tcp_.set_option(asio::socket_base::reuse_address(true), ec);
    }
    if (!ec) {
        tcp_.bind(ep, ec);
    }
    if (!ec) {
        tcp_.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port) +
                                 ": " + ec.message());
    }
    tcpPort_ = tcp_.local_endpoint().port();
    acceptTcp();
}

void Listeners::acceptLocal() {
    auto socket = std::make_shared<Connection::Socket>(io_);
    local_.async_accept(*socket, [this, socket](const asio::error_code& ec) {
        if (ec == asio::error::operation_aborted || !local_.is_open()) {
            return;
        }
        if (ec) {
            retryLater(localPause_, &Listeners::acceptLocal, ec);
            return;
        }
        accepted_(std::move(*socket), Transport::Local);
        acceptLocal();
    });
}

void Listeners::acceptTcp() {
    auto socket = std::make_shared<Connection::Socket>(io_);
    tcp_.async_accept(*socket, [this, socket](const asio::error_code& ec) {
        if (ec == asio::error::operation_aborted || !tcp_.is_open()) {
            return;
        }
        if (ec) {
            retryLater(tcpPause_, &Listeners::acceptTcp, ec);
            return;
        }
        accepted_(std::move(*socket), Transport::Tcp);
        acceptTcp();
    });
}

void Listeners::retryLater(asio::steady_timer& timer, void (Listeners::*resume)(),
                           const asio::error_code& ec) {
    zn::Clock::Duration now = clock_.monoNow();
    std::unique_lock<std::mutex> lk(logMu_);
    if (now - lastErrorLog_ > std::chrono::seconds(1)) {
        lastErrorLog_ = now;
        lk.unlock();
        serviceLog("accepting a connection failed (%s); accepting again shortly",
                   ec.message().c_str());
    }
    timer.expires_after(kAcceptPause);
    timer.async_wait([this, resume](const asio::error_code& wec) {
        if (!wec) {
            (this->*resume)();
        }
    });
}

void Listeners::close() {
    asio::error_code ignored;
    localPause_.cancel();
    tcpPause_.cancel();
    if (local_.is_open()) {
        local_.close(ignored);
        ::unlink(localPath_.c_str());
    }
    if (tcp_.is_open()) {
        tcp_.close(ignored);
    }
}

}  // namespace znpex::server
