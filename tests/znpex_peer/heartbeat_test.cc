// The domain's heartbeat between three hosts' services: host 1's manager
// tunes it (every second, two missed beats), the tuning reaches the other
// hosts with the tables, their services beat to host 1, and host 1's
// service reports a host that stopped beating to its manager once (a report
// without interfaces), until the host beats again.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/HeartbeatReport.h"
#include "znpex/proto/NotifyMessages.h"

namespace peertest {
namespace {

namespace proto = znpex::proto;
using testsupport::waitFor;
using Kind = RpcMessage::Kind;

struct Beat {
    uint64_t nodeId;
    size_t interfaces;
    std::string firstAddress;
};

// The heartbeat reports a manager got, in order.
std::vector<Beat> beats(const ScriptedManager& m) {
    std::vector<Beat> out;
    for (const Json& p : m.received("peer.received")) {
        proto::PeerMessage msg = proto::decodePeerMessage(p);
        proto::HeartbeatReport r;
        std::string why;
        if (msg.type == proto::kHeartbeatMessageType &&
            proto::parseHeartbeatReport(msg.data.data(), msg.data.size(), r, why)) {
            out.push_back(
                Beat{r.nodeId, r.entries.size(), r.entries.empty() ? "" : r.entries[0].address});
        }
    }
    return out;
}

size_t count(const std::vector<Beat>& all, uint64_t nodeId, bool alive) {
    size_t n = 0;
    for (const Beat& b : all) {
        n += b.nodeId == nodeId && (b.interfaces > 0) == alive ? 1 : 0;
    }
    return n;
}

class Heartbeat : public PeerDomainTest {
protected:
    // Tunes the heartbeat on host `i` for manager `rm`; the result's code.
    int tune(size_t i, unsigned frequency, unsigned sensitivity, const std::string& rm) {
        znpex::di::Heartbeat h;
        h.frequency = frequency;
        h.sensitivity = sensitivity;
        h.rm = rm;
        RpcMessage r = hosts_[i].root_client()->call(znpex::di::kDiTuneHeartbeat,
                                                     znpex::di::encodeHeartbeat(h), 15000);
        return r.kind == Kind::Result ? r.result.value("code", -1) : -1;
    }
    Json beatStatus(size_t i) {
        Json s = status(i);
        return s.is_object() && s.contains("heartbeat") ? s["heartbeat"] : Json::object();
    }
};

TEST_F(Heartbeat, HostsBeatToTheServerWhichReportsASilentHostOnceUntilItBeatsAgain) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), 0);
    ScriptedManager server(hosts_[0].socketPath(), "Kor.ORVRM", {"Kor.ManagedNode"});
    ASSERT_TRUE(server.registered());
    ASSERT_EQ(tune(0, 1, 2, "Kor.ORVRM"), 0);

    // Both other hosts learn the tuning and beat, naming their addresses.
    ASSERT_TRUE(waitFor([&] {
        auto all = beats(server);
        return count(all, hosts_[1].nodeId, true) >= 2 && count(all, hosts_[2].nodeId, true) >= 2;
    })) << hosts_[1].log();
    for (size_t i : {1, 2}) {
        EXPECT_EQ(beatStatus(i)["role"], "sender");
        EXPECT_EQ(beatStatus(i)["server"], hosts_[0].name);
        EXPECT_EQ(beatStatus(i)["frequency"], 1);
    }
    EXPECT_EQ(beatStatus(0)["role"], "server");
    EXPECT_EQ(beatStatus(0)["watched"], 2) << "the hosts of its table but itself";
    for (const Beat& b : beats(server)) {
        if (b.nodeId == hosts_[1].nodeId) {
            EXPECT_EQ(b.firstAddress, hosts_[1].name);
        }
    }
    EXPECT_EQ(count(beats(server), hosts_[1].nodeId, false), 0u) << "nobody fell silent";

    // Host 3 stops: within two beats its silence is reported, once.
    stop(2);
    auto stopped = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitFor([&] { return count(beats(server), hosts_[2].nodeId, false) == 1; }));
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(3500));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(count(beats(server), hosts_[2].nodeId, false), 1u) << "reported once";
    EXPECT_EQ(beatStatus(0)["silent"], 1);
    EXPECT_EQ(count(beats(server), hosts_[1].nodeId, false), 0u) << "host 2 beats on";

    // Back: it kept the tuning with its tables and beats again.
    size_t before = count(beats(server), hosts_[2].nodeId, true);
    ASSERT_TRUE(start(2));
    ASSERT_TRUE(waitFor([&] { return count(beats(server), hosts_[2].nodeId, true) > before; }));
    EXPECT_TRUE(waitFor([&] { return beatStatus(0)["silent"] == 0; }));
}

TEST_F(Heartbeat, ANewTuningTravelsAndAHostThatNeverBeatsIsReported) {
    ASSERT_TRUE(startAll());
    stop(2);  // never beats
    ASSERT_EQ(refreshNodeTable(0), 8) << "host 3 is down: applied, not everywhere";
    ScriptedManager server(hosts_[0].socketPath(), "Kor.ORVRM", {"Kor.ManagedNode"});
    ASSERT_TRUE(server.registered());
    ASSERT_EQ(tune(0, 1, 3, "Kor.ORVRM"), 0);
    ASSERT_TRUE(waitFor([&] { return count(beats(server), hosts_[2].nodeId, false) == 1; }));
    EXPECT_EQ(count(beats(server), hosts_[1].nodeId, false), 0u);
    // Tuned again: the others follow.
    ASSERT_EQ(tune(0, 2, 3, "Kor.ORVRM"), 0);
    EXPECT_TRUE(waitFor([&] { return beatStatus(1)["frequency"] == 2; }));
    // The same tuning again changes nothing and sends nothing.
    uint64_t replicated = status(0)["peers"].value("replicated", 0ull) +
                          status(0)["peers"].value("replicationsPartial", 0ull);
    ASSERT_EQ(tune(0, 2, 3, "Kor.ORVRM"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(status(0)["peers"].value("replicated", 0ull) +
                  status(0)["peers"].value("replicationsPartial", 0ull),
              replicated);
}

}  // namespace
}  // namespace peertest
