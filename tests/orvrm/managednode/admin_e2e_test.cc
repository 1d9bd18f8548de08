// Managed nodes as the administrator handles them with znpex against the
// running daemons: a cluster defined from a CSV or JSON-lines file (refused
// rows reported with their line and the catalogue's text, the others
// defined, the same whether one request or eight are in flight), a faulty
// file defining nothing, nodes removed by selection, and watches seeing
// ChangedAttributes and Status events.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::CliRun;
using daemonstest::Daemons;
using nlohmann::json;
using testsupport::readFile;

// Rows refused because of the node defined beforehand (old1, universal id
// 900) or their own values, so that the outcome is the same in any order.
const char kCsv[] =
    "Hostname,UniversalId,ConnectivityIPAddrs,ConsoleSerialSpeed,Mode\n"
    "c1,101,\"10.1.0.1,10.1.0.2\",,\n"
    "old1,199,,,\n"
    "c2,102,10.1.0.3,,MinManaged\n"
    "c3,900,,,\n"
    "c4,,,0,\n"
    "\"c5\",,,9600,\n";

const char kJsonLines[] =
    "{\"Hostname\": \"j1\", \"UniversalId\": 201, \"ConnectivityIPAddrs\": [\"10.2.0.1\"]}\n"
    "\n"
    "{\"Hostname\": \"old1\"}\n"
    "{\"Hostname\": \"j2\", \"UniversalId\": \"0xCA\", \"ConsoleSerialSpeed\": 230401}\n"
    "{\"Hostname\": \"j3\", \"ConsoleSerialSpeed\": 230400, \"UserComment\": null}\n";

class AdminCli : public Daemons {
protected:
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(root_ / name) << text;
        return root_ / name;
    }
    std::vector<std::string> hostnames(const std::string& selection = "") {
        CliRun list =
            cli({"-o", "json", "list", "Kor.ManagedNode", "-s", selection, "-a", "Hostname"});
        EXPECT_EQ(list.status, 0) << list.err;
        std::vector<std::string> out;
        for (const auto& n : json::parse(list.out)) {
            out.push_back(n["attributes"]["Hostname"].get<std::string>());
        }
        std::sort(out.begin(), out.end());
        return out;
    }
    std::vector<std::string> addresses() {
        CliRun list = cli({"-o", "json", "list", "Kor.MNNetworkInterface", "-a", "IPAddress"});
        EXPECT_EQ(list.status, 0) << list.err;
        std::vector<std::string> out;
        for (const auto& n : json::parse(list.out)) {
            out.push_back(n["attributes"]["IPAddress"].get<std::string>());
        }
        std::sort(out.begin(), out.end());
        return out;
    }
    void defineOld1() {
        CliRun old = cli({"define", "Kor.ManagedNode", "Hostname=old1", "UniversalId=900"});
        ASSERT_EQ(old.status, 0) << old.err;
    }
};

TEST_F(AdminCli, ACsvFileDefinesItsGoodRowsAndReportsTheOthersByLineWhateverTheJobs) {
    defineOld1();
    std::string file = write("nodes.csv", kCsv);
    std::string firstErr;
    for (const char* jobs : {"1", "8"}) {
        SCOPED_TRACE(std::string("--jobs ") + jobs);
        CliRun run = cli({"define", "Kor.ManagedNode", "--file", file, "--jobs", jobs});
        EXPECT_EQ(run.status, 1) << "some rows were refused";
        EXPECT_EQ(run.err,
                  "znpex: line 3: old1: 2655-006 A node with the hostname old1 already exists.\n"
                  "znpex: line 5: c3: 2655-032 A node with the specified node identifier exists "
                  "in the management domain.\n"
                  "znpex: line 6: c4: 2655-070 ConsoleSerialSpeed attribute must be set to a "
                  "value between 1 and 230400 bps inclusive.\n");
        EXPECT_EQ(run.out.rfind(file + ": 6 rows, 3 defined, 3 refused, ", 0), 0u) << run.out;
        EXPECT_NE(run.out.find(" rows/s\n"), std::string::npos) << run.out;
        EXPECT_EQ(hostnames(), (std::vector<std::string>{"c1", "c2", "c5", "old1"}));
        EXPECT_EQ(addresses(), (std::vector<std::string>{"10.1.0.1", "10.1.0.2", "10.1.0.3"}))
            << "the rows with a universal id got their interfaces";
        EXPECT_EQ(hostnames("Mode==\"MinManaged\""), (std::vector<std::string>{"c2"}));
        EXPECT_EQ(hostnames("ConsoleSerialSpeed==9600 && Mode==\"PreManaged\""),
                  (std::vector<std::string>{"c1", "c5", "old1"}));

        CliRun undef = cli({"undefine", "Kor.ManagedNode", "-s", "Hostname!=\"old1\""});
        EXPECT_EQ(undef.status, 0) << undef.err;
        EXPECT_EQ(hostnames(), (std::vector<std::string>{"old1"}));
        EXPECT_TRUE(addresses().empty()) << "the nodes' interfaces went with them";
    }
}

TEST_F(AdminCli, AJsonLinesFileGivesAMachineReadableSummary) {
    defineOld1();
    std::string file = write("nodes.jsonl", kJsonLines);
    CliRun run = cli({"-o", "json", "define", "Kor.ManagedNode", "--file", file});
    EXPECT_EQ(run.status, 1);
    json summary = json::parse(run.out);
    EXPECT_EQ(summary["rows"], 4);
    EXPECT_EQ(summary["defined"], 2);
    EXPECT_EQ(summary["refused"], 2);
    EXPECT_EQ(summary["notSent"], 0);
    EXPECT_EQ(summary["jobs"], 4) << "never more requests in flight than rows";
    ASSERT_EQ(summary["errors"].size(), 2u);
    EXPECT_EQ(summary["errors"][0]["line"], 3);
    EXPECT_EQ(summary["errors"][0]["name"], "old1");
    EXPECT_EQ(summary["errors"][0]["error"]["text"],
              "2655-006 A node with the hostname old1 already exists.\n");
    EXPECT_EQ(summary["errors"][1]["line"], 4);
    EXPECT_EQ(summary["errors"][1]["name"], "j2");
    EXPECT_EQ(hostnames(), (std::vector<std::string>{"j1", "j3", "old1"}));
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.2.0.1"}));

    CliRun all = cli({"define", "Kor.ManagedNode", "--file", write("more.csv", "Hostname\nk1\n")});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.err, "");
}

TEST_F(AdminCli, AFaultyFileDefinesNothingAndSaysWhere) {
    const std::pair<std::string, std::string> cases[] = {
        {"Hostname,UniversalId\nf1,1\nf2,\"2\n",
         "znpex: FILE: line 3: a quoted field is not closed\n"},
        {"Hostname,Bogus,Nope\nf1,1,2\n",
         "znpex: FILE: the class Kor.ManagedNode has no attributes named Bogus (line 1), Nope "
         "(line 1)\n"},
        {"{\"Hostname\": \"f1\", \"UniversalId\": \"x\"}\n{\"Hostname\": \"f2\"} x\n",
         "znpex: FILE: line 1: UniversalId: \"x\" is not a valid uint64 value\n"
         "znpex: FILE: line 2: malformed JSON: column 20: syntax error while parsing value - "
         "invalid literal; last read: '\"f2\"} x'; expected end of input\n"},
    };
    for (const auto& [text, problems] : cases) {
        SCOPED_TRACE(text);
        std::string file = write("bad.txt", text);
        CliRun run = cli({"define", "Kor.ManagedNode", "--file", file, "--jobs", "3"});
        EXPECT_EQ(run.status, 1);
        std::string expected = problems + "znpex: FILE: nothing was defined\n";
        for (size_t at = expected.find("FILE"); at != std::string::npos;
             at = expected.find("FILE", at)) {
            expected.replace(at, 4, file);
        }
        EXPECT_EQ(run.err, expected);
        EXPECT_TRUE(hostnames().empty());
    }
    CliRun missing = cli({"define", "Kor.ManagedNode", "--file", root_ / "none.csv"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("none.csv: cannot be read: No such file or directory"),
              std::string::npos)
        << missing.err;
    CliRun both = cli({"define", "Kor.ManagedNode", "Hostname=x", "--file", root_ / "none.csv"});
    EXPECT_EQ(both.status, 2);
    CliRun jobsAlone = cli({"define", "Kor.ManagedNode", "Hostname=x", "--jobs", "2"});
    EXPECT_EQ(jobsAlone.status, 2) << "--jobs needs --file";
    CliRun tooMany = cli({"define", "Kor.ManagedNode", "--file", root_ / "bad.txt", "--jobs", "0"});
    EXPECT_EQ(tooMany.status, 2);
}

TEST_F(AdminCli, AWatchSeesTheChangedAttributesOfASet) {
    CliRun def = cli({"define", "Kor.ManagedNode", "Hostname=w1"});
    ASSERT_EQ(def.status, 0) << def.err;
    auto watch = cliInBackground({"-o", "json", "watch", "Kor.ManagedNode", "-e",
                                  "ChangedAttributes", "-s", "Hostname==\"w1\"", "-a",
                                  "Hostname,ChangedAttributes", "--count", "1", "--duration", "30"},
                                 "watch.out");
    // The watch may not be in place yet: change the node until it reports.
    auto printed = [&] { return !readFile(root_ / "watch.out").empty(); };
    for (int i = 0; i < 100 && !printed(); ++i) {
        CliRun set = cli({"set", "Kor.ManagedNode", "-s", "Hostname==\"w1\"",
                          "UserComment=c" + std::to_string(i)});
        ASSERT_EQ(set.status, 0) << set.err;
        testsupport::waitFor(printed, std::chrono::milliseconds(200));
    }
    int status = watch->wait();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(root_ / "watch.out.err");
    json event = json::parse(readFile(root_ / "watch.out"));
    EXPECT_EQ(event["attributes"]["Hostname"], "w1");
    EXPECT_EQ(event["attributes"]["ChangedAttributes"], "{UserComment}");
}

TEST_F(AdminCli, AWatchSeesAMinimallyManagedNodeComeUp) {
    reachableNodesPolledEverySecond();
    CliRun def = cli({"define", "Kor.ManagedNode", "Hostname=m1", "Mode=MinManaged"});
    ASSERT_EQ(def.status, 0) << def.err;
    auto watch = cliInBackground({"watch", "Kor.ManagedNode", "-e", "Status==1", "-a",
                                  "Hostname,Status", "--count", "1", "--duration", "30"},
                                 "watch.out");
    int status = watch->wait(std::chrono::seconds(40));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(root_ / "watch.out.err");
    std::string line = readFile(root_ / "watch.out");
    EXPECT_EQ(line.rfind("Kor.ManagedNode ", 0), 0u) << line;
    EXPECT_NE(line.find(" Hostname=m1 Status=1\n"), std::string::npos) << line;
}

}  // namespace
