// The node agent against a scripted management server on a fake clock:
// an unreachable server is tried again after growing pauses (and given up
// on when told to), a refused request and a reply that does not check out
// stop the agent with the reason, a good reply makes this host's key and
// trusts the server's under its names, and a server that forgets the node
// is asked again.
#include "orvnode/Agent.h"

#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <thread>

#include "platform/paths.h"
#include "tests/orvnode/ServerReplies.h"
#include "tests/support/TempDir.h"
#include "znhas/znhas.h"

namespace {

using orvnode::AgentResult;
using orvnode::Exchange;
using orvnode::Knowledge;
using orvnodetest::makeReply;
using orvnodetest::serverToken;

const std::vector<uint8_t> kSecret = {0xde, 0xad, 0xbe, 0xef, 1, 2, 3, 4};

// Plays back scripted answers; records the requests it got.
class ScriptedServer final : public orvnode::ServerLink {
public:
    std::deque<std::function<Exchange(const zn_structured_data&)>> answers;
    std::deque<Knowledge> knowledge;
    std::vector<zn::SdPtr> requests;
    size_t rechecks = 0;

    Exchange requestManagement(const zn_structured_data& request) override {
        requests.push_back(zn::copySd(&request));
        if (answers.empty()) {
            return unreachable();
        }
        auto a = std::move(answers.front());
        answers.pop_front();
        return a(request);
    }
    Knowledge knowsNode(const std::string&, std::string* why) override {
        ++rechecks;
        *why = "scripted";
        if (knowledge.empty()) {
            stopAgent();
            return Knowledge::Known;
        }
        Knowledge k = knowledge.front();
        knowledge.pop_front();
        return k;
    }
    std::function<void()> stopAgent = [] {};

    static Exchange unreachable() {
        Exchange x;
        x.message = "connection refused";
        return x;
    }
};

// A good reply; `service` is the name the server's service says it greets
// other hosts under.
std::function<Exchange(const zn_structured_data&)> answer(uint32_t protocol,
                                                          std::vector<uint8_t> secret,
                                                          std::vector<std::string> names = {},
                                                          std::string service = "") {
    return [=](const zn_structured_data&) {
        Exchange x;
        x.outcome = Exchange::Outcome::Answered;
        x.reply = makeReply(protocol, 4242, serverToken(), secret, names);
        x.serviceName = service;
        return x;
    };
}

class AgentTest : public ::testing::Test {
protected:
    AgentTest() : dir_(true) {}

    orvnode::Agent make(uint32_t protocol = 512, unsigned attempts = 0) {
        orvnode::AgentOptions o;
        o.request.protocol = protocol;
        o.request.hostname = "node1";
        o.request.nodeId = 99;
        o.request.mtms = "FRAME-1";
        o.serverName = "mgmt";
        o.firstPause = std::chrono::seconds(1);
        o.longestPause = std::chrono::seconds(4);
        o.maxAttempts = attempts;
        o.recheck = std::chrono::minutes(10);
        orvnode::Secret s;
        std::string why;
        EXPECT_TRUE(orvnode::Secret::fromHex("deadbeef01020304", &s, &why));
        return orvnode::Agent(o, std::move(s), server_, clock_, [this](const std::string& line) {
            std::lock_guard<std::mutex> g(mu_);
            log_.push_back(line);
        });
    }

    // Runs `body` on a thread, advancing the fake clock to each wake-up
    // it waits for, until it returns.
    template <typename F>
    AgentResult drive(F body) {
        std::atomic<bool> done{false};
        AgentResult result = AgentResult::Failed;
        std::thread t([&] {
            result = body();
            done = true;
        });
        while (!done) {
            if (auto wake = clock_.nextWake(); wake && clock_.sleepers() > 0) {
                clock_.advance(*wake - clock_.monoNow());
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        t.join();
        return result;
    }

    bool logged(const std::string& text) {
        std::lock_guard<std::mutex> g(mu_);
        for (const std::string& l : log_) {
            if (l.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    static bool trusted(const std::string& name) {
        sec_buffer_t token = nullptr;
        int rc = sec_get_host_token(name.c_str(), &token);
        bool same = rc == 0 && token->length == serverToken().size() &&
                    std::memcmp(token->value, serverToken().data(), token->length) == 0;
        sec_release_host_token(&token);
        return same;
    }

    testsupport::TempDir dir_;
    zn::FakeClock clock_;
    ScriptedServer server_;
    std::mutex mu_;
    std::vector<std::string> log_;
};

TEST_F(AgentTest, AGoodReplyMakesTheKeyAndTrustsTheServerUnderItsNames) {
    server_.answers.push_back(answer(513, kSecret, {"mgmt.example", "node1", "localhost"}));
    auto agent = make(513);
    EXPECT_EQ(agent.enroll(), AgentResult::Managed);
    EXPECT_TRUE(logged("made this host's key pair"));
    EXPECT_TRUE(logged("managed by mgmt (node id 4242)"));
    // The request carried this host's new public key.
    ASSERT_EQ(server_.requests.size(), 1u);
    sec_buffer_t mine = nullptr;
    ASSERT_EQ(sec_get_localhost_token(2, &mine), 0);
    const zn_binary* sent = server_.requests[0]->elements[5].value.ptr_binary;
    EXPECT_EQ(sent->length, mine->length);
    EXPECT_EQ(std::memcmp(sent->data, mine->value, mine->length), 0);
    sec_release_host_token(&mine);
    EXPECT_TRUE(trusted("mgmt"));
    EXPECT_TRUE(trusted("mgmt.example"));
    // Never under this host's own names.
    EXPECT_FALSE(trusted("node1"));
    EXPECT_FALSE(trusted("localhost"));
}

TEST_F(AgentTest, TheServersKeyIsTrustedUnderTheNameItsServiceGreetsUnder) {
    // The administrator named the server "mgmt"; its service may go by
    // another name, which this node's service will be greeted under.
    struct Case {
        const char* service;
        bool alsoTrusted;  // under the service's name as well as "mgmt"
        bool ownName;      // a name of this node's: never trusted
    };
    const Case cases[] = {
        {"mgmt.example", true, false},
        {"MGMT", false, false},      // the same name, in other letters: once
        {"node1", false, true},      // this node's own name
        {"localhost", false, true},  // every host's own
        {"", false, false},          // a service that did not say
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.service);
        for (const char* n : {"mgmt", "mgmt.example", "MGMT", "node1", "localhost"}) {
            sec_delete_host_token(n);  // what an earlier case stored
        }
        server_.answers.push_back(answer(512, kSecret, {}, c.service));
        {
            std::lock_guard<std::mutex> g(mu_);
            log_.clear();
        }
        auto agent = make();
        EXPECT_EQ(agent.enroll(), AgentResult::Managed);
        EXPECT_TRUE(trusted("mgmt"));
        if (c.alsoTrusted) {
            EXPECT_TRUE(trusted(c.service));
            EXPECT_TRUE(logged("its key is trusted (also as " + std::string(c.service) + ")"));
        } else {
            EXPECT_FALSE(logged("also as"));
        }
        if (c.ownName) {
            EXPECT_FALSE(trusted(c.service));
        }
    }
}

TEST_F(AgentTest, AnUnreachableServerIsTriedAgainAfterGrowingPauses) {
    for (int i = 0; i < 4; ++i) {
        server_.answers.push_back(
            [](const zn_structured_data&) { return ScriptedServer::unreachable(); });
    }
    server_.answers.push_back(answer(512, kSecret));
    auto agent = make();
    auto start = clock_.monoNow();
    EXPECT_EQ(drive([&] { return agent.enroll(); }), AgentResult::Managed);
    EXPECT_EQ(server_.requests.size(), 5u);
    for (const char* pause :
         {"trying again in 1000 ms", "trying again in 2000 ms", "trying again in 4000 ms"}) {
        EXPECT_TRUE(logged(pause)) << pause;
    }
    EXPECT_TRUE(logged("not reached: connection refused"));
    // 1 + 2 + 4 + 4 seconds on the fake clock, none of it slept.
    EXPECT_EQ(clock_.monoNow() - start, std::chrono::seconds(11));
}

TEST_F(AgentTest, GivesUpAfterTheAttemptsItWasGiven) {
    auto agent = make(512, 3);
    EXPECT_EQ(drive([&] { return agent.enroll(); }), AgentResult::Unreachable);
    EXPECT_EQ(server_.requests.size(), 3u);
    EXPECT_TRUE(logged("gave up after 3 attempts"));
}

TEST_F(AgentTest, ARefusalOrAReplyThatDoesNotCheckOutStopsWithTheReason) {
    struct Case {
        const char* name;
        std::function<Exchange(const zn_structured_data&)> answer;
        AgentResult result;
        const char* text;
    };
    std::vector<uint8_t> otherSecret = kSecret;
    otherSecret[0] ^= 1;
    const Case cases[] = {
        {"refused",
         [](const zn_structured_data&) {
             Exchange x;
             x.outcome = Exchange::Outcome::Refused;
             x.message = "2655-046 The key for this frame is not known.";
             return x;
         },
         AgentResult::Refused, "refused to manage this node: 2655-046"},
        {"signed with another secret", answer(512, otherSecret), AgentResult::BadReply,
         "is not trusted, stopping: the reply's signature does not match"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        server_.answers.push_back(c.answer);
        server_.answers.push_back(answer(512, kSecret));  // never asked for
        auto agent = make();
        server_.requests.clear();
        EXPECT_EQ(agent.enroll(), c.result);
        EXPECT_EQ(server_.requests.size(), 1u);
        EXPECT_TRUE(logged(c.text));
        EXPECT_FALSE(trusted("mgmt"));
        server_.answers.clear();
    }
}

TEST_F(AgentTest, AServerThatForgetsTheNodeIsAskedAgain) {
    server_.answers.push_back(answer(512, kSecret));
    server_.answers.push_back(answer(512, kSecret));
    server_.knowledge = {Knowledge::Known, Knowledge::Unreachable, Knowledge::Forgotten};
    auto agent = make();
    server_.stopAgent = [&] { agent.stop(); };
    auto start = clock_.monoNow();
    EXPECT_EQ(drive([&] { return agent.run(); }), AgentResult::Stopped);
    EXPECT_EQ(server_.requests.size(), 2u);  // once at first, once when forgotten
    EXPECT_EQ(server_.rechecks, 4u);
    EXPECT_TRUE(logged("has forgotten this node"));
    EXPECT_TRUE(logged("could not ask whether the server still knows"));
    EXPECT_EQ(clock_.monoNow() - start, std::chrono::minutes(40));
}

}  // namespace
