// orvctl against the running service and daemon: nodes added (with and
// without a universal id, so with or without interfaces), listed in every
// format, shown, changed, removed by name and by selection, and imported
// from a file; refusals carry the catalogue's text and exit status 1.
#include <nlohmann/json.hpp>

#include <fstream>

#include "tests/orvctl/OrvctlRun.h"
#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::CliRun;
using daemonstest::Daemons;
using nlohmann::json;
using orvctltest::orvctl;
using orvctltest::Outcome;

class Orvctl : public Daemons {
protected:
    // The line of `table` that starts with `name` and a blank.
    static std::string lineOf(const std::string& table, const std::string& name) {
        std::istringstream in(table);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(name + " ", 0) == 0) {
                return line;
            }
        }
        return "";
    }
    // Collapses runs of blanks, so table lines compare without padding.
    static std::string squeezed(const std::string& s) {
        std::string out;
        for (char c : s) {
            if (c != ' ' || out.empty() || out.back() != ' ') {
                out.push_back(c);
            }
        }
        return out;
    }
    std::string interfaces() {
        CliRun list = cli({"list", "Kor.MNNetworkInterface", "-a", "Name,IPAddress"});
        EXPECT_EQ(list.status, 0) << list.err;
        return list.out;
    }
};

TEST_F(Orvctl, NodesAreAddedWithTheirInterfacesOnlyOnceTheyHaveAnId) {
    Outcome n1 = orvctl({"node", "add", "n1", "--ip", "10.0.0.1", "--ip", "10.0.0.2", "--id", "5",
                         "Mode=Managed", "UserComment=rack 1"});
    ASSERT_EQ(n1.status, 0) << n1.err;
    EXPECT_EQ(n1.out, "Added n1\n");
    EXPECT_EQ(n1.err, "");
    Outcome n2 = orvctl({"node", "add", "n2", "--ip", "10.0.1.1"});
    ASSERT_EQ(n2.status, 0) << n2.err;
    EXPECT_EQ(n2.err,
              "orvctl: note: n2 has no universal id: its network interfaces are made once it has "
              "one (at enrollment, or with orvctl node set n2 UniversalId=ID)\n");
    std::string ifs = interfaces();
    EXPECT_NE(ifs.find("10.0.0.2"), std::string::npos) << ifs;
    EXPECT_EQ(ifs.find("10.0.1.1"), std::string::npos) << "no id, no interface:\n" << ifs;

    Outcome set = orvctl({"node", "set", "n2", "UniversalId=0x6"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "Changed n2\n");
    ifs = interfaces();
    EXPECT_NE(ifs.find("10.0.1.1"), std::string::npos) << "made once it has an id:\n" << ifs;

    Outcome n3 = orvctl({"-o", "json", "node", "add", "n3", "--ip", "10.0.2.1", "--id", "0"});
    ASSERT_EQ(n3.status, 0) << n3.err;
    auto added = json::parse(n3.out);
    EXPECT_EQ(added["name"], "n3");
    EXPECT_EQ(added["handle"].get<std::string>().size(), 40u);
    EXPECT_NE(added["note"].get<std::string>().find("n3 has no universal id"), std::string::npos)
        << "0 is no universal id";
}

TEST_F(Orvctl, RefusalsPrintTheCatalogueTextAndExitWithOne) {
    ASSERT_EQ(orvctl({"node", "add", "n1", "--id", "5"}).status, 0);
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"node", "add", "n1"}, "orvctl: 2655-006 A node with the hostname n1 already exists.\n"},
        {{"node", "add", "n2", "--id", "5"},
         "orvctl: 2655-032 A node with the specified node identifier exists in the management "
         "domain.\n"},
        {{"node", "add", "n3", "ConsoleSerialSpeed=0"},
         "orvctl: 2655-070 ConsoleSerialSpeed attribute must be set to a value between 1 and "
         "230400 bps inclusive.\n"},
        {{"node", "add", "n4", "Hostname=n5"},
         "orvctl: 2655-002 Attribute Hostname appears in request more than once.\n"},
        {{"node", "set", "n1", "AllowManageRequest=2"},
         "orvctl: n1 AllowManageRequest: 2655-055 The valid values for AllowManageRequest "
         "attribute are 0 or 1.\n"},
        {{"node", "set", "nope", "Mode=Managed"}, "orvctl: no node named nope\n"},
        {{"node", "show", "nope"}, "orvctl: no node named nope\n"},
    };
    for (const auto& [args, err] : cases) {
        SCOPED_TRACE(args[1] + " " + args[2]);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, err);
    }
    Outcome unknown = orvctl({"node", "set", "n1", "Bogus=1"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err, "orvctl: the class Kor.ManagedNode has no attribute named Bogus\n");
    Outcome asJson = orvctl({"-o", "json", "node", "show", "nope"});
    EXPECT_EQ(json::parse(asJson.out)["error"]["text"], "no node named nope");
}

TEST_F(Orvctl, NodesAreListedInEveryFormatAndShown) {
    ASSERT_EQ(orvctl({"node", "add", "b2", "--ip", "10.0.0.3", "--id", "7", "HWType=8233",
                      "HWModel=E8B", "HWSerialNum=SN7", "ManagementServer=ms1", "UserComment=top"})
                  .status,
              0);
    ASSERT_EQ(orvctl({"node", "add", "a1", "--ip", "10.0.0.1", "--ip", "10.0.0.2", "--id", "6",
                      "Mode=Managed"})
                  .status,
              0);
    Outcome ls = orvctl({"node", "ls"});
    ASSERT_EQ(ls.status, 0) << ls.err;
    EXPECT_EQ(squeezed(ls.out),
              "NAME MODE STATUS POWER ADDRESSES\n"
              "a1 Managed unknown unknown 10.0.0.1,10.0.0.2\n"
              "b2 PreManaged unknown unknown 10.0.0.3\n")
        << "sorted by name; no status known yet";
    Outcome sel = orvctl({"node", "ls", "Mode==\"Managed\""});
    EXPECT_NE(lineOf(sel.out, "a1"), "");
    EXPECT_EQ(lineOf(sel.out, "b2"), "") << sel.out;
    Outcome wide = orvctl({"-o", "wide", "node", "ls"});
    EXPECT_EQ(squeezed(lineOf(wide.out, "b2")),
              "b2 PreManaged unknown unknown 10.0.0.3 7 8233 E8B SN7 ms1 top");
    EXPECT_NE(wide.out.find("UNIVERSALID"), std::string::npos) << wide.out;

    Outcome js = orvctl({"node", "ls", "-o", "json"});
    ASSERT_EQ(js.status, 0) << js.err;
    auto nodes = json::parse(js.out);
    ASSERT_EQ(nodes.size(), 2u);
    const auto& a1 = nodes[0]["attributes"];
    EXPECT_EQ(a1["Hostname"], "a1");
    EXPECT_EQ(a1["Status"], 127) << "raw numbers in JSON";
    EXPECT_EQ(a1["PowerStatus"], 127);
    EXPECT_EQ(a1["ConnectivityIPAddrs"], json::array({"10.0.0.1", "10.0.0.2"}));
    EXPECT_TRUE(a1.contains("InstallAdapterName")) << "every attribute";
    EXPECT_EQ(nodes[0]["handle"].get<std::string>().size(), 40u);

    Outcome show = orvctl({"node", "show", "b2"});
    ASSERT_EQ(show.status, 0) << show.err;
    EXPECT_EQ(squeezed(lineOf(show.out, "UserComment")), "UserComment top");
    EXPECT_EQ(squeezed(lineOf(show.out, "Status")), "Status unknown");
    EXPECT_EQ(squeezed(lineOf(show.out, "PowerStatus")), "PowerStatus unknown");
    EXPECT_EQ(squeezed(lineOf(show.out, "ConsoleSerialSpeed")), "ConsoleSerialSpeed 9600");
    EXPECT_NE(lineOf(show.out, "InstallStatus"), "") << "the dynamic attributes too";
    auto one = json::parse(orvctl({"-o", "json", "node", "show", "b2"}).out);
    EXPECT_EQ(one["attributes"]["HWSerialNum"], "SN7");
    EXPECT_EQ(one["attributes"].size(), 47u + 5u) << one.dump(2);
}

TEST_F(Orvctl, NodesAreRemovedByNameAndBySelection) {
    for (const char* n : {"r1", "r2", "r3", "r4"}) {
        ASSERT_EQ(orvctl({"node", "add", n, "Mode=Managed"}).status, 0);
    }
    ASSERT_EQ(orvctl({"node", "add", "keep", "--ip", "10.9.0.1", "--id", "99"}).status, 0);
    Outcome some = orvctl({"node", "rm", "r1", "nope", "r2"});
    EXPECT_EQ(some.status, 1) << "one name was no node";
    EXPECT_EQ(some.out, "Removed r1\nRemoved r2\n");
    EXPECT_EQ(some.err, "orvctl: no node named nope\n");
    Outcome sel = orvctl({"-o", "json", "node", "rm", "--selection", "Mode==\"Managed\""});
    EXPECT_EQ(sel.status, 0) << sel.err;
    EXPECT_EQ(json::parse(sel.out)["removed"], json::array({"r3", "r4"}));
    Outcome none = orvctl({"node", "rm", "-s", "Hostname==\"r1\""});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "No node matches the selection\n");
    Outcome left = orvctl({"node", "ls"});
    EXPECT_EQ(squeezed(left.out),
              "NAME MODE STATUS POWER ADDRESSES\nkeep PreManaged unknown "
              "unknown 10.9.0.1\n");
    ASSERT_EQ(orvctl({"node", "rm", "keep"}).status, 0);
    EXPECT_EQ(interfaces().find("10.9.0.1"), std::string::npos) << "its interface went too";
}

TEST_F(Orvctl, AFileIsImportedReportingRefusedRowsByLine) {
    ASSERT_EQ(orvctl({"node", "add", "old1", "--id", "900"}).status, 0);
    std::ofstream(root_ / "nodes.csv") << "Hostname,UniversalId,ConnectivityIPAddrs\n"
                                          "i1,301,\"10.3.0.1,10.3.0.2\"\n"
                                          "i2,900,\n"
                                          "i3,,10.3.0.3\n";
    for (const char* jobs : {"1", "8"}) {
        SCOPED_TRACE(jobs);
        Outcome imp = orvctl({"node", "import", root_ / "nodes.csv", "--jobs", jobs});
        EXPECT_EQ(imp.status, 1);
        EXPECT_EQ(imp.err,
                  "orvctl: line 3: i2: 2655-032 A node with the specified node identifier exists "
                  "in the management domain.\n");
        EXPECT_NE(imp.out.find(": 3 rows, 2 defined, 1 refused, "), std::string::npos) << imp.out;
        Outcome ls = orvctl({"node", "ls"});
        EXPECT_EQ(squeezed(lineOf(ls.out, "i1")),
                  "i1 PreManaged unknown unknown 10.3.0.1,10.3.0.2");
        EXPECT_NE(lineOf(ls.out, "i3"), "");
        ASSERT_EQ(orvctl({"node", "rm", "i1", "i3"}).status, 0);
    }
}

TEST_F(Orvctl, AReachableMinimallyManagedNodeShowsUp) {
    reachableNodesPolledEverySecond();
    ASSERT_EQ(orvctl({"node", "add", "m1", "Mode=MinManaged"}).status, 0);
    std::string line;
    EXPECT_TRUE(testsupport::waitFor(
        [&] {
            line = squeezed(lineOf(orvctl({"node", "ls"}).out, "m1"));
            return line == "m1 MinManaged up unknown";
        },
        std::chrono::seconds(20)))
        << line;
}

TEST_F(Orvctl, ANodeIsNotSynchronisedWhenItsHostKeepsNoRecordOfThisServer) {
    ASSERT_EQ(orvctl({"node", "add", "s1", "--id", "11", "UserComment=kept"}).status, 0);
    // This host alone, and it runs no manager of such records.
    Outcome sync = orvctl({"node", "sync", "s1"});
    EXPECT_EQ(sync.status, 1);
    EXPECT_EQ(sync.out, "");
    EXPECT_EQ(sync.err,
              "orvctl: 2610-207 The resource class Kor.ManagementServer is not known to this "
              "resource manager.\n");
    Outcome asJson = orvctl({"-o", "json", "node", "sync", "s1"});
    EXPECT_EQ(asJson.status, 1);
    EXPECT_EQ(json::parse(asJson.out)["error"]["text"],
              "2610-207 The resource class Kor.ManagementServer is not known to this resource "
              "manager.\n");
    EXPECT_EQ(squeezed(lineOf(orvctl({"node", "show", "s1"}).out, "UserComment")),
              "UserComment kept");
    Outcome nope = orvctl({"node", "sync", "nope"});
    EXPECT_EQ(nope.status, 1);
    EXPECT_EQ(nope.err, "orvctl: no node named nope\n");
}

}  // namespace
