// orvctl's command line without a service: --help on every command and
// subcommand, and usage errors with exit status 2 before anything is sent.
#include <gtest/gtest.h>

#include "tests/orvctl/OrvctlRun.h"

namespace {

using orvctltest::orvctl;
using orvctltest::Outcome;

TEST(OrvctlUsage, EveryCommandAnswersHelp) {
    const std::vector<std::vector<std::string>> commands = {
        {"--help"},
        {"node", "--help"},
        {"node", "add", "--help"},
        {"node", "ls", "--help"},
        {"node", "show", "--help"},
        {"node", "set", "--help"},
        {"node", "rm", "--help"},
        {"node", "import", "--help"},
        {"node", "groups", "--help"},
        {"node", "sync", "--help"},
        {"group", "--help"},
        {"group", "add", "--help"},
        {"group", "ls", "--help"},
        {"group", "show", "--help"},
        {"group", "members", "--help"},
        {"group", "add-members", "--help"},
        {"group", "rm-members", "--help"},
        {"group", "rm", "--help"},
    };
    for (const auto& args : commands) {
        SCOPED_TRACE(args.size() > 2 ? args[0] + " " + args[1] : args[0]);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("-o,--output"), std::string::npos) << "global options listed";
    }
    EXPECT_NE(orvctl({"node", "add", "--help"}).out.find("--ip"), std::string::npos);
    EXPECT_NE(orvctl({"node", "import", "--help"}).out.find("--jobs"), std::string::npos);
    EXPECT_NE(orvctl({"node", "import", "--help"}).out.find("\"10.0.0.1,10.0.0.2\""),
              std::string::npos)
        << "the help says how arrays are written";
    EXPECT_NE(orvctl({"--help"}).out.find("Exit status: 0 done, 1"), std::string::npos);
    std::string add = orvctl({"group", "add", "--help"}).out;
    for (const char* option : {"--members", "--select", "--validate"}) {
        EXPECT_NE(add.find(option), std::string::npos) << option;
    }
    EXPECT_NE(orvctl({"node", "sync", "--help"}).out.find("ATTR: old -> new"), std::string::npos);
}

TEST(OrvctlUsage, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"node"},
        {"node", "frob"},
        {"nodes", "ls"},
        {"node", "add"},
        {"node", "ls", "-o", "xml"},
        {"node", "show"},
        {"node", "set", "n1"},
        {"node", "import"},
        {"node", "import", "f.csv", "--jobs", "0"},
        {"node", "import", "f.csv", "--jobs", "65"},
        {"node", "rm"},
        {"node", "rm", "n1", "--selection", "*"},
        {"node", "add", "n1", "--id", "12x"},
        {"node", "add", "n1", "--id", "-1"},
        {"node", "groups"},
        {"node", "groups", "n1", "n2"},
        {"node", "sync"},
        {"group"},
        {"group", "frob"},
        {"group", "add"},
        {"group", "add", "g"},
        {"group", "add", "g", "--validate"},
        {"group", "add", "g", "--members", "n1", "--select", "*"},
        {"group", "add", "g", "--members"},
        {"group", "ls", "extra"},
        {"group", "ls", "-o", "xml"},
        {"group", "show"},
        {"group", "members"},
        {"group", "add-members", "g"},
        {"group", "rm-members", "g"},
        {"group", "rm"},
    };
    for (const auto& args : bad) {
        std::string line;
        for (const auto& a : args) {
            line += a + " ";
        }
        SCOPED_TRACE(line);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 2) << r.out << r.err;
        EXPECT_FALSE(r.err.empty());
    }
}

TEST(OrvctlUsage, AGroupIsGivenByItsMembersOrBySelectionNeverBoth) {
    for (auto args :
         {std::vector<std::string>{"group", "add", "g", "--select", "*", "--members", "n1"},
          std::vector<std::string>{"group", "add", "g", "--members", "n1", "--select", "*",
                                   "--validate"}}) {
        Outcome both = orvctl(args);
        EXPECT_EQ(both.status, 2);
        EXPECT_EQ(both.err.rfind("--members excludes --select\n", 0), 0u) << both.err;
        EXPECT_EQ(both.out, "");
    }
    for (auto args : {std::vector<std::string>{"group", "add", "g"},
                      std::vector<std::string>{"group", "add", "g", "--validate"}}) {
        Outcome neither = orvctl(args);
        EXPECT_EQ(neither.status, 2);
        EXPECT_EQ(neither.err, "orvctl: give the group either --members or --select\n");
        EXPECT_EQ(neither.out, "");
    }
}

}  // namespace
