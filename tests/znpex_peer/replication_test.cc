// Table replication between three hosts: a change travels to the other
// hosts as that change and leaves every host with the same tables; a host
// that missed changes catches up with the whole tables and then takes
// changes again; a copy larger than one message goes in parts; a peer's
// changes and parts are checked before anything is taken.
#include <gtest/gtest.h>

#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ProtocolError.h"

namespace peertest {
namespace {

namespace di = znpex::di;
namespace proto = znpex::proto;
using testsupport::waitFor;
using Kind = RpcMessage::Kind;

constexpr int kOk = 0;
constexpr int kPartial = 8;

uint64_t counter(const Json& status, const char* name) {
    return status.is_object() && status.contains("peers") ? status["peers"].value(name, 0ull) : 0;
}

class ReplicationTest : public PeerDomainTest {
protected:
    // "di.refresh" of `t` on host `i`: its code, or -1 without a result.
    int refresh(size_t i, const di::Transaction& t) {
        auto c = hosts_[i].root_client();
        RpcMessage r = c->call(di::kDiRefresh, di::encodeTransaction(t), 15000);
        if (r.kind != Kind::Result || !r.result.contains("code")) {
            return -1;
        }
        return r.result["code"].get<int>();
    }
    Json groups(size_t i) {
        auto c = hosts_[i].root_client();
        RpcMessage r = c->call(di::kDiGroups);
        return r.kind == Kind::Result ? r.result : Json(nullptr);
    }
    // Every host holds host 0's tables.
    bool sameEverywhere() {
        Json n = nodes(0);
        Json g = groups(0);
        for (size_t i : {1u, 2u}) {
            if (nodes(i) != n || groups(i) != g) {
                return false;
            }
        }
        return true;
    }
    // Host `from`'s link to host `to` is up.
    bool linkUp(size_t from, size_t to) {
        Json s = status(from);
        if (!s.is_object() || !s.contains("peers")) {
            return false;
        }
        for (const Json& l : s["peers"].value("links", Json::array())) {
            if (l.value("host", "") == hosts_[to].name) {
                return l.value("state", "") == "up";
            }
        }
        return false;
    }
    di::NodeEntry hostRow(size_t i, std::vector<std::string> extraNames = {}) {
        di::NodeEntry n;
        n.nodeId = hosts_[i].nodeId;
        n.hostname = hosts_[i].name;
        n.names = {hosts_[i].name};
        n.names.insert(n.names.end(), extraNames.begin(), extraNames.end());
        n.addresses = {hosts_[i].name};
        return n;
    }
};

di::Transaction groupChange(di_table_op_t op, const std::string& name,
                            std::vector<std::string> members = {}) {
    di::Transaction t;
    t.op = op;
    t.groups.push_back(di::GroupEntry{name, std::move(members)});
    return t;
}

TEST_F(ReplicationTest, AChangeTravelsAsThatChangeAndEveryHostEndsTheSame) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), kOk) << hosts_[0].log();
    ASSERT_TRUE(waitFor([&] { return sameEverywhere(); }));

    struct Step {
        const char* what;
        size_t on;
        di::Transaction change;
    };
    di::Transaction replaceRow;
    replaceRow.nodes.push_back(hostRow(2, {"renamed"}));
    std::vector<Step> steps = {
        {"group added", 0, groupChange(DI_TABLE_ADD, "rack1", {"127.0.0.1", "127.0.0.2"})},
        {"group replaced", 1, groupChange(DI_TABLE_UPDATE, "rack1", {"127.0.0.3"})},
        {"second group", 2, groupChange(DI_TABLE_ADD, "rack2", {"127.0.0.1"})},
        {"node row replaced", 0, replaceRow},
        {"group removed", 1, groupChange(DI_TABLE_REMOVE, "rack1")},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        std::vector<Json> before;
        for (size_t i = 0; i < 3; ++i) {
            before.push_back(status(i));
        }
        ASSERT_EQ(refresh(s.on, s.change), kOk) << hosts_[s.on].log();
        EXPECT_TRUE(sameEverywhere());
        EXPECT_EQ(counter(status(s.on), "changesSent"), counter(before[s.on], "changesSent") + 1);
        for (size_t i = 0; i < 3; ++i) {
            if (i == s.on) {
                continue;
            }
            Json now = status(i);
            EXPECT_EQ(counter(now, "changesApplied"), counter(before[i], "changesApplied") + 1)
                << i;
            EXPECT_EQ(counter(now, "copiesApplied"), counter(before[i], "copiesApplied"))
                << i << ": no whole copy for a host that is up to date";
        }
    }
    Json g = groups(1);
    ASSERT_TRUE(g.is_array());
    ASSERT_EQ(g.size(), 1u) << g.dump();
    EXPECT_EQ(g[0]["name"], "rack2");
    bool renamed = false;
    for (const Json& n : nodes(1)) {
        for (const Json& v : n["names"]) {
            renamed = renamed || v == "renamed";
        }
    }
    EXPECT_TRUE(renamed);
}

TEST_F(ReplicationTest, AHostThatMissedChangesCatchesUpWholeThenTakesChangesAgain) {
    ASSERT_TRUE(startAll());
    ASSERT_EQ(refreshNodeTable(0), kOk);
    ASSERT_TRUE(waitFor([&] { return sameEverywhere(); }));

    // Host 3 misses changes made on both other hosts.
    stop(2);
    EXPECT_EQ(refresh(0, groupChange(DI_TABLE_ADD, "a", {"127.0.0.1"})), kPartial);
    EXPECT_EQ(refresh(1, groupChange(DI_TABLE_ADD, "b", {"127.0.0.2"})), kPartial);
    EXPECT_EQ(refresh(0, groupChange(DI_TABLE_REMOVE, "a")), kPartial);
    di::Transaction row;
    row.nodes.push_back(hostRow(1, {"while-away"}));
    EXPECT_EQ(refresh(1, row), kPartial);

    ASSERT_TRUE(start(2)) << hosts_[2].log();
    EXPECT_TRUE(waitFor([&] { return sameEverywhere(); })) << hosts_[2].log();
    EXPECT_TRUE(waitFor([&] { return counter(status(2), "copiesApplied") >= 1; }));

    // Up to date again, it takes the next change as a change (once the
    // links to it are up again: until then it is skipped).
    ASSERT_TRUE(waitFor([&] { return linkUp(0, 2) && linkUp(1, 2); }));
    uint64_t changes = counter(status(2), "changesApplied");
    EXPECT_EQ(refresh(0, groupChange(DI_TABLE_ADD, "c", {"127.0.0.3"})), kOk);
    EXPECT_TRUE(sameEverywhere());
    EXPECT_EQ(counter(status(2), "changesApplied"), changes + 1);
}

TEST_F(ReplicationTest, ACopyLargerThanOneMessageGoesInParts) {
    extraArgs_ = {"--replication-chunk-bytes", "1024"};
    ASSERT_TRUE(startAll());
    // Each row alone is near the chunk size: the table goes as whole
    // copies, each in several parts.
    std::vector<std::string> many;
    for (int i = 0; i < 40; ++i) {
        many.push_back("alias-" + std::to_string(i) + "-of-a-long-name");
    }
    ASSERT_EQ(refreshNodeTable(0, many), kOk) << hosts_[0].log();
    EXPECT_TRUE(sameEverywhere());
    Json s = status(0);
    // (A link coming up also sends the tables, so there may be more copies.)
    EXPECT_GE(counter(s, "copiesSent"), 2u);
    EXPECT_GE(counter(s, "partsSent"), 3u * counter(s, "copiesSent")) << "a part per row at least";
    for (size_t i : {1u, 2u}) {
        EXPECT_EQ(counter(status(i), "copiesApplied"), 1u) << i;
    }
    // A small change still goes as a change.
    ASSERT_EQ(refresh(1, groupChange(DI_TABLE_ADD, "g", {"127.0.0.1"})), kOk);
    EXPECT_TRUE(sameEverywhere());
    EXPECT_EQ(counter(status(0), "changesApplied"), 1u);
}

TEST_F(ReplicationTest, APeersChangesAndPartsAreCheckedBeforeAnythingIsTaken) {
    ASSERT_TRUE(startAll());
    auto peer = peerOf(1, 0);
    Json empty = di::encodeTransaction(di::Transaction{});
    di::Transaction wholeT;
    wholeT.clearNodes = wholeT.clearGroups = true;
    Json whole = di::encodeTransaction(wholeT);
    Json addA = di::encodeTransaction(groupChange(DI_TABLE_ADD, "a", {"127.0.0.1"}));
    Json addB = di::encodeTransaction(groupChange(DI_TABLE_ADD, "b", {"127.0.0.2"}));
    Json firstPart = di::encodeTransaction([] {
        di::Transaction t = groupChange(DI_TABLE_ADD, "p1", {"127.0.0.1"});
        t.clearNodes = t.clearGroups = true;
        return t;
    }());
    Json laterPart = di::encodeTransaction(groupChange(DI_TABLE_ADD, "p2", {"127.0.0.2"}));
    auto part = [](uint32_t index, uint32_t count) {
        return Json{{"index", index}, {"count", count}};
    };

    struct Case {
        const char* what;
        Json params;
        int errorCode;  // 0: a result
        Json result;    // the fields the result must have
    };
    std::vector<Case> cases = {
        {"whole tables at 5", Json{{"stamp", "5"}, {"tables", whole}}, 0,
         Json{{"code", kOk}, {"applied", true}}},
        {"a change without its base", Json{{"stamp", "6"}, {"change", addA}}, proto::kInvalidParams,
         nullptr},
        {"a change on tables not here", Json{{"stamp", "6"}, {"base", "4"}, {"change", addA}}, 0,
         Json{{"code", kOk}, {"applied", false}, {"behind", true}}},
        {"a change on these tables", Json{{"stamp", "6"}, {"base", "5"}, {"change", addA}}, 0,
         Json{{"code", kOk}, {"applied", true}}},
        {"the same change again", Json{{"stamp", "6"}, {"base", "5"}, {"change", addB}}, 0,
         Json{{"code", kOk}, {"applied", false}}},
        {"an invalid change", Json{{"stamp", "7"}, {"base", "6"}, {"change", Json{{"op", 3}}}},
         proto::kInvalidParams, nullptr},
        {"a part beyond its count",
         Json{{"stamp", "8"}, {"tables", firstPart}, {"part", part(2, 2)}}, proto::kInvalidParams,
         nullptr},
        {"no parts at all", Json{{"stamp", "8"}, {"tables", firstPart}, {"part", part(0, 0)}},
         proto::kInvalidParams, nullptr},
        {"a later part first", Json{{"stamp", "8"}, {"tables", laterPart}, {"part", part(1, 2)}},
         proto::kInvalidParams, nullptr},
        {"the first part", Json{{"stamp", "8"}, {"tables", firstPart}, {"part", part(0, 2)}}, 0,
         Json{{"code", kOk}, {"applied", false}, {"part", 0}}},
        {"the last part", Json{{"stamp", "8"}, {"tables", laterPart}, {"part", part(1, 2)}}, 0,
         Json{{"code", kOk}, {"applied", true}}},
        {"a part of the same copy again (sent twice at once)",
         Json{{"stamp", "8"}, {"tables", firstPart}, {"part", part(0, 2)}}, 0,
         Json{{"code", kOk}, {"applied", false}}},
        {"a change as whole tables", Json{{"stamp", "9"}, {"tables", empty}}, proto::kInvalidParams,
         nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RpcMessage r = peer->call("di.replicate", c.params);
        if (c.errorCode != 0) {
            EXPECT_EQ(r.kind, Kind::Error);
            EXPECT_EQ(r.errorCode, c.errorCode);
            continue;
        }
        ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
        for (auto& [k, v] : c.result.items()) {
            EXPECT_EQ(r.result.value(k, Json()), v) << k << " in " << r.result.dump();
        }
    }
    // What was taken: the copy in two parts, over the change before it.
    Json g = groups(1);
    ASSERT_TRUE(g.is_array());
    std::vector<std::string> names;
    for (const Json& e : g) {
        names.push_back(e["name"].get<std::string>());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"p1", "p2"}));
}

}  // namespace
}  // namespace peertest
