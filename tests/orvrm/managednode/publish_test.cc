// The node table as the class publishes it: each change as it happens (the
// refresh codes that count as success, a failing entry that lets go of the
// mutex), the names and addresses a node is published with, the whole table
// 20 s after start on the fake clock, and the write-back's scheduling. The
// resolver and the service's refresh are the tests' own.
#include <chrono>
#include <mutex>

#include "orvrm/ORVRMRmcp.h"
#include "platform/resolver/cu_resolver.h"
#include "tests/common/FakeResolver.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "znpex/di/di_table.h"

namespace classtest {
namespace {

using namespace std::chrono_literals;
using znpex::di::Transaction;

class PublishTest : public NodeTest {
protected:
    PublishTest() {
        resolver_.name("n1", "n1.example", {"10.0.0.1", "10.0.0.2"});
        resolver_.name("n2", "n2", {"10.0.0.9"});
        znpex::di::setRefresher([this](const Transaction& t) {
            std::lock_guard<std::mutex> g(mu_);
            if (t.clearNodes || !t.nodes.empty()) {
                sent_.push_back(t);  // the node table's (the groups publish too)
            }
            return code_;
        });
    }
    ~PublishTest() override { znpex::di::setRefresher(nullptr); }
    std::vector<Transaction> sent() {
        std::lock_guard<std::mutex> g(mu_);
        return sent_;
    }
    void answer(int code) {
        std::lock_guard<std::mutex> g(mu_);
        code_ = code;
    }
    void clearSent() {
        std::lock_guard<std::mutex> g(mu_);
        sent_.clear();
    }

    testsupport::FakeResolver resolver_;
    zn::resolver::ScopedResolver scoped_{resolver_};
    std::mutex mu_;
    std::vector<Transaction> sent_;
    int code_ = DI_OK;
};

TEST_F(PublishTest, OneChangeCountsAsPublishedOnRefreshCodes0And8Only) {
    char* names[] = {const_cast<char*>("x")};
    struct Case {
        int refresh;
        int result;
    } cases[] = {
        {DI_OK, 0}, {DI_EPARTIAL, 0}, {DI_ESTORE, DI_ESTORE}, {DI_ENOSERVICE, DI_ENOSERVICE}};
    for (const Case& c : cases) {
        answer(c.refresh);
        EXPECT_EQ(nodes()->updatePEXNodeInfo(DI_TABLE_ADD, 5, "x", names, 1, names, 1), c.result)
            << "refresh gave " << c.refresh;
    }
    // An entry that cannot be made (no host name) frees the table and lets
    // go of the mutex before returning.
    clearSent();
    EXPECT_EQ(nodes()->updatePEXNodeInfo(DI_TABLE_ADD, 5, "", nullptr, 0, nullptr, 0), DI_EINVAL);
    EXPECT_EQ(nodes()->updatePEXNodeInfo(DI_TABLE_ADD, 5, nullptr, nullptr, 0, nullptr, 0),
              DI_EINVAL);
    EXPECT_TRUE(sent().empty());
    ASSERT_TRUE(rmcp().diMutex().try_lock());
    rmcp().diMutex().unlock();
    EXPECT_EQ(
        nodes()->updatePEXNodeInfo(static_cast<di_table_op_t>(3), 5, "x", nullptr, 0, nullptr, 0),
        DI_EINVAL)
        << "no such operation";
}

TEST_F(PublishTest, DefineChangeAndUndefineEachPublishTheirNode) {
    zn_resource_handle h = nodeWithInterfaces("n1", 41, {"192.168.1.1"});
    defineNode("n2", attrs(u64(kMnUniversalId, 42)));
    defineNode("nowhere", attrs(u64(kMnUniversalId, 43)));  // does not resolve: left out
    auto s = sent();
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].op, DI_TABLE_ADD);
    EXPECT_FALSE(s[0].clearNodes);
    ASSERT_EQ(s[0].nodes.size(), 1u);
    EXPECT_EQ(s[0].nodes[0].nodeId, 41u);
    EXPECT_EQ(s[0].nodes[0].hostname, "n1");
    EXPECT_EQ(s[0].nodes[0].names, (std::vector<std::string>{"n1", "n1.example"}));
    EXPECT_EQ(s[0].nodes[0].addresses, std::vector<std::string>{"192.168.1.1"})
        << "the node's own addresses before the resolver's";
    EXPECT_EQ(s[1].nodes[0].names, std::vector<std::string>{"n2"}) << "the official name once";
    EXPECT_EQ(s[1].nodes[0].addresses, std::vector<std::string>{"10.0.0.9"});

    clearSent();
    set(kNodes, h, attrs(str(kMnUserComment, "rack 3")));
    EXPECT_TRUE(sent().empty()) << "nothing the table holds changed";
    set(kNodes, h, attrs(strs(kMnConnectivityIPAddrs, {"192.168.1.7"})));
    s = sent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].op, DI_TABLE_UPDATE);
    EXPECT_EQ(s[0].nodes[0].addresses, std::vector<std::string>{"192.168.1.7"});

    // Renamed: the old row goes, the new one comes.
    clearSent();
    set(kNodes, h, attrs(str(kMnHostname, "n2b")));
    resolver_.name("n2b", "n2b", {"10.0.0.3"});
    set(kNodes, h, attrs(str(kMnHostname, "n1")));
    s = sent();
    ASSERT_EQ(s.size(), 3u) << "n2b did not resolve yet: only the removal of n1";
    EXPECT_EQ(s[0].op, DI_TABLE_REMOVE);
    EXPECT_EQ(s[0].nodes[0].hostname, "n1");
    EXPECT_EQ(s[1].op, DI_TABLE_REMOVE);
    EXPECT_EQ(s[1].nodes[0].hostname, "n2b");
    EXPECT_EQ(s[2].op, DI_TABLE_UPDATE);
    EXPECT_EQ(s[2].nodes[0].hostname, "n1");

    clearSent();
    undefine(kNodes, {h});
    s = sent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].op, DI_TABLE_REMOVE);
    EXPECT_EQ(s[0].nodes[0].hostname, "n1");
}

TEST_F(PublishTest, TheWholeTableGoes20SecondsAfterStartAndOnlyThen) {
    nodeWithInterfaces("n1", 41, {"192.168.1.1"});
    defineNode("n2", attrs(u64(kMnUniversalId, 42)));
    defineNode("nowhere");
    restart();  // the class starts again: its first publication is due in 20 s
    clearSent();
    advance(19s);
    EXPECT_TRUE(sent().empty());
    advance(1s);
    auto s = sent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_TRUE(s[0].clearNodes) << "the table is emptied first";
    EXPECT_FALSE(s[0].clearGroups);
    ASSERT_EQ(s[0].nodes.size(), 2u) << "the node that does not resolve is left out";
    EXPECT_EQ(s[0].nodes[0].hostname, "n1");
    EXPECT_EQ(s[0].nodes[1].hostname, "n2");
    EXPECT_FALSE(nodes()->mgmtSvrEventsRegistered()) << "no service here";

    // With no service the domain session fails too: tried again 20 s later,
    // the table with it (the service may come back without it).
    clearSent();
    advance(20s);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(PublishTest, TwoWriteBacksInARowAreBothPending) {
    nodes()->syncSchedule().removeOperation(nodes());
    nodes()->scheduleTableSync();
    nodes()->scheduleTableSync();
    EXPECT_EQ(nodes()->syncSchedule().pending(), 2u);
    advance(1s);
    EXPECT_EQ(nodes()->syncSchedule().pending(), 0u);
    EXPECT_EQ(nodes()->syncSchedule().completed(), 2u);
}

}  // namespace
}  // namespace classtest
