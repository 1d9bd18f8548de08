// One peer link against scripted far ends on loopback: a host that accepts
// but never greets back, one that greets and then answers nothing, one that
// greets and then closes, one that answers the greeting without holding the
// host's key, and one where nothing listens. Every request must end exactly
// once, by its deadline at the latest, a host that is down must cost its
// callers nothing, and a far end that cannot prove its key is never used.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "znhas/sec_keyfile.h"
#include "znhas/sec_proof.h"
#include "znhas/sec_thl.h"
#include "znhas/znhas.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/PeerLink.h"

namespace peertest {
namespace {

namespace srv = znpex::server;
using znpex::proto::Json;
using Outcome = srv::PeerLink::Outcome;
using Clock = std::chrono::steady_clock;

enum class FarEnd { Silent, GreetsThenSilent, GreetsThenCloses, Impostor };

// The keys of this host ("near") and of the far host ("far"), and one nobody trusts.
struct Keys {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
    Keys() { EXPECT_EQ(sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub), 0); }
};
const Keys& nearKey() {
    static Keys k;
    return k;
}
const Keys& farKey() {
    static Keys k;
    return k;
}
const Keys& strangerKey() {
    static Keys k;
    return k;
}

// A far end on 127.0.0.1 serving one connection at a time on its own thread.
class FarHost {
public:
    explicit FarHost(FarEnd mode) : mode_(mode), acceptor_(io_) {
        asio::ip::tcp::endpoint ep(asio::ip::make_address("127.0.0.1"), 0);
        acceptor_.open(ep.protocol());
        acceptor_.bind(ep);
        acceptor_.listen();
        port_ = acceptor_.local_endpoint().port();
        acceptor_.non_blocking(true);
        thread_ = std::thread([this] { serve(); });
    }
    ~FarHost() {
        stop_ = true;
        thread_.join();
    }
    uint16_t port() const { return port_; }
    int greetings() const { return greetings_.load(); }

private:
    void serve() {
        while (!stop_) {
            asio::error_code ec;
            asio::ip::tcp::socket s(io_);
            acceptor_.accept(s, ec);  // non-blocking: the destructor's stop is seen
            if (ec == asio::error::would_block || ec == asio::error::try_again) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            if (ec) {
                return;
            }
            s.non_blocking(false);
            znpex::proto::FdFrameReader reader(s.native_handle());
            std::string payload;
            while (!stop_) {
                auto st = reader.next(payload, 50);
                if (st == znpex::proto::IoStatus::Timeout) {
                    continue;
                }
                if (st != znpex::proto::IoStatus::Ok) {
                    break;
                }
                auto m = znpex::proto::parseMessage(payload);
                if (m.method == srv::kPeerHello) {
                    ++greetings_;
                    if (mode_ == FarEnd::Silent) {
                        continue;
                    }
                    nonce_ = srv::decodePeerHello(m.params).nonce;
                    srv::PeerChallenge c;
                    c.challenge.assign(32, 7);
                    c.host = "far";
                    c.nodeId = 2;
                    reply(s, m.id, srv::encodePeerChallenge(c));
                    continue;
                }
                if (m.method == srv::kPeerProve) {
                    srv::PeerHelloResult r;
                    r.identity = "near@PEER";
                    r.host = "far";
                    r.nodeId = 2;
                    const Keys& key = mode_ == FarEnd::Impostor ? strangerKey() : farKey();
                    std::string why;
                    EXPECT_TRUE(znhas::signWithKeyToken(
                        key.pvt,
                        znhas::proofMessage({srv::kProofOfAnswerer, "far", "near", nonce_}),
                        &r.signature, &why));
                    reply(s, m.id, srv::encodePeerHelloResult(r));
                    continue;
                }
                if (mode_ == FarEnd::GreetsThenCloses) {
                    break;  // closes with the request unanswered
                }
            }
        }
    }

    static void reply(asio::ip::tcp::socket& s, const Json& id, Json result) {
        znpex::proto::writeFrame(
            s.native_handle(),
            znpex::proto::dumpJson(znpex::proto::makeResult(id, std::move(result))), 1000);
    }

    FarEnd mode_;
    std::vector<uint8_t> nonce_;
    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> greetings_{0};
    std::thread thread_;
};

class PeerLinkTest : public ::testing::Test {
protected:
    PeerLinkTest() : work_(asio::make_work_guard(io_)) {
        // This host's key files and a list that trusts "far" under its key.
        EXPECT_EQ(sec__record_hostid_token(SEC_PRIVATE_KEYFILE, nearKey().pvt), 0);
        EXPECT_EQ(sec__record_hostid_token(SEC_PUBLIC_KEYFILE, nearKey().pub), 0);
        EXPECT_EQ(sec__init_thl(), 0);
        EXPECT_EQ(sec_store_host_token("far", farKey().pub), 0);
        // Made now: made by the impostor while it greets, the key took longer
        // than the greeting may on a slow (sanitizer) build.
        strangerKey();
        for (int i = 0; i < 2; ++i) {
            threads_.emplace_back([this] { io_.run(); });
        }
    }
    ~PeerLinkTest() override {
        if (link_) {
            link_->shutdown();
        }
        work_.reset();
        io_.stop();
        for (auto& t : threads_) {
            t.join();
        }
    }
    // backoffMin 2 s by default: no retry while the test runs.
    void makeLink(uint16_t port, std::chrono::milliseconds backoffMin = std::chrono::seconds(2),
                  std::chrono::milliseconds backoffMax = std::chrono::seconds(30)) {
        srv::PeerLinkOptions o;
        o.port = port;
        o.connectTimeout = std::chrono::milliseconds(500);
        o.helloTimeout = std::chrono::milliseconds(400);
        o.backoffMin = backoffMin;
        o.backoffMax = backoffMax;
        o.maxQueued = 4;
        srv::PeerHello self;
        self.host = "near";
        self.nodeId = 1;
        link_ = std::make_shared<srv::PeerLink>(io_.get_executor(), "far", self, o, nullptr);
        link_->setAddresses({"not-an-address", "127.0.0.1"});
    }
    // Sends one request; the future gets how it ended, and how long it took.
    std::future<std::pair<Outcome, Clock::duration>> ask(int timeoutMs) {
        auto p = std::make_shared<std::promise<std::pair<Outcome, Clock::duration>>>();
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto began = Clock::now();
        link_->request("peer.deliver", Json::object(), std::chrono::milliseconds(timeoutMs),
                       [p, calls, began](Outcome o, Json) {
                           ASSERT_EQ(calls->fetch_add(1), 0) << "ended twice";
                           p->set_value({o, Clock::now() - began});
                       });
        return p->get_future();
    }

    testsupport::TempDir root_{/*asRoot=*/true};
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::vector<std::thread> threads_;
    std::shared_ptr<srv::PeerLink> link_;
};

constexpr auto kEnough = std::chrono::seconds(10);

TEST_F(PeerLinkTest, AHostThatNeverGreetsBackIsDownAndCostsNothingAfterwards) {
    FarHost far(FarEnd::Silent);
    makeLink(far.port());
    // Shorter than the greeting: ends by its own deadline.
    auto first = ask(150);
    ASSERT_EQ(first.wait_for(kEnough), std::future_status::ready);
    auto [o1, took1] = first.get();
    EXPECT_EQ(o1, Outcome::TimedOut);
    EXPECT_LT(took1, std::chrono::milliseconds(1500)) << "its own deadline, not the link's";
    // Longer: lost when the greeting times out.
    auto second = ask(3000);
    ASSERT_EQ(second.wait_for(kEnough), std::future_status::ready);
    EXPECT_EQ(second.get().first, Outcome::Lost);
    EXPECT_EQ(link_->state(), srv::PeerLink::State::Down);
    EXPECT_EQ(far.greetings(), 1);
    // While down, requests end at once.
    auto third = ask(3000);
    ASSERT_EQ(third.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
    EXPECT_EQ(third.get().first, Outcome::Lost);
}

TEST_F(PeerLinkTest, RequestsEndByTheirDeadlineOrWhenTheLinkCloses) {
    {
        FarHost far(FarEnd::GreetsThenSilent);
        makeLink(far.port());
        auto r = ask(300);
        ASSERT_EQ(r.wait_for(kEnough), std::future_status::ready);
        EXPECT_EQ(r.get().first, Outcome::TimedOut);
        EXPECT_EQ(link_->state(), srv::PeerLink::State::Up)
            << "an unanswered request is not an outage";
        link_->shutdown();
    }
    FarHost closing(FarEnd::GreetsThenCloses);
    makeLink(closing.port());
    auto r = ask(5000);
    ASSERT_EQ(r.wait_for(kEnough), std::future_status::ready);
    EXPECT_EQ(r.get().first, Outcome::Lost);
}

TEST_F(PeerLinkTest, AFarEndWithoutTheHostsKeyIsNeverUsed) {
    FarHost impostor(FarEnd::Impostor);
    makeLink(impostor.port());
    auto r = ask(3000);
    ASSERT_EQ(r.wait_for(kEnough), std::future_status::ready);
    EXPECT_EQ(r.get().first, Outcome::Lost) << "nothing may reach a far end that did not prove";
    EXPECT_EQ(link_->state(), srv::PeerLink::State::Down);
    std::string error = link_->status().value("lastError", "");
    EXPECT_NE(error.find("did not prove it is far"), std::string::npos) << error;
}

TEST_F(PeerLinkTest, NobodyListeningAndAFullQueueLoseRequestsAtOnce) {
    uint16_t port = 0;
    {
        FarHost gone(FarEnd::Silent);
        port = gone.port();
    }
    makeLink(port);
    std::vector<std::future<std::pair<Outcome, Clock::duration>>> asks;
    for (int i = 0; i < 6; ++i) {
        asks.push_back(ask(3000));  // 4 wait for the connect, 2 are over the bound
    }
    int lost = 0;
    for (auto& f : asks) {
        ASSERT_EQ(f.wait_for(kEnough), std::future_status::ready);
        auto [o, took] = f.get();
        lost += o == Outcome::Lost ? 1 : 0;
        EXPECT_LT(took, std::chrono::seconds(2));
    }
    EXPECT_EQ(lost, 6);
    EXPECT_EQ(link_->status()["dropped"], 6);
}

TEST_F(PeerLinkTest, AHostNeverReachedPausesTenTimesLongerUntilItIsHeardFrom) {
    uint16_t port = 0;
    {
        FarHost gone(FarEnd::Silent);
        port = gone.port();
    }
    // Retried in the background at once and again and again: the pause
    // grows to its cap within a few hundred milliseconds.
    makeLink(port, std::chrono::milliseconds(1), std::chrono::milliseconds(8));
    ask(100).wait_for(kEnough);
    auto pauseAfter = [&](uint64_t failures) {
        auto until = Clock::now() + kEnough;
        while (link_->status()["failures"].get<uint64_t>() < failures && Clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return link_->status()["pauseMs"].get<int64_t>();
    };
    EXPECT_EQ(pauseAfter(12), 80) << "never answered: ten times the longest pause";
    uint64_t failures = link_->status()["failures"].get<uint64_t>();
    link_->heardFrom();
    EXPECT_EQ(pauseAfter(failures + 6), 8) << "heard from once: the usual longest pause";
}

}  // namespace
}  // namespace peertest
