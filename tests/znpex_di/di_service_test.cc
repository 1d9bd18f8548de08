// The tables through the service: a manager's di_* calls land in the
// service's store, clients read and watch them, they survive a restart, and
// what may not change them cannot.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "platform/paths.h"
#include "tarn_rmf2v/link/RMDiLink.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/cli/Commands.h"
#include "znpex/di/di_table.h"

namespace {

using namespace znpextest;

class DiService : public ServiceTest {
protected:
    void SetUp() override {
        startService();
        tarn_rmf2v::installDiLink(socketPath(), "Test.RM", std::chrono::seconds(10));
    }
    void TearDown() override { tarn_rmf2v::removeDiLink(); }

    // Publishes two nodes and one group the way a manager does.
    static int publish() {
        di_table_t t = nullptr;
        EXPECT_EQ(di_init_table_1(DI_TABLE_ADD, &t), DI_OK);
        char a[] = "n1", b[] = "10.0.0.1", c[] = "10.0.0.2";
        char* names[] = {a};
        char* addrs[] = {b, c};
        EXPECT_EQ(di_mn_null_table_1(t), DI_OK);
        EXPECT_EQ(di_mn_table_entry_1(t, 0xFFFFFFFFFFFFFFF1ull, "n1.example", names, 1, addrs, 2),
                  DI_OK);
        EXPECT_EQ(di_mn_table_entry_1(t, 7, "n2.example", nullptr, 0, nullptr, 0), DI_OK);
        char m1[] = "n1.example", m2[] = "n2.example";
        char* members[] = {m1, m2};
        EXPECT_EQ(di_ngn_table_entry_1(t, "all", members, 2), DI_OK);
        int rc = di_refresh_table_1(t);
        di_free_table_1(t);
        return rc;
    }
};

TEST_F(DiService, RefreshedTablesAreReadWatchedAndSurviveARestart) {
    auto watcher = root();
    auto w = watcher->call("di.watch");
    ASSERT_EQ(w.kind, RpcMessage::Kind::Result) << w.errorMessage;

    ASSERT_EQ(publish(), DI_OK);
    ASSERT_EQ(di_tune_heartbeat(4, 9), DI_OK);

    RpcMessage changed;
    ASSERT_TRUE(watcher->next(&changed));
    EXPECT_EQ(changed.method, "di.changed");
    EXPECT_TRUE(changed.params["nodes"].get<bool>());
    EXPECT_TRUE(changed.params["groups"].get<bool>());

    auto check = [this] {
        auto nodes = root()->call("di.nodes");
        ASSERT_EQ(nodes.kind, RpcMessage::Kind::Result) << nodes.errorMessage;
        ASSERT_EQ(nodes.result.size(), 2u);
        // 64-bit ids travel as decimal text, without losing bits.
        EXPECT_EQ(nodes.result[0]["nodeId"], "18446744073709551601");
        EXPECT_EQ(nodes.result[0]["addresses"], Json::array({"10.0.0.1", "10.0.0.2"}));
        EXPECT_EQ(nodes.result[1]["hostname"], "n2.example");
        auto groups = root()->call("di.groups");
        ASSERT_EQ(groups.result.size(), 1u);
        EXPECT_EQ(groups.result[0]["members"], Json::array({"n1.example", "n2.example"}));
        auto st = root()->call("service.status");
        EXPECT_EQ(st.result["tables"]["heartbeat"]["frequency"], 4);
        EXPECT_EQ(st.result["tables"]["heartbeat"]["sensitivity"], 9);
    };
    check();
    service_->stop();
    service_.reset();
    startService();
    check();

    // Removing a node by key leaves the rest.
    di_table_t t = nullptr;
    ASSERT_EQ(di_init_table_1(DI_TABLE_REMOVE, &t), DI_OK);
    ASSERT_EQ(di_mn_table_entry_1(t, 0, "n2.example", nullptr, 0, nullptr, 0), DI_OK);
    EXPECT_EQ(di_refresh_table_1(t), DI_OK);
    di_free_table_1(t);
    EXPECT_EQ(root()->call("di.nodes").result.size(), 1u);
}

TEST_F(DiService, WhatMayNotChangeTheTablesCannot) {
    ASSERT_EQ(publish(), DI_OK);
    // A transaction with a bad operation or an oversized list is refused as
    // a whole: the tables stay as they were.
    Json bad = {{"op", 3}, {"nodes", Json::array()}, {"groups", Json::array()}};
    auto r = root()->call("di.refresh", bad);
    EXPECT_EQ(r.errorCode, -32602) << r.errorMessage;
    Json tooMany = Json::array();
    for (int i = 0; i < 300; ++i) {
        tooMany.push_back("x");
    }
    Json big = {{"op", 1},
                {"clearNodes", true},
                {"nodes", Json::array({{{"nodeId", "1"},
                                        {"hostname", "h"},
                                        {"names", tooMany},
                                        {"addresses", Json::array()}}})},
                {"groups", Json::array()}};
    r = root()->call("di.refresh", big);
    EXPECT_EQ(r.errorCode, -32602);
    EXPECT_EQ(root()->call("di.tuneHeartbeat", {{"frequency", 0}, {"sensitivity", 2}}).errorCode,
              -32602);
    EXPECT_EQ(root()->call("di.nodes").result.size(), 2u);

    // Over TCP, unauthenticated: neither change nor read.
    auto tcp = unauthenticated();
    EXPECT_EQ(tcp->call("di.refresh", bad).errorCode, -32601);
    EXPECT_EQ(tcp->call("di.nodes").errorCode, -32601);
    EXPECT_EQ(tcp->call("di.watch").errorCode, -32601);
    if (canSwitchUser()) {
        std::string reply = callAsNobody(socketPath(), "di.refresh", big);
        EXPECT_NE(reply.find("not allowed"), std::string::npos) << reply;
        reply = callAsNobody(socketPath(), "di.nodes", Json::object());
        EXPECT_NE(reply.find("n1.example"), std::string::npos) << reply;
    }
}

TEST_F(DiService, AStoreThatCannotBeOpenedIsSetAsideNotFatal) {
    service_->stop();
    service_.reset();
    std::string store = zn::paths::resolve(zn::paths::kDiTablesDir) + "/tables.db";
    writeText(store, std::string(8192, 'z'));
    startService();
    EXPECT_EQ(root()->call("di.nodes").result.size(), 0u);
    ASSERT_EQ(publish(), DI_OK);
    EXPECT_EQ(root()->call("di.nodes").result.size(), 2u);
    EXPECT_EQ(::access((store + ".bad").c_str(), F_OK), 0);
}

// The command line shows both tables and follows their changes.
TEST_F(DiService, CommandLineShowsAndWatchesTheTables) {
    auto run = [](std::vector<const char*> args, std::string* out) {
        args.insert(args.begin(), "znpex");
        std::ostringstream o, e;
        int rc = znpex::cli::runCli(static_cast<int>(args.size()), args.data(), o, e);
        *out = o.str() + e.str();
        return rc;
    };
    // The watch's output is the helper's until it has finished: the test
    // reads only that it has.
    std::string watched;
    int watchRc = -1;
    std::atomic<bool> watchDone{false};
    std::thread watcher([&] {
        watchRc = run({"tables", "watch", "--count", "1", "--duration", "20"}, &watched);
        watchDone.store(true);
    });
    // The watch counts only changes after it started: publish until it saw one.
    for (int i = 0; i < 100 && !watchDone.load(); ++i) {
        if (publish() != DI_OK) {
            ADD_FAILURE() << "publishing failed";
            break;  // the watch still ends, by its duration
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    watcher.join();
    EXPECT_EQ(watchRc, 0) << watched;
    EXPECT_NE(watched.find("nodes groups changed"), std::string::npos) << watched;

    std::string out;
    ASSERT_EQ(run({"tables", "nodes"}, &out), 0) << out;
    EXPECT_NE(out.find("0xfffffffffffffff1"), std::string::npos) << out;
    EXPECT_NE(out.find("10.0.0.1,10.0.0.2"), std::string::npos) << out;
    ASSERT_EQ(run({"-o", "json", "tables", "groups"}, &out), 0) << out;
    Json groups = Json::parse(out);
    EXPECT_EQ(groups[0]["name"], "all");
    EXPECT_EQ(run({"tables"}, &out), 2);
}

}  // namespace
