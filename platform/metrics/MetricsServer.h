// A small HTTP responder for metrics: answers "GET /metrics" with the text a
// callback renders, and nothing else. One request per connection, handled
// one at a time on its own thread; a request head is read up to a bound and
// within a deadline, so no caller can hold it or make it read without end.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace zn::metrics {

struct ServerOptions {
    size_t maxRequestHead = 8192;                                  // bytes
    std::chrono::milliseconds ioTimeout{std::chrono::seconds(2)};  // per connection
};

class MetricsServer {
public:
    using Render = std::function<std::string()>;

    // Listens on `address` ("host:port", "[v6]:port" or ":port" for every
    // address; port 0 picks one). Throws std::runtime_error saying why not.
    MetricsServer(const std::string& address, Render render, ServerOptions options = {});
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    uint16_t port() const { return port_; }
    uint64_t served() const { return served_.load(); }
    uint64_t refused() const { return refused_.load(); }

private:
    void run();
    void serve(int fd);

    const Render render_;
    const ServerOptions options_;
    int listenFd_ = -1;
    int wakeFds_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::atomic<uint64_t> served_{0}, refused_{0};
    std::thread thread_;
};

// The status line and headers of the answer to one request head (without
// the body), and whether the body is the metrics: what serve() sends.
struct Answer {
    int status = 200;
    const char* reason = "OK";
    bool metrics = false;
    bool head = false;  // HEAD: headers only
};
// Judges a complete request head ("...\r\n\r\n" included or not).
Answer judgeRequest(const std::string& requestHead);

}  // namespace zn::metrics
