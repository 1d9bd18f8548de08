// The command line, run in-process against the fake service: what each
// command sends, what it prints (table and JSON), and its exit status with
// the catalogue text on standard error when anything fails.
#include <sstream>

#include "tests/znpex_client/CliFixture.h"
#include "znpex/cli/Commands.h"
#include "znpex/proto/ValueCodec.h"

using namespace testsupport;
namespace zv = testsupport::zv;
namespace proto = znpex::proto;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

TEST_F(CliTest, ClassesListsAttributesAndActions) {
    CliRun r = run({"classes"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Kor.ManagedNode (resource manager Kor.ORVRM, connected)"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Kor.NodeGroup (resource manager Kor.ORVRM, not connected)"),
              std::string::npos);
    EXPECT_NE(r.out.find("  persistent        IPAddresses            2   strs"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  class action      RequestNodeManagement  5   str,uint64s"),
              std::string::npos)
        << r.out;
    CliRun j = run({"-o", "json", "classes"});
    ASSERT_EQ(j.status, 0);
    auto list = proto::decodeClassList(proto::Json::parse(j.out));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].def.dynamic.size(), 2u);
}

TEST_F(CliTest, ListShowsChosenPersistentAndDynamicAttributes) {
    twoNodes();
    CliRun r = run({"list", "Kor.ManagedNode", "-a", "Hostname,Status", "-s", "LParID > 0"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "HANDLE                                    Hostname  Status\n" + hex1 +
                         "  n1        1\n" + hex2 + "  n2        127\n");
    EXPECT_EQ(rmRequests(RMRequestOp::EnumerateSelectResources).at(0).selection, "LParID > 0");
    EXPECT_EQ(rmRequests(RMRequestOp::GetAttributeValues).at(0).ids, std::vector<int>{0});
    EXPECT_EQ(rmRequests(RMRequestOp::ReportDynAttributeValues).at(1).ids, std::vector<int>{1});

    CliRun j = run({"-o", "json", "list", "Kor.ManagedNode", "--dynamic"});
    ASSERT_EQ(j.status, 0) << j.err;
    auto out = proto::Json::parse(j.out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1]["handle"], hex2);
    EXPECT_EQ(out[1]["attributes"]["NodeId"], "18446744073709551615");
    EXPECT_EQ(out[1]["attributes"]["Status"], 127);
    EXPECT_EQ(rmRequests(RMRequestOp::GetAttributeValues).back().ids,
              (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(CliTest, ListFailsWithTheManagersCatalogueText) {
    manager([](const RMRequest&) {
        RMReply reply;
        cu_error_t* e = nullptr;
        cu_pkg_error_1(&e, 0x1000e, nullptr, "tarn.rmf.cat", 2, 14, "%1$s is not supported.\n",
                       "enumerateResources");
        reply.error.reset(e);
        return reply;
    });
    CliRun r = run({"list", "Kor.ManagedNode"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "znpex: enumerateResources is not supported.\n");
    EXPECT_TRUE(r.out.empty());
    CliRun bad = run({"list", "Kor.ManagedNode", "-a", "Nope"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("no attribute named Nope"), std::string::npos);
}

TEST_F(CliTest, DefineTypesValuesByTheClass) {
    manager([this](const RMRequest&) {
        RMReply reply;
        reply.hasNewHandle = true;
        reply.newHandle = h2;
        return reply;
    });
    CliRun r = run({"define", "Kor.ManagedNode", "Hostname=n1", "NodeId=18446744073709551615",
                    "IPAddresses=10.0.0.1,10.0.0.2", "LParID=-3", "--option", "uint32:1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Defined Kor.ManagedNode resource " + hex2 + "\n");
    auto sent = rmRequests(RMRequestOp::DefineResource);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].values.size(), 4u);
    EXPECT_EQ(sent[0].values[1].value.type(), ZN_UINT64);
    EXPECT_EQ(sent[0].values[1].value.value().val_uint64, 18446744073709551615ull);
    EXPECT_EQ(sent[0].values[2].value.value().ptr_array->array_cnt, 2u);
    EXPECT_EQ(sent[0].values[3].value.value().val_int32, -3);
    ASSERT_TRUE(sent[0].input);
    EXPECT_EQ(sent[0].input->elements[0].data_type, ZN_UINT32);

    struct Bad {
        std::vector<std::string> args;
        const char* message;
    };
    const Bad bad[] = {
        {{"define", "Kor.ManagedNode", "LParID=abc"}, "LParID: \"abc\" is not a valid int32"},
        {{"define", "Kor.ManagedNode", "Colour=red"}, "no attribute named Colour"},
        {{"define", "Kor.ManagedNode", "Hostname"}, "\"Hostname\" is not attr=value"},
        {{"define", "Kor.ManagedNode", "--option", "5"}, "--option argument 1"},
    };
    for (const auto& b : bad) {
        CliRun x = run(b.args);
        EXPECT_EQ(x.status, 2) << b.message;
        EXPECT_NE(x.err.find(b.message), std::string::npos) << x.err;
    }
    EXPECT_EQ(rmRequests(RMRequestOp::DefineResource).size(), 1u);
}

TEST_F(CliTest, SetAndUndefineNeedTheirResources) {
    manager([this](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h1};
        } else if (r.op == RMRequestOp::UndefineResources) {
            for (const auto& h : r.handles) {
                tarn_rmf2v::RMReplyItem item;
                item.hasHandle = true;
                item.handle = h;
                if (h == h2) {
                    cu_error_t* e = nullptr;
                    cu_pkg_error_1(&e, 0x10008, nullptr, "tarn.rmf.cat", 2, 8, "no resource %1$s",
                                   "h2");
                    item.error.reset(e);
                }
                reply.items.push_back(std::move(item));
            }
        }
        return reply;
    });
    CliRun set = run({"set", "Kor.NodeGroup", "-s", "Name == 'g'", "MemberList=a,b"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "Changed " + hex1 + "\n");
    auto sets = rmRequests(RMRequestOp::SetAttributeValues);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets[0].values.at(0).value.value().ptr_array->array_cnt, 2u);
    CliRun classSet = run({"set", "Kor.ManagedNode", "--class", "Version=3"});
    EXPECT_EQ(classSet.status, 0) << classSet.err;
    EXPECT_EQ(classSet.out, "Changed class\n");

    CliRun noTarget = run({"set", "Kor.NodeGroup", "MemberList=a"});
    EXPECT_EQ(noTarget.status, 2);
    EXPECT_NE(noTarget.err.find("-s SELECTION or --handle"), std::string::npos);
    EXPECT_EQ(run({"undefine", "Kor.NodeGroup"}).status, 2);
    EXPECT_EQ(run({"undefine", "Kor.NodeGroup", "--handle", "xyz"}).status, 2);

    CliRun undef = run({"undefine", "Kor.NodeGroup", "--handle", hex1, "--handle", hex2});
    EXPECT_EQ(undef.status, 1);
    EXPECT_EQ(undef.out, "Undefined " + hex1 + "\n");
    EXPECT_EQ(undef.err, "znpex: " + hex2 + ": no resource h2\n");
    EXPECT_EQ(rmRequests(RMRequestOp::UndefineResources).at(0).handles.size(), 2u);
}

TEST_F(CliTest, ActionsTakeTypedArgumentsAndPrintTheirData) {
    manager([this](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h2};
            return reply;
        }
        reply.actionData.emplace_back(zn::copySd(r.input.get()));
        return reply;
    });
    CliRun r = run({"action", "Kor.ManagedNode", "RequestNodeManagement", "int32:5", "str:abc",
                    "uint64:7", "strs:a,b"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "class: [int32:5, str:abc, uint64:7, strs:{a,b}]\n");
    auto sent = rmRequests(RMRequestOp::InvokeClassAction);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].actionId, 5);
    ASSERT_EQ(sent[0].input->element_count, 4u);
    EXPECT_EQ(sent[0].input->elements[3].data_type, ZN_CHAR_PTR_ARRAY);

    // Plain values take the types the action declares.
    CliRun plain = run({"action", "Kor.ManagedNode", "RequestNodeManagement", "node1", "1,2"});
    ASSERT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(plain.out, "class: [str:node1, uint64s:{1,2}]\n");

    CliRun res = run({"-o", "json", "action", "Kor.ManagedNode", "SyncData", "--resource-selection",
                      "Hostname == 'n2'"});
    ASSERT_EQ(res.status, 0) << res.err;
    auto j = proto::Json::parse(res.out);
    ASSERT_EQ(j.size(), 1u);
    EXPECT_EQ(j[0]["handle"], hex2);
    EXPECT_EQ(rmRequests(RMRequestOp::InvokeAction).at(0).actionId, 3);

    CliRun unknown = run({"action", "Kor.ManagedNode", "SyncData"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("no class action named SyncData"), std::string::npos);
    CliRun badArg = run({"action", "Kor.ManagedNode", "SyncData", "--handle", hex1, "what"});
    EXPECT_EQ(badArg.status, 2);
    EXPECT_NE(badArg.err.find("argument 1: \"what\" has no type"), std::string::npos) << badArg.err;
}

TEST_F(CliTest, StatusFlattensTheServicesReport) {
    service->on("service.status", [](const proto::RpcMessage& m) {
        FakeService::Answer a;
        a.reply = FakeService::result(
            m, proto::Json::parse(
                   R"({"connections":2,"managers":[{"rm":"Kor.ORVRM","connected":true}]})"));
        return a;
    });
    CliRun r = run({"status"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "ITEM                   VALUE\nconnections            2\nmanagers[0].connected  "
              "true\nmanagers[0].rm         Kor.ORVRM\n");
    CliRun j = run({"-o", "json", "status"});
    EXPECT_EQ(proto::Json::parse(j.out)["connections"], 2);
}

TEST_F(CliTest, ServiceRefusalsPrintTheServiceText) {
    service->onRm([](const proto::RpcMessage& m) {
        FakeService::Answer a;
        a.reply = FakeService::error(
            m, proto::kPermissionDenied, "denied",
            errorObject(0x30001, "2660-001 Permission denied: %1$s may not do this.\n", "joe"));
        return a;
    });
    CliRun r = run({"list", "Kor.ManagedNode"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "znpex: 2660-001 Permission denied: joe may not do this.\n");
}

TEST_F(CliTest, HelpAndUsageErrors) {
    CliRun help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* cmd : {"classes", "list", "define", "set", "undefine", "action", "status"}) {
        EXPECT_NE(help.out.find(cmd), std::string::npos) << cmd;
    }
    CliRun listHelp = run({"list", "--help"});
    EXPECT_EQ(listHelp.status, 0);
    EXPECT_NE(listHelp.out.find("--dynamic"), std::string::npos);
    EXPECT_EQ(run({}).status, 2);
    EXPECT_EQ(run({"frobnicate"}).status, 2);
    EXPECT_EQ(run({"-o", "xml", "classes"}).status, 2);
    EXPECT_EQ(run({"list"}).status, 2);
    EXPECT_EQ(service->connectionsAccepted(), 0u);
}

TEST(CliNoService, CannotConnectIsAFailureWithTheCatalogueText) {
    TempDir root(true);
    std::ostringstream out, err;
    const char* argv[] = {"znpex", "--connect-timeout", "500", "classes"};
    EXPECT_EQ(znpex::cli::runCli(4, argv, out, err), 1);
    EXPECT_EQ(err.str().rfind("znpex: 2661-001 Cannot connect to the monitoring service at ", 0),
              0u)
        << err.str();
}

class CliTcpTest : public CliTest {
protected:
    bool useTcp() const override { return true; }
};

TEST_F(CliTcpTest, HostOptionGoesOverTcp) {
    CliRun r = run({"--host", "127.0.0.1:" + std::to_string(service->tcpPort()), "classes"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(service->methods().at(0), "auth.hello");
}

}  // namespace
