// The command line's global options, typed before or after the command words
// (nested commands included), and --help on every command.
#include "tests/znpex_client/CliFixture.h"
#include "znpex/client/Session.h"

using namespace testsupport;
namespace proto = znpex::proto;

namespace {

using Args = std::vector<std::string>;

// The answer timeout is the client library's process-wide default: a test
// that sets one puts the previous value back for the tests after it.
class KeepRequestTimeout {
public:
    ~KeepRequestTimeout() { px_set_default_timeouts(0, before_); }

private:
    int before_ = znpex::client::defaultRequestTimeoutMs();
};

TEST_F(CliTest, OutputOptionGoesBeforeOrAfterTheCommand) {
    const Args forms[] = {
        {"-o", "json", "classes"},
        {"classes", "-o", "json"},
        {"classes", "--output", "json"},
        {"classes", "--output=json"},
        // Given twice, the later one wins.
        {"-o", "table", "classes", "-o", "json"},
    };
    for (const auto& args : forms) {
        CliRun r = run(args);
        ASSERT_EQ(r.status, 0) << testing::PrintToString(args) << r.err;
        auto list = proto::decodeClassList(proto::Json::parse(r.out));
        EXPECT_EQ(list.size(), 2u) << testing::PrintToString(args);
    }
    CliRun table = run({"-o", "json", "classes", "-o", "table"});
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.out.rfind("Kor.ManagedNode (resource manager", 0), 0u) << table.out;
    CliRun bad = run({"classes", "-o", "xml"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("xml"), std::string::npos) << bad.err;
}

TEST_F(CliTest, GlobalOptionsMixWithACommandsOwnArguments) {
    KeepRequestTimeout keep;
    twoNodes();
    const Args forms[] = {
        {"-o", "json", "list", "Kor.ManagedNode", "-a", "Hostname"},
        {"list", "-o", "json", "Kor.ManagedNode", "-a", "Hostname"},
        {"list", "Kor.ManagedNode", "-o", "json", "-a", "Hostname"},
        {"list", "Kor.ManagedNode", "-a", "Hostname", "-o", "json"},
        {"list", "Kor.ManagedNode", "-a", "Hostname", "--timeout", "5000", "-o", "json"},
    };
    for (const auto& args : forms) {
        CliRun r = run(args);
        ASSERT_EQ(r.status, 0) << testing::PrintToString(args) << r.err;
        auto j = proto::Json::parse(r.out);
        ASSERT_EQ(j.size(), 2u) << r.out;
        EXPECT_EQ(j[0]["attributes"]["Hostname"], "n1") << testing::PrintToString(args);
    }
    // After positional lists: the option ends the list instead of joining it.
    CliRun set = run({"set", "Kor.ManagedNode", "-s", "", "Hostname=n9", "-o", "json"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(proto::Json::parse(set.out).size(), 2u) << set.out;
    auto sets = rmRequests(RMRequestOp::SetAttributeValues);
    ASSERT_EQ(sets.size(), 2u);
    EXPECT_EQ(sets[0].values.size(), 1u);
}

TEST_F(CliTest, NestedCommandsTakeGlobalOptionsAtEveryLevel) {
    service->on("di.nodes", [](const proto::RpcMessage& m) {
        FakeService::Answer a;
        a.reply = FakeService::result(m, proto::Json::array());
        return a;
    });
    for (const Args& args :
         {Args{"-o", "json", "tables", "nodes"}, Args{"tables", "-o", "json", "nodes"},
          Args{"tables", "nodes", "-o", "json"}}) {
        CliRun r = run(args);
        ASSERT_EQ(r.status, 0) << testing::PrintToString(args) << r.err;
        EXPECT_EQ(r.out, "[]\n") << testing::PrintToString(args);
    }
}

// The answer timeout typed after the command applies: the manager never
// answers, and the failure names the timeout given.
TEST_F(CliTest, TimeoutOptionAfterTheCommandApplies) {
    KeepRequestTimeout keep;
    service->onRm([](const proto::RpcMessage&) { return FakeService::Answer{}; });
    CliRun r = run({"list", "Kor.ManagedNode", "--timeout", "150"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("znpex: 2661-004 ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("within 150 milliseconds."), std::string::npos) << r.err;
}

TEST_F(CliTest, HelpOnEveryCommandExitsZero) {
    struct Help {
        Args args;
        const char* usage;  // the usage line, after "Usage: "
        const char* own;    // an option or argument of its own the help shows
    };
    const Help helps[] = {
        {{"--help"}, "znpex [OPTIONS] SUBCOMMAND", "classes"},
        {{"-h"}, "znpex [OPTIONS] SUBCOMMAND", "--connect-timeout"},
        {{"classes", "--help"}, "znpex classes [OPTIONS]", "--output"},
        {{"list", "--help"}, "znpex list [OPTIONS] class", "--dynamic"},
        {{"list", "Kor.ManagedNode", "-h"}, "znpex list [OPTIONS] class", "--attributes"},
        {{"define", "--help"}, "znpex define [OPTIONS] class [assignments...]", "--option"},
        {{"set", "--help"}, "znpex set [OPTIONS] class assignments...", "--class"},
        {{"undefine", "--help"}, "znpex undefine [OPTIONS] class", "--handle"},
        {{"action", "--help"},
         "znpex action [OPTIONS] class action [args...]",
         "--resource-selection"},
        {{"status", "--help"}, "znpex status [OPTIONS]", "--host"},
        {{"watch", "--help"}, "znpex watch [OPTIONS] class", "--duration"},
        {{"tables", "--help"}, "znpex tables [OPTIONS] SUBCOMMAND", "nodes"},
        {{"tables", "nodes", "--help"}, "znpex tables nodes [OPTIONS]", "--output"},
        {{"tables", "groups", "--help"}, "znpex tables groups [OPTIONS]", "--output"},
        {{"tables", "watch", "--help"}, "znpex tables watch [OPTIONS]", "--count"},
        {{"-o", "json", "tables", "watch", "-h"}, "znpex tables watch [OPTIONS]", "--duration"},
    };
    for (const auto& h : helps) {
        SCOPED_TRACE(testing::PrintToString(h.args));
        CliRun r = run(h.args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        EXPECT_NE(r.out.find("Usage: " + std::string(h.usage) + "\n"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(h.own), std::string::npos) << r.out;
        // Every command lists the global options it accepts.
        EXPECT_NE(r.out.find("-o,--output"), std::string::npos) << r.out;
        if (std::string(h.usage).rfind("znpex [", 0) != 0) {
            EXPECT_NE(r.out.find("Global options:"), std::string::npos) << r.out;
        }
    }
    EXPECT_EQ(service->connectionsAccepted(), 0u);
}

class CliTcpOptionsTest : public CliTest {
protected:
    bool useTcp() const override { return true; }
};

TEST_F(CliTcpOptionsTest, HostOptionAfterTheCommandGoesOverTcp) {
    CliRun r = run({"classes", "--host", "127.0.0.1:" + std::to_string(service->tcpPort())});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(service->methods().at(0), "auth.hello");
}

}  // namespace
