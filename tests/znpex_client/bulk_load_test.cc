// A bulk file read whole against a class's attributes: values typed as the
// command line types them (JSON numbers and arrays too), rows named by their
// host name or first value, and a file with any fault giving no rows but
// every problem with its line, unknown attribute names listed together.
#include <gtest/gtest.h>

#include <sstream>

#include "znpex/cli/BulkLoad.h"
#include "znpex/cli/ValueText.h"

using namespace znpex::cli;

namespace {

const std::vector<tarn_rmf2v::RMAttrDef> kAttrs = {
    {"Hostname", 2, ZN_CHAR_PTR, 7},
    {"UniversalId", 20, ZN_UINT64, 10},
    {"ConsoleSerialSpeed", 43, ZN_UINT32, 11},
    {"UpdatenodeFailed", 35, ZN_INT32, 11},
    {"ConnectivityIPAddrs", 44, ZN_CHAR_PTR_ARRAY, 10},
    {"NodeIDs", 24, ZN_UINT64_ARRAY, 42},
};

struct Case {
    const char* what;
    std::string input;
    // Each row as "LINE LABEL: name=value ..." with values as the command line prints them.
    std::vector<std::string> rows;
    std::vector<std::string> problems;
};

std::string shown(const BulkEntry& e) {
    std::string s = std::to_string(e.line) + " " + e.label + ":";
    for (size_t i = 0; i < e.names.size(); ++i) {
        s += " " + e.names[i] + "=" + formatValue(e.values[i].type(), e.values[i].value());
    }
    return s;
}

const Case kCases[] = {
    {"CSV, arrays as comma-separated elements in one field",
     "Hostname,UniversalId,ConnectivityIPAddrs\nn1,5,\"10.0.0.1,10.0.0.2\"\nn2,0x10,\n",
     {"2 n1: Hostname=n1 UniversalId=5 ConnectivityIPAddrs={10.0.0.1,10.0.0.2}",
      "3 n2: Hostname=n2 UniversalId=16"},
     {}},
    {"JSON lines: numbers, strings as on the command line, arrays",
     "{\"Hostname\": \"n1\", \"UniversalId\": 18446744073709551615, \"NodeIDs\": [1, \"0x2\"]}\n"
     "{\"UniversalId\": \"7\", \"ConnectivityIPAddrs\": [\"a,b\"], \"UpdatenodeFailed\": -4}\n"
     "{\"ConnectivityIPAddrs\": \"c,d\"}\n",
     {"1 n1: Hostname=n1 UniversalId=18446744073709551615 NodeIDs={1,2}",
      "2 7: UniversalId=7 ConnectivityIPAddrs={a,b} UpdatenodeFailed=-4",
      "3 c,d: ConnectivityIPAddrs={c,d}"},
     {}},
    {"a row without a host name is named by its first value",
     "UniversalId,Hostname\n9,\n",
     {"2 9: UniversalId=9"},
     {}},
    {"unknown CSV header names refuse the file up front",
     "Hostname,Bogus,Other\nn1,1,2\nn2,\"broken\n",
     {},
     {"the class Kor.ManagedNode has no attributes named Bogus (line 1), Other (line 1)"}},
    {"unknown JSON names, each with the first line naming it",
     "{\"Hostname\": \"n1\", \"Zed\": 1}\n{\"Alpha\": 1}\n{\"Zed\": 2}\n",
     {},
     {"the class Kor.ManagedNode has no attributes named Alpha (line 2), Zed (line 1)"}},
    {"values that do not fit their types, each with its line",
     "Hostname,UniversalId,ConsoleSerialSpeed\nn1,abc,1\nn2,1,4294967296\nn3,2,3\n",
     {},
     {"line 2: UniversalId: \"abc\" is not a valid uint64 value",
      "line 3: ConsoleSerialSpeed: \"4294967296\" is not a valid uint32 value"}},
    {"JSON values of the wrong kind",
     "{\"Hostname\": 5}\n{\"ConsoleSerialSpeed\": 1.5}\n{\"UniversalId\": -1}\n"
     "{\"ConnectivityIPAddrs\": 5}\n{\"UpdatenodeFailed\": true}\n{\"NodeIDs\": [1, \"x\"]}\n"
     "{\"Hostname\": [\"a\"]}\n{\"NodeIDs\": [[1]]}\n{\"Hostname\": {\"a\": 1}}\n"
     "{\"Hostname\": \"a\\u0000b\"}\n",
     {},
     {"line 1: Hostname: 5 is not a valid str value",
      "line 2: ConsoleSerialSpeed: 1.5 is not an integer",
      "line 3: UniversalId: \"-1\" is not a valid uint64 value",
      "line 4: ConnectivityIPAddrs: 5 is not a valid strs value (give an array)",
      "line 5: UpdatenodeFailed: true is not a valid int32 value",
      "line 6: NodeIDs: element 2: \"x\" is not a valid uint64 value",
      "line 7: Hostname: an array where a str value is expected",
      "line 8: NodeIDs: element 1: [1] is not a valid uint64 value",
      "line 9: Hostname: {\"a\":1} is not a valid str value",
      "line 10: Hostname: a NUL character in a value"}},
    {"a fault of form after value problems",
     "Hostname,UniversalId\nn1,x\nn2,\"y\n",
     {},
     {"line 2: UniversalId: \"x\" is not a valid uint64 value",
      "line 3: a quoted field is not closed"}},
};

TEST(BulkLoad, TypesTheRowsOrListsEveryProblem) {
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        std::istringstream in(c.input);
        BulkLoad load = loadBulkFile(in, "Kor.ManagedNode", kAttrs);
        std::vector<std::string> rows;
        for (const auto& e : load.rows) {
            rows.push_back(shown(e));
        }
        EXPECT_EQ(rows, c.rows);
        EXPECT_EQ(load.problems, c.problems);
        EXPECT_EQ(load.ok(), c.problems.empty());
    }
}

TEST(BulkLoad, ListsTheFirstProblemsAndCountsTheRest) {
    std::string input = "Hostname,UniversalId\n";
    for (int i = 0; i < 25; ++i) {
        input += "n" + std::to_string(i) + ",bad\n";
    }
    std::istringstream in(input);
    BulkLoad load = loadBulkFile(in, "Kor.ManagedNode", kAttrs);
    EXPECT_EQ(load.problemCount, 25u);
    ASSERT_EQ(load.problems.size(), kMaxBulkProblems);
    EXPECT_EQ(load.problems.back(), "line 21: UniversalId: \"bad\" is not a valid uint64 value");
    EXPECT_TRUE(load.rows.empty());
}

}  // namespace
