// The bulk-definition file reader: CSV with quoting and JSON lines, read
// row by row with the line each row starts on; accepted and refused inputs
// side by side, every refusal with the line it names, and the limits.
#include <gtest/gtest.h>

#include <sstream>

#include "znpex/cli/BulkFile.h"

using namespace znpex::cli;

namespace {

struct Case {
    const char* what;
    std::string input;
    // Each row as "LINE name=json name=json ...", in order.
    std::vector<std::string> rows;
    std::string error;  // "" when the whole input reads
};

std::string shown(const BulkRow& row) {
    std::string s = std::to_string(row.line);
    for (const auto& c : row.cells) {
        s += " " + c.name + "=" + c.value.dump();
    }
    return s;
}

const Case kCases[] = {
    {"plain CSV",
     "Hostname,UniversalId\nn1,1\nn2,2\n",
     {"2 Hostname=\"n1\" UniversalId=\"1\"", "3 Hostname=\"n2\" UniversalId=\"2\""},
     ""},
    {"no final line end", "Hostname\nn1", {"2 Hostname=\"n1\""}, ""},
    {"CRLF line ends",
     "Hostname,Mode\r\nn1,Managed\r\n",
     {"2 Hostname=\"n1\" Mode=\"Managed\""},
     ""},
    {"quoted commas, quotes and line breaks",
     "Hostname,Addrs,Comment\n\"n1\",\"10.0.0.1,10.0.0.2\",\"say \"\"hi\"\"\nand bye\"\nn2,,x\n",
     {"2 Hostname=\"n1\" Addrs=\"10.0.0.1,10.0.0.2\" Comment=\"say \\\"hi\\\"\\nand bye\"",
      "4 Hostname=\"n2\" Comment=\"x\""},
     ""},
    {"empty fields give nothing; blank rows are skipped",
     "Hostname,Mode\n\nn1,\n,\n\"\",\"\"\nn2,\"\"\n",
     {"3 Hostname=\"n1\"", "6 Hostname=\"n2\""},
     ""},
    {"leading blank lines and a byte order mark",
     "\xEF\xBB\xBF\n\nHostname\nn1\n",
     {"4 Hostname=\"n1\""},
     ""},
    {"a header alone", "Hostname,Mode\n", {}, ""},
    {"a lone carriage return is data", "Hostname\na\rb\n", {"2 Hostname=\"a\\rb\""}, ""},
    {"JSON lines",
     "{\"Hostname\": \"n1\", \"UniversalId\": 5}\n\n{\"Hostname\": \"n2\", "
     "\"Addrs\": [\"a\", \"b\"], \"Mode\": null}\r\n",
     {"1 Hostname=\"n1\" UniversalId=5", "3 Hostname=\"n2\" Addrs=[\"a\",\"b\"]"},
     ""},
    {"JSON members keep their written order", "{\"b\": 1, \"a\": 2}\n", {"1 b=1 a=2"}, ""},
    {"an empty object is skipped", "{}\n{\"a\": 1}\n", {"2 a=1"}, ""},

    {"an empty file", "", {}, "line 1: the file is empty"},
    {"blanks only", " \n\t\n", {}, "line 3: the file is empty"},
    {"broken byte order mark",
     "\xEF\xBB"
     "Hostname\n",
     {},
     "line 1: the file starts with a broken byte order mark"},
    {"a header column without a name",
     "Hostname,,Mode\n",
     {},
     "line 1: column 2 of the header has no name"},
    {"a header naming a column twice",
     "\nHostname,Hostname\n",
     {},
     "line 2: the header names Hostname twice"},
    {"too many fields",
     "Hostname,Mode\nn1,m\nn2,m,x\n",
     {"2 Hostname=\"n1\" Mode=\"m\""},
     "line 3: 3 fields where the header has 2"},
    {"too few fields", "Hostname,Mode\nn1\n", {}, "line 2: 1 field where the header has 2"},
    {"an unclosed quote names the line it opened on",
     "Hostname,C\nn1,\"abc\n\ndef\n",
     {},
     "line 2: a quoted field is not closed"},
    {"a quote inside an unquoted field",
     "Hostname\nn1\nn\"2\n",
     {"2 Hostname=\"n1\""},
     "line 3: a quote inside an unquoted field (quote the whole field and double the quotes in "
     "it)"},
    {"text after a closing quote",
     "Hostname,C\n\"n1\"x,y\n",
     {},
     "line 2: text after the closing quote of a field"},
    {"a NUL byte in CSV",
     std::string("Hostname\nn1\nn\0002\n", 16),
     {"2 Hostname=\"n1\""},
     "line 3: a NUL byte"},
    {"malformed JSON",
     "{\"a\": 1}\n{\"a\": }\n",
     {"1 a=1"},
     "line 2: malformed JSON: column 7: syntax error while parsing value - unexpected '}'; "
     "expected '[', '{', or a literal"},
    {"two JSON values on a line",
     "{\"a\": 1} {\"b\": 2}\n",
     {},
     "line 1: malformed JSON: column 10: syntax error while parsing value - unexpected '{'; "
     "expected end of input"},
    {"a JSON line that is not an object",
     "{\"a\": 1}\n[1]\n",
     {"1 a=1"},
     "line 2: not a JSON object"},
    {"a JSON name given twice", "{\"a\": 1, \"a\": 2}\n", {}, "line 1: the name a appears twice"},
    {"JSON nested too deeply", "{\"a\": [[[[1]]]]}\n", {}, "line 1: nested too deeply"},
    {"a NUL in a JSON name", "{\"a\\u0000b\": 1}\n", {}, "line 1: a NUL character in a name"},
    {"a NUL byte in a JSON line", std::string("{\"a\": \"\0\"}\n", 11), {}, "line 1: a NUL byte"},
};

TEST(BulkFile, ReadsRowsAndRefusesFaultsNamingTheirLine) {
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        std::istringstream in(c.input);
        BulkFileReader reader(in);
        std::vector<std::string> rows;
        BulkRow row;
        while (reader.next(row)) {
            rows.push_back(shown(row));
        }
        EXPECT_EQ(rows, c.rows);
        EXPECT_EQ(reader.error(), c.error);
        EXPECT_FALSE(reader.next(row)) << "the reader stays at its end";
    }
}

TEST(BulkFile, TellsTheFormatAndKeepsTheHeader) {
    std::istringstream csv("\nHostname,{Mode}\n");
    BulkFileReader r1(csv);
    BulkRow row;
    EXPECT_FALSE(r1.next(row));
    EXPECT_EQ(r1.format(), BulkFormat::Csv) << "only a first '{' makes JSON lines";
    EXPECT_EQ(r1.header(), (std::vector<std::string>{"Hostname", "{Mode}"}));
    EXPECT_EQ(r1.headerLine(), 2u);
    std::istringstream json("  {\"a\": 1}\n");
    BulkFileReader r2(json);
    EXPECT_TRUE(r2.next(row));
    EXPECT_EQ(r2.format(), BulkFormat::JsonLines);
    EXPECT_TRUE(r2.header().empty());
}

TEST(BulkFile, LimitsStopTheReadingAtTheLineThatPassesThem) {
    BulkLimits small;
    small.maxRecordBytes = 16;
    small.maxFields = 3;
    small.maxRows = 2;
    const std::pair<std::string, std::string> cases[] = {
        {"H\n" + std::string(17, 'a') + "\n", "line 2: a record longer than 16 bytes"},
        {"H\n\"" + std::string(10, 'a') + "\n" + std::string(10, 'b') + "\"\n",
         "line 2: a record longer than 16 bytes"},
        {"a,b,c,d\n", "line 1: more than 3 fields"},
        {"a,b\n1,2,3,4\n", "line 2: more than 3 fields"},
        {"H\n1\n2\n3\n", "line 4: more than 2 rows"},
        {"{\"a\": \"" + std::string(20, 'x') + "\"}\n", "line 1: a line longer than 16 bytes"},
        {"{\"a\":1,\"b\":2,\"c\":3,\"d\":4}\n", "line 1: a line longer than 16 bytes"},
    };
    for (const auto& [input, error] : cases) {
        SCOPED_TRACE(input);
        std::istringstream in(input);
        BulkFileReader reader(in, small);
        BulkRow row;
        while (reader.next(row)) {
        }
        EXPECT_EQ(reader.error(), error);
    }
    BulkLimits file;
    file.maxFileBytes = 12;
    const std::pair<std::string, std::string> longFiles[] = {
        {"H\n1\n2\n3\n4\n5\n6\n", "line 7: the file is longer than 12 bytes"},
        {"H\n\"1\n2\n3\n4\n5\n6\"\n", "line 6: the file is longer than 12 bytes"},
        {"{}\n{}\n{}\n{}\n{\"a\":1}\n", "line 5: the file is longer than 12 bytes"},
    };
    for (const auto& [input, error] : longFiles) {
        SCOPED_TRACE(input);
        std::istringstream in(input);
        BulkFileReader reader(in, file);
        BulkRow row;
        std::vector<std::string> rows;
        while (reader.next(row)) {
            rows.push_back(row.cells.front().value.dump());
        }
        EXPECT_EQ(reader.error(), error);
        EXPECT_TRUE(rows.empty() || rows.back() == "\"5\"") << "no row cut short";
    }
    BulkLimits members;
    members.maxFields = 3;
    std::istringstream in("{\"a\":1,\"b\":2,\"c\":3,\"d\":4}\n");
    BulkFileReader reader(in, members);
    BulkRow row;
    EXPECT_FALSE(reader.next(row));
    EXPECT_EQ(reader.error(), "line 1: more than 3 names");
}

TEST(BulkFile, ReadsNoFurtherThanAnOverlongLine) {
    BulkLimits small;
    small.maxRecordBytes = 16;
    std::string input = "{\"a\": \"" + std::string(1000, 'x') + "\"}\n";
    std::istringstream in(input);
    BulkFileReader reader(in, small);
    BulkRow row;
    EXPECT_FALSE(reader.next(row));
    EXPECT_LT(static_cast<size_t>(in.tellg()), 32u) << "the rest of the line is left unread";
}

}  // namespace
