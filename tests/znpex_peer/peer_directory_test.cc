// The domain's host list as the service keeps it: which hosts a table change
// goes to. Hosts whose service is not running (nothing listens on the port)
// must drop out of the reachable hosts once their link fails, come back when
// listed again, and rows removed one at a time must leave every other row
// found under its own name.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "znpex/server/PeerDirectory.h"

namespace peertest {
namespace {

namespace srv = znpex::server;
using Clock = std::chrono::steady_clock;

// A loopback port nothing listens on.
uint16_t closedPort() {
    asio::io_context io;
    asio::ip::tcp::acceptor a(io, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    return a.local_endpoint().port();
}

std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

srv::PeerHost host(const std::string& name, uint64_t id) {
    return srv::PeerHost{name, id, {"127.0.0.1"}};
}

class PeerDirectoryTest : public ::testing::Test {
protected:
    PeerDirectoryTest() : work_(asio::make_work_guard(io_)) {
        srv::PeerLinkOptions o;
        o.port = closedPort();
        o.connectTimeout = std::chrono::milliseconds(500);
        o.backoffMin = std::chrono::seconds(30);  // no retry while the test runs
        srv::PeerDirectory::Self self{"me", 1, "127.0.0.9"};
        dir_ = std::make_unique<srv::PeerDirectory>(io_.get_executor(), self, o, nullptr);
        thread_ = std::thread([this] { io_.run(); });
    }
    ~PeerDirectoryTest() override {
        dir_->shutdown();
        work_.reset();
        io_.stop();
        thread_.join();
    }
    // Sends to `name` and waits until that ended (lost: nothing listens).
    void sendAndWait(const std::string& name) {
        std::promise<srv::PeerLink::Outcome> ended;
        dir_->send(name, "peer.deliver", znpex::proto::Json::object(), std::chrono::seconds(2),
                   [&ended](srv::PeerLink::Outcome o, znpex::proto::Json) { ended.set_value(o); });
        EXPECT_EQ(ended.get_future().get(), srv::PeerLink::Outcome::Lost);
    }
    // Waits (bounded) until the reachable hosts are `want`.
    bool reachableBecomes(const std::vector<std::string>& want) {
        auto until = Clock::now() + std::chrono::seconds(5);
        while (sorted(dir_->reachableHosts()) != sorted(want)) {
            if (Clock::now() > until) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::unique_ptr<srv::PeerDirectory> dir_;
    std::thread thread_;
};

TEST_F(PeerDirectoryTest, AFailedLinkLeavesTheReachableHostsUntilItsHostIsListedAnew) {
    dir_->setHosts({host("a", 10), host("b", 11), host("c", 12), host("me", 1)});
    EXPECT_EQ(sorted(dir_->reachableHosts()), (std::vector<std::string>{"a", "b", "c"}));

    sendAndWait("b");
    EXPECT_TRUE(reachableBecomes({"a", "c"})) << "a host whose link failed is still sent to";

    // A change of rows keeps what the links know; a new host is reachable.
    dir_->updateHosts({host("d", 13), host("b", 11)}, {"a"});
    EXPECT_EQ(sorted(dir_->reachableHosts()), (std::vector<std::string>{"c", "d"}));
    // A whole new list keeps the failed link of a host still listed.
    dir_->setHosts({host("b", 11), host("c", 12), host("d", 13)});
    EXPECT_EQ(sorted(dir_->reachableHosts()), (std::vector<std::string>{"c", "d"}));

    // Removed and listed again: a new link, tried again.
    dir_->updateHosts({}, {"b"});
    dir_->updateHosts({host("b", 11)}, {});
    EXPECT_EQ(sorted(dir_->reachableHosts()), (std::vector<std::string>{"b", "c", "d"}));
}

TEST_F(PeerDirectoryTest, RowsRemovedOneAtATimeLeaveEveryOtherRowUnderItsName) {
    std::vector<srv::PeerHost> all;
    for (uint64_t i = 0; i < 50; ++i) {
        all.push_back(host("h" + std::to_string(i), 100 + i));
    }
    dir_->setHosts(all);
    // Removing from the front, the middle and the end moves rows around.
    for (uint64_t i : {0u, 25u, 49u, 1u, 48u, 24u}) {
        dir_->updateHosts({}, {"h" + std::to_string(i)});
        EXPECT_FALSE(dir_->byName("h" + std::to_string(i)));
    }
    EXPECT_EQ(dir_->hostCount(), 44u);
    EXPECT_EQ(dir_->reachableHosts().size(), 44u);
    for (const srv::PeerHost& h : dir_->hosts()) {
        auto found = dir_->byName(h.host);
        ASSERT_TRUE(found) << h.host;
        EXPECT_EQ(found->nodeId, 100 + std::stoull(h.host.substr(1))) << h.host;
        auto byId = dir_->byNodeId(found->nodeId);
        ASSERT_TRUE(byId);
        EXPECT_EQ(byId->host, h.host);
    }
}

}  // namespace
}  // namespace peertest
