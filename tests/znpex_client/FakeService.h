// A stand-in for the monitoring service in client tests: listens on the local
// socket under ZN_ROOT (and optionally on a loopback TCP port), reads frames
// with the protocol library and answers each request through a handler the
// test installs. Records every message it receives. One thread per
// connection; the destructor stops and joins everything.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/JsonRpc.h"

namespace testsupport {

class FakeService {
public:
    // What a handler wants done with a request.
    struct Answer {
        std::vector<std::string> before;  // raw payloads sent first (notifications, stale replies)
        znpex::proto::Json reply;         // the reply; null: none (the client waits)
        int delayMs = 0;                  // wait before replying
        bool closeAfter = false;          // close the connection after replying
        std::string rawFrame;             // when set: sent as it is instead of a framed reply
    };
    using Handler = std::function<Answer(const znpex::proto::RpcMessage&)>;

    // Listens on the local socket (ZN_ROOT must be set); tcp: also on
    // 127.0.0.1 at a port the kernel picks.
    explicit FakeService(bool tcp = false);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    // Answers "rm.*" requests; the service's own methods have defaults.
    void onRm(Handler h);
    // Replaces the answer of any method (checked before the defaults).
    void on(const std::string& method, Handler h);
    void setClasses(std::vector<znpex::proto::ClassInfo> classes);
    void setIdentity(const std::string& identity);

    int tcpPort() const { return tcpPort_; }
    // Messages received so far (method and params), in order.
    std::vector<znpex::proto::RpcMessage> received();
    std::vector<std::string> methods();
    size_t connectionsAccepted() const { return accepted_.load(); }

    // Helpers for handlers.
    static znpex::proto::Json result(const znpex::proto::RpcMessage& m, znpex::proto::Json r);
    static znpex::proto::Json error(const znpex::proto::RpcMessage& m, int code,
                                    const std::string& message, znpex::proto::Json data = nullptr);

private:
    void acceptLoop();
    void serve(int fd);
    Answer answer(const znpex::proto::RpcMessage& m);

    int localFd_ = -1;
    int tcpFd_ = -1;
    int tcpPort_ = 0;
    int stopPipe_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> accepted_{0};
    std::thread acceptor_;

    std::mutex mu_;  // guards everything below
    std::vector<std::thread> workers_;
    std::vector<int> clientFds_;
    std::vector<znpex::proto::RpcMessage> received_;
    std::map<std::string, Handler> handlers_;
    Handler rmHandler_;
    std::vector<znpex::proto::ClassInfo> classes_;
    std::string identity_ = "root@LOCALHOST";
};

}  // namespace testsupport
