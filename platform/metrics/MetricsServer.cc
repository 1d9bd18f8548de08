#include "platform/metrics/MetricsServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zn::metrics {

namespace {

std::runtime_error failure(const std::string& address, const std::string& why) {
    return std::runtime_error("metrics address " + address + ": " + why);
}

// Splits "host:port", "[v6]:port" or ":port".
void splitAddress(const std::string& address, std::string* host, std::string* port) {
    size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon + 1 == address.size()) {
        throw failure(address, "expected host:port");
    }
    *host = address.substr(0, colon);
    *port = address.substr(colon + 1);
    if (host->size() >= 2 && host->front() == '[' && host->back() == ']') {
        *host = host->substr(1, host->size() - 2);
    }
    for (char c : *port) {
        if (c < '0' || c > '9') {
            throw failure(address, "the port is not a number");
        }
    }
    if (port->size() > 5 || std::stoul(*port) > 65535) {
        throw failure(address, "the port is out of range");
    }
}

void sendAll(int fd, const std::string& data) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = ::send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // the caller went, or stopped reading past the timeout
        }
        off += static_cast<size_t>(n);
    }
}

}  // namespace

Answer judgeRequest(const std::string& requestHead) {
    size_t end = requestHead.find("\r\n");
    std::string line = requestHead.substr(0, end == std::string::npos ? requestHead.size() : end);
    size_t a = line.find(' ');
    size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
    if (a == std::string::npos || b == std::string::npos ||
        line.find(' ', b + 1) != std::string::npos) {
        return Answer{400, "Bad Request"};
    }
    std::string method = line.substr(0, a);
    std::string target = line.substr(a + 1, b - a - 1);
    std::string version = line.substr(b + 1);
    if (version != "HTTP/1.0" && version != "HTTP/1.1") {
        return Answer{400, "Bad Request"};
    }
    if (method != "GET" && method != "HEAD") {
        return Answer{405, "Method Not Allowed"};
    }
    std::string path = target.substr(0, target.find('?'));
    if (path != "/metrics") {
        return Answer{404, "Not Found"};
    }
    return Answer{200, "OK", true, method == "HEAD"};
}

MetricsServer::MetricsServer(const std::string& address, Render render, ServerOptions options)
    : render_(std::move(render)), options_(options) {
    std::string host, port;
    splitAddress(address, &host, &port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV | (host.empty() ? 0 : AI_NUMERICHOST);
    addrinfo* res = nullptr;
    if (int rc = ::getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &res);
        rc != 0) {
        throw failure(address, ::gai_strerror(rc));
    }
    std::string why = "no address";
    for (addrinfo* ai = res; ai != nullptr && listenFd_ < 0; ai = ai->ai_next) {
        int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            why = std::strerror(errno);
            continue;
        }
        int one = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, 16) != 0) {
            why = std::strerror(errno);
            ::close(fd);
            continue;
        }
        listenFd_ = fd;
    }
    ::freeaddrinfo(res);
    if (listenFd_ < 0) {
        throw failure(address, why);
    }
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&ss), &len);
    port_ = ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                                           : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
    if (::pipe2(wakeFds_, O_CLOEXEC) != 0) {
        ::close(listenFd_);
        throw failure(address, std::strerror(errno));
    }
    thread_ = std::thread([this] { run(); });
}

MetricsServer::~MetricsServer() {
    char c = 0;
    [[maybe_unused]] ssize_t n = ::write(wakeFds_[1], &c, 1);
    thread_.join();
    ::close(listenFd_);
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
}

void MetricsServer::run() {
    for (;;) {
        pollfd p[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (p[1].revents != 0) {
            return;
        }
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;  // out of descriptors or the caller gave up: the next one
        }
        serve(fd);
        ::close(fd);
    }
}

void MetricsServer::serve(int fd) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(options_.ioTimeout.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>(options_.ioTimeout.count() % 1000 * 1000);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    // The whole head within one deadline, however it trickles in.
    auto deadline = std::chrono::steady_clock::now() + options_.ioTimeout;
    std::string head;
    Answer answer;
    bool complete = false;
    char buf[1024];
    while (!complete) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            answer = Answer{408, "Request Timeout"};
            break;
        }
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // the caller went before asking anything whole
        }
        head.append(buf, static_cast<size_t>(n));
        complete = head.find("\r\n\r\n") != std::string::npos;
        if (!complete && head.size() > options_.maxRequestHead) {
            answer = Answer{431, "Request Header Fields Too Large"};
            break;
        }
    }
    if (complete) {
        answer = judgeRequest(head);
    }
    std::string body;
    const char* type = "text/plain; charset=utf-8";
    if (answer.metrics) {
        body = render_();
        type = "text/plain; version=0.0.4; charset=utf-8";
        served_.fetch_add(1);
    } else {
        body = std::string(answer.reason) + "\n";
        refused_.fetch_add(1);
    }
    std::string out = "HTTP/1.1 " + std::to_string(answer.status) + " " + answer.reason +
                      "\r\nContent-Type: " + type +
                      "\r\nContent-Length: " + std::to_string(body.size()) +
                      "\r\nConnection: close\r\n";
    if (answer.status == 405) {
        out += "Allow: GET, HEAD\r\n";
    }
    out += "\r\n";
    if (!answer.head) {
        out += body;
    }
    sendAll(fd, out);
    // Refused callers may still be sending: closing with their bytes unread
    // would reset the connection under the answer. A little more is read,
    // and dropped, before closing.
    ::shutdown(fd, SHUT_WR);
    size_t drained = 0;
    for (int i = 0; i < 8 && drained < 8 * options_.maxRequestHead; ++i) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 20) <= 0) {
            break;
        }
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            break;
        }
        drained += static_cast<size_t>(n);
    }
}

}  // namespace zn::metrics
