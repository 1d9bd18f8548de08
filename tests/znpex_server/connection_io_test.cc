// One connection on a socket pair: frames that arrive together, in pieces or
// after an oversize header are split as they were sent, and a sender told
// when its message has gone is told true once the peer can read it and
// false when the connection closes first.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "znpex/proto/Frame.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/server/Connection.h"

namespace znpextest {
namespace {

namespace proto = znpex::proto;
using znpex::server::Connection;
using znpex::server::ConnectionLimits;
using znpex::server::Transport;

// Records what the connection reports, for the test thread to wait on.
class Recorder : public znpex::server::ConnectionHandler {
public:
    void onMessage(const std::shared_ptr<Connection>&, std::string payload) override {
        std::lock_guard<std::mutex> g(mu_);
        messages_.push_back(std::move(payload));
        cv_.notify_all();
    }
    void onOversize(const std::shared_ptr<Connection>& c, uint64_t length) override {
        {
            std::lock_guard<std::mutex> g(mu_);
            oversize_ = length;
        }
        c->close();  // runs here, on the strand: onClosed takes the lock
    }
    void onClosed(const std::shared_ptr<Connection>&) override {
        std::lock_guard<std::mutex> g(mu_);
        closed_ = true;
        cv_.notify_all();
    }
    // Waits until `done` holds (under the lock); false after 5 s.
    template <typename F>
    bool waitFor(F done) {
        std::unique_lock<std::mutex> g(mu_);
        return cv_.wait_for(g, std::chrono::seconds(5), [&] { return done(); });
    }
    std::vector<std::string> messages() {
        std::lock_guard<std::mutex> g(mu_);
        return messages_;
    }

    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> messages_;
    uint64_t oversize_ = 0;
    bool closed_ = false;
};

// A connection on one end of a socket pair, served by its own I/O thread;
// the test holds the other end.
class ConnectionIo : public ::testing::Test {
protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        peer_ = sv[1];
        Connection::Socket s(io_, asio::generic::stream_protocol(AF_UNIX, SOCK_STREAM), sv[0]);
        ConnectionLimits limits;
        limits.maxFrame = 1024;
        conn_ = std::make_shared<Connection>(std::move(s), Transport::Local, "root@LOCALHOST", 0,
                                             recorder_, limits);
        conn_->start();
        thread_ = std::thread([this] { io_.run(); });
    }
    void TearDown() override {
        conn_->close();
        recorder_.waitFor([&] { return recorder_.closed_; });
        work_.reset();
        thread_.join();
        conn_.reset();
        ::close(peer_);
    }
    void write(const std::string& bytes) {
        ASSERT_EQ(::write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
    Recorder recorder_;
    std::shared_ptr<Connection> conn_;
    std::thread thread_;
    int peer_ = -1;
};

TEST_F(ConnectionIo, FramesAreSplitAsSentHoweverTheyArrive) {
    const std::vector<std::string> sent = {"first", "", std::string(1000, 'x'), "{\"a\":1}"};
    std::string stream;
    for (const std::string& p : sent) {
        stream += proto::encodeFrame(p);
    }
    struct Case {
        const char* name;
        size_t piece;  // bytes per write; 0: all at once
    };
    for (const Case& c : {Case{"together", 0}, Case{"byte by byte", 1}, Case{"in threes", 3},
                          Case{"mid-header", 6}}) {
        SCOPED_TRACE(c.name);
        size_t before = recorder_.messages().size();
        size_t piece = c.piece == 0 ? stream.size() : c.piece;
        for (size_t at = 0; at < stream.size(); at += piece) {
            write(stream.substr(at, piece));
        }
        ASSERT_TRUE(recorder_.waitFor([&] { return recorder_.messages_.size() >= before + 4; }));
        std::vector<std::string> got = recorder_.messages();
        EXPECT_EQ(std::vector<std::string>(got.begin() + static_cast<long>(before), got.end()),
                  sent);
    }
}

TEST_F(ConnectionIo, FramesBeforeAnOversizeHeaderAreHandledAndNothingAfter) {
    std::string stream = proto::encodeFrame("one") + proto::encodeFrame("two");
    std::string big;
    proto::appendFrameHeader(big, 4096);  // over this connection's 1024
    stream += big + std::string(100, 'y') + proto::encodeFrame("never");
    write(stream);
    ASSERT_TRUE(recorder_.waitFor([&] { return recorder_.closed_; }));
    EXPECT_EQ(recorder_.oversize_, 4096u);
    EXPECT_EQ(recorder_.messages(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(ConnectionIo, ASenderIsToldWhenItsMessageHasGone) {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<bool> told;
    auto note = [&](bool written) {
        std::lock_guard<std::mutex> g(mu);
        told.push_back(written);
        cv.notify_all();
    };
    auto toldTimes = [&](size_t n) {
        std::unique_lock<std::mutex> g(mu);
        return cv.wait_for(g, std::chrono::seconds(5), [&] { return told.size() >= n; });
    };
    conn_->send("hello", note);
    proto::FdFrameReader reader(peer_);
    std::string got;
    ASSERT_EQ(reader.next(got, 5000), proto::IoStatus::Ok);
    EXPECT_EQ(got, "hello");
    ASSERT_TRUE(toldTimes(1));

    // Closed before it could go: the sender hears false.
    conn_->close();
    ASSERT_TRUE(recorder_.waitFor([&] { return recorder_.closed_; }));
    conn_->send("late", note);
    ASSERT_TRUE(toldTimes(2));
    std::lock_guard<std::mutex> g(mu);
    EXPECT_EQ(told, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace znpextest
