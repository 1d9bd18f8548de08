// Three hosts' services as one management domain: peer messages reach the
// managers of the same name on the other hosts only, and a host that is
// down neither blocks nor delays them; the node table reaches every host
// and a host that missed a change catches up when it is back, while a
// restarted host keeps newer tables than a returning host's; a peer's table
// copies must be whole and newer.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/proto/Base64.h"
#include "znpex/proto/ProtocolError.h"

namespace peertest {
namespace {

namespace proto = znpex::proto;
using testsupport::waitFor;
using Kind = RpcMessage::Kind;

constexpr int kOk = 0;
constexpr int kPartial = 8;

Json peerMessage(int type, const std::string& text) {
    return Json{{"type", type},
                {"subtype", type + 1},
                {"data", proto::base64Encode(text.data(), text.size())}};
}

bool hasName(const Json& nodes, const std::string& name) {
    if (!nodes.is_array()) {
        return false;
    }
    for (const Json& n : nodes) {
        for (const Json& v : n.value("names", Json::array())) {
            if (v == name) {
                return true;
            }
        }
    }
    return false;
}

uint64_t peerCounter(const Json& status, const char* name) {
    return status.is_object() && status.contains("peers") ? status["peers"].value(name, 0ull) : 0;
}

TEST_F(PeerDomainTest, PeerMessagesReachSameNamedManagersOnOtherHostsOnly) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), kOk);
    ScriptedManager m1(hosts_[0].socketPath(), "Test.RM", {"Test.Widget"});
    ScriptedManager m2(hosts_[1].socketPath(), "Test.RM", {"Test.Widget"});
    ScriptedManager m3(hosts_[2].socketPath(), "Test.RM", {"Test.Widget"});
    ScriptedManager other(hosts_[1].socketPath(), "Other.RM", {"Other.Thing"});
    ASSERT_TRUE(m1.registered() && m2.registered() && m3.registered() && other.registered());

    m1.notify("peer.send", peerMessage(7, "first"));
    ASSERT_TRUE(waitFor([&] {
        return m2.received("peer.received").size() == 1 && m3.received("peer.received").size() == 1;
    })) << hosts_[0].log();
    for (ScriptedManager* m : {&m2, &m3}) {
        Json got = m->received("peer.received").front();
        EXPECT_EQ(got, peerMessage(7, "first"));
    }
    EXPECT_TRUE(m1.received("peer.received").empty()) << "not back to the sender's host";
    EXPECT_TRUE(other.received("peer.received").empty()) << "only the manager of the same name";
    EXPECT_TRUE(waitFor([&] { return peerCounter(status(0), "delivered") == 2; }));

    // With host 3 down, host 2 still gets every message, without waiting on host 3.
    stop(2);
    constexpr int kBurst = 50;
    for (int i = 0; i < kBurst; ++i) {
        m1.notify("peer.send", peerMessage(100 + i, "burst"));
    }
    ASSERT_TRUE(waitFor([&] { return m2.received("peer.received").size() == 1 + kBurst; }));
    auto got = m2.received("peer.received");
    for (int i = 0; i < kBurst; ++i) {
        EXPECT_EQ(got[1 + i]["type"], 100 + i) << "in order";
    }
    EXPECT_TRUE(waitFor([&] { return peerCounter(status(0), "failed") == kBurst; }));
    std::string log = hosts_[0].log();
    size_t downLines = 0;
    for (size_t at = log.find("peer link to 127.0.0.3 is down"); at != std::string::npos;
         at = log.find("peer link to 127.0.0.3 is down", at + 1)) {
        ++downLines;
    }
    EXPECT_EQ(downLines, 1u) << "one line per outage:\n" << log;
}

TEST_F(PeerDomainTest, TablesReplicateAndAHostThatMissedAChangeCatchesUp) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), kOk) << hosts_[0].log();
    for (size_t i : {1u, 2u}) {
        EXPECT_TRUE(waitFor([&] { return nodes(i).size() == 3; })) << i;
        Json n = nodes(i);
        std::vector<uint64_t> ids;
        for (const Json& e : n) {
            ids.push_back(std::stoull(e["nodeId"].get<std::string>()));
        }
        std::sort(ids.begin(), ids.end());
        std::vector<uint64_t> want = {hosts_[0].nodeId, hosts_[1].nodeId, hosts_[2].nodeId};
        std::sort(want.begin(), want.end());
        EXPECT_EQ(ids, want);
    }

    // Host 3 misses a change: applied where it could be, reported partial.
    stop(2);
    EXPECT_EQ(refreshNodeTable(0, {"second"}), kPartial);
    EXPECT_TRUE(hasName(nodes(1), "second"));
    // Back, it gets the tables on the next contact of a host that has them.
    ASSERT_TRUE(start(2)) << hosts_[2].log();
    EXPECT_TRUE(waitFor([&] { return hasName(nodes(2), "second"); })) << hosts_[0].log();

    // Any host may change the tables; a change on host 2 reaches 1 and 3.
    EXPECT_EQ(refreshNodeTable(1, {"third"}), kOk) << hosts_[1].log();
    for (size_t i : {0u, 2u}) {
        EXPECT_TRUE(hasName(nodes(i), "third")) << i;
        EXPECT_FALSE(hasName(nodes(i), "second")) << "the whole table was replaced";
    }

    // Host 1 changes the tables with both others down, then restarts: it
    // keeps the newest tables and their stamp, so when host 3 comes back
    // with its older copy, host 1 refuses it and host 3 gets host 1's.
    stop(1);
    stop(2);
    EXPECT_EQ(refreshNodeTable(0, {"fourth"}), kPartial);
    stop(0);
    ASSERT_TRUE(start(0)) << hosts_[0].log();
    ASSERT_TRUE(start(2)) << hosts_[2].log();
    EXPECT_TRUE(waitFor([&] { return hasName(nodes(2), "fourth"); })) << hosts_[2].log();
    EXPECT_TRUE(hasName(nodes(0), "fourth"));
    EXPECT_FALSE(hasName(nodes(0), "third")) << "an older copy replaced newer tables";
}

TEST_F(PeerDomainTest, TablesFromAPeerMustBeWholeAndNewer) {
    ASSERT_TRUE(startAll());
    auto peer = peerOf(1, 0);
    auto& plain = *peer;
    RpcMessage r;
    // Malformed copies change nothing; a copy is taken once, and not again
    // with the same stamp.
    Json whole{{"op", 1},
               {"clearNodes", true},
               {"clearGroups", true},
               {"nodes", Json::array()},
               {"groups", Json::array()}};
    Json part = whole;
    part["clearGroups"] = false;
    Json removal = whole;
    removal["op"] = 4;
    for (const Json& bad :
         {Json{{"stamp", "x"}, {"tables", whole}}, Json{{"stamp", "5"}, {"tables", part}},
          Json{{"stamp", "5"}, {"tables", removal}}, Json{{"stamp", "5"}}}) {
        r = plain.call("di.replicate", bad);
        EXPECT_EQ(r.kind, Kind::Error) << bad.dump();
        EXPECT_EQ(r.errorCode, proto::kInvalidParams) << bad.dump();
    }
    r = plain.call("di.replicate", Json{{"stamp", "5"}, {"tables", whole}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["code"], 0);
    EXPECT_EQ(r.result["applied"], true);
    r = plain.call("di.replicate", Json{{"stamp", "5"}, {"tables", whole}});
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["applied"], false) << "not newer than what host 2 has";
}

}  // namespace
}  // namespace peertest
