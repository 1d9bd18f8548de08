// Node groups through the running daemons, as an administrator uses them:
// znpex define, list, set, action and undefine against znpexd and orvrmd,
// with the node-group table of the service following each change.
#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::CliRun;
using daemonstest::Daemons;
using testsupport::readFile;

bool has(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
}

TEST_F(Daemons, NodeGroupsAreManagedFromTheCommandLine) {
    for (const char* n : {"n1", "n2", "n3"}) {
        std::string model = std::string("HWModel=") + (n[1] == '2' ? "m2" : "m1");
        CliRun r = cli({"define", "Kor.ManagedNode", std::string("Hostname=") + n, model});
        ASSERT_EQ(r.status, 0) << r.err;
    }
    CliRun r = cli({"define", "Kor.NodeGroup", "Name=rack", "MemberList=n1,n2"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = cli({"define", "Kor.NodeGroup", "Name=m1s", "SelectStr=HWModel==\"m1\""});
    ASSERT_EQ(r.status, 0) << r.err;
    r = cli({"define", "Kor.NodeGroup", "Name=both", "MemberList=+rack,+m1s"});
    ASSERT_EQ(r.status, 0) << r.err;

    CliRun refused =
        cli({"define", "Kor.NodeGroup", "Name=bad", "ValidateNodes=1", "MemberList=n1,zz"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.err,
                    "2655-022  The member name zz specified as part of the "
                    "MemberList is not a valid node."))
        << refused.err;
    refused = cli({"undefine", "Kor.NodeGroup", "-s", "Name==\"rack\""});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.err, "2655-019")) << refused.err;

    r = cli({"-o", "json", "list", "Kor.NodeGroup", "-s", "Name==\"both\"", "-a", "ExpMemberList"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "\"n1\"") && has(r.out, "\"n2\"") && has(r.out, "\"n3\"")) << r.out;

    r = cli({"action", "Kor.NodeGroup", "RemMembers", "-s", "Name==\"rack\"", "n2"});
    EXPECT_EQ(r.status, 0) << r.err;
    r = cli({"action", "Kor.NodeGroup", "GetMembers", "-s", "Name==\"rack\""});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "n1") && !has(r.out, "n2")) << r.out;
    r = cli({"action", "Kor.NodeGroup", "GroupsOfNode", "n1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "both") && has(r.out, "m1s") && has(r.out, "rack")) << r.out;

    r = cli({"set", "Kor.NodeGroup", "-s", "Name==\"m1s\"", "SelectStr=HWModel==\"m2\""});
    EXPECT_EQ(r.status, 0) << r.err;
    r = cli({"-o", "json", "action", "Kor.NodeGroup", "GroupsOfNode", "n2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "both") && has(r.out, "m1s") && !has(r.out, "rack")) << r.out;
    r = cli({"tables", "groups", "-o", "json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "\"m1s\"")) << r.out;

    // A service that lost its tables gets every group again once the
    // daemon's link to it is back.
    service_->signal(SIGTERM);
    service_->wait();
    std::string store = zn::paths::resolve(zn::paths::kDiTablesDir) + "/tables.db";
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(store + suffix);
    }
    service_ = std::make_unique<testsupport::Subprocess>(
        testsupport::binPath("znpex/server/znpexd"),
        std::vector<std::string>{"--state-root", root_.path(), "--no-tcp"},
        std::vector<std::string>{}, root_ / "znpexd.stderr");
    EXPECT_TRUE(testsupport::waitFor([&] {
        CliRun t = cli({"tables", "groups", "-o", "json"});
        return has(t.out, "\"both\"") && has(t.out, "\"rack\"");
    })) << readFile(root_ / "orvrmd.stderr");

    r = cli({"undefine", "Kor.NodeGroup", "-s", "Name==\"both\""});
    EXPECT_EQ(r.status, 0) << r.err;
    r = cli({"undefine", "Kor.NodeGroup", "-s", "Name==\"rack\""});
    EXPECT_EQ(r.status, 0) << r.err;
    r = cli({"tables", "groups", "-o", "json"});
    EXPECT_FALSE(has(r.out, "\"rack\"")) << r.out;
}

}  // namespace
