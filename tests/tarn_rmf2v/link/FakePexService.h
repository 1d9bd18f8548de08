// Stands in for the monitoring service on its local socket (under ZN_ROOT):
// accepts connections (the newest is the current one), keeps every message it
// reads, and answers each with the frame the test's answer function gives
// (none: no answer). Used by the resource manager's connection tests and the
// ACL refresh request tests.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/paths.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace testsupport {

class FakePexService {
public:
    using RpcMessage = znpex::proto::RpcMessage;
    using Answer = std::function<std::optional<std::string>(const RpcMessage&)>;

    FakePexService() {
        path_ = zn::paths::resolve(zn::paths::kPexSocket);
        zn::paths::ensureParentDir(path_);
        listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
        ::unlink(path_.c_str());
        EXPECT_EQ(::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(::listen(listenFd_, 8), 0);
    }
    // Serving starts here, so that whatever `answer` uses exists by then.
    void start(Answer answer) {
        answer_ = std::move(answer);
        thread_ = std::thread([this] { loop(); });
    }
    // Whoever owns what `answer` uses stops the service before it goes.
    void stop() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    ~FakePexService() {
        stop();
        ::close(listenFd_);
        ::unlink(path_.c_str());
        if (conn_ >= 0) {
            ::close(conn_);
        }
    }
    FakePexService(const FakePexService&) = delete;
    FakePexService& operator=(const FakePexService&) = delete;

    // Waits for a message that `pred` accepts (taking it out of the queue).
    bool take(const std::function<bool(const RpcMessage&)>& pred, RpcMessage* out,
              int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lk(mu_);
        return cv_.wait_for(lk, std::chrono::milliseconds(timeoutMs), [&] {
            for (auto it = got_.begin(); it != got_.end(); ++it) {
                if (pred(*it)) {
                    *out = std::move(*it);
                    got_.erase(it);
                    return true;
                }
            }
            return false;
        });
    }
    bool takeMethod(const std::string& method, RpcMessage* out, int timeoutMs = 5000) {
        return take([&](const RpcMessage& m) { return m.method == method; }, out, timeoutMs);
    }
    bool takeReply(const znpex::proto::Json& id, RpcMessage* out, int timeoutMs = 5000) {
        return take(
            [&](const RpcMessage& m) {
                return (m.kind == RpcMessage::Kind::Result || m.kind == RpcMessage::Kind::Error) &&
                       m.id == id;
            },
            out, timeoutMs);
    }
    void send(const znpex::proto::Json& message) {
        std::lock_guard<std::mutex> g(mu_);
        ASSERT_GE(conn_, 0);
        ASSERT_EQ(znpex::proto::writeFrame(conn_, znpex::proto::dumpJson(message), 5000),
                  znpex::proto::IoStatus::Ok);
    }
    void dropConnection() {
        std::lock_guard<std::mutex> g(mu_);
        if (conn_ >= 0) {
            ::close(conn_);
            conn_ = -1;
        }
    }
    // While paused, nothing is read from the connection.
    void pause(bool p) { paused_ = p; }

private:
    void loop() {
        znpex::proto::FrameDecoder decoder;
        while (!stop_) {
            int conn;
            {
                std::lock_guard<std::mutex> g(mu_);
                conn = conn_;
            }
            pollfd fds[2] = {{listenFd_, POLLIN, 0}, {conn, POLLIN, 0}};
            if (::poll(fds, conn >= 0 && !paused_ ? 2 : 1, 20) <= 0) {
                continue;
            }
            if (fds[0].revents & POLLIN) {
                int c = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
                std::lock_guard<std::mutex> g(mu_);
                if (conn_ >= 0) {
                    ::close(conn_);
                }
                conn_ = c;
                decoder = znpex::proto::FrameDecoder();
                continue;
            }
            if (conn < 0 || paused_ || !(fds[1].revents & (POLLIN | POLLHUP))) {
                continue;
            }
            char buf[65536];
            ssize_t r = ::read(conn, buf, sizeof(buf));
            if (r <= 0) {
                std::lock_guard<std::mutex> g(mu_);
                if (conn_ == conn) {
                    ::close(conn_);
                    conn_ = -1;
                }
                continue;
            }
            for (const std::string& f : decoder.feed(buf, static_cast<size_t>(r))) {
                RpcMessage m = znpex::proto::parseMessage(f);
                if (std::optional<std::string> reply = answer_(m)) {
                    znpex::proto::writeFrame(conn, *reply, 5000);
                }
                std::lock_guard<std::mutex> g(mu_);
                got_.push_back(std::move(m));
                cv_.notify_all();
            }
        }
    }

    std::string path_;
    int listenFd_ = -1;
    Answer answer_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> paused_{false};
    std::mutex mu_;  // guards conn_, got_
    std::condition_variable cv_;
    int conn_ = -1;
    std::deque<RpcMessage> got_;
    std::thread thread_;
};

}  // namespace testsupport
