// The partition monitor against scripted console tools and their result
// files under the test root: status changes and partitions gone (missing,
// empty and changed lists), the frame list on every poll, the key tool's
// result read in pieces, the lists' bookkeeping, and the console query.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "orvrm/PartitionStatus.h"
#include "tests/orvrm/ConsoleTools.h"
#include "tests/support/TempDir.h"

namespace {

using consoletest::statusTool;
using Names = std::vector<std::string>;

Names names(strent* list) {
    Names out;
    for (strent* s = list; s != nullptr; s = s->next) {
        out.emplace_back(s->str);
    }
    return out;
}

class Partitions : public ::testing::Test {
protected:
    void SetUp() override {
        ps_.setCallbacks(
            [](void* arg, strent* hosts) {
                static_cast<Partitions*>(arg)->changed_.push_back(names(hosts));
            },
            this,
            [](void* arg, char* host) { static_cast<Partitions*>(arg)->gone_.emplace_back(host); },
            this);
        PartitionStatus::registerForCECList(
            [](void* arg, strent* frames) {
                static_cast<Partitions*>(arg)->frames_.push_back(names(frames));
            },
            this);
    }
    void TearDown() override { PartitionStatus::registerForCECList(nullptr, nullptr); }
    void add(const char* host, const char* partition, int status) {
        ps_.addPartitionEntry(const_cast<char*>(host), const_cast<char*>(partition), status);
    }
    int status(const char* host) { return ps_.getHostStatus(const_cast<char*>(host)); }
    void poll() {
        changed_.clear();
        gone_.clear();
        frames_.clear();
        ps_.updateStatus();
    }
    std::vector<std::string> hosts() {
        std::vector<std::string> out;
        for (const char* h : {"h1", "h2", "h3", "x"}) {
            if (status(h) != 127 || h == std::string("x")) {
                out.emplace_back(h);
            }
        }
        return out;
    }

    testsupport::TempDir root_{/*asRoot=*/true};
    PartitionStatus ps_;
    std::vector<Names> changed_;
    Names gone_;
    std::vector<Names> frames_;
};

TEST_F(Partitions, EachPollReportsStatusChangesThenWhatIsGoneThenTheFrames) {
    add("h1", "1*M*S", 127);
    add("h2", "2*M*S", 127);
    add("h3", "3*M*S", 1);
    statusTool(Names{"1*M*S", "3*M*S"}, Names{"1*M*S", "2*M*S", "3*M*S"}, Names{"cec1"});
    poll();
    EXPECT_EQ(consoletest::statusToolRuns(), 1u);
    EXPECT_EQ(changed_, (std::vector<Names>{{"h1", "h2"}})) << "h3 was active already";
    EXPECT_EQ(gone_, (Names{"h2"})) << "no longer active is gone too";
    EXPECT_EQ(status("h1"), 1);
    EXPECT_EQ(status("h2"), 0);
    EXPECT_EQ(frames_, (std::vector<Names>{{"cec1"}}));

    poll();  // nothing changed: no status callback, still the frames
    EXPECT_TRUE(changed_.empty());
    EXPECT_TRUE(gone_.empty());
    EXPECT_EQ(frames_, (std::vector<Names>{{"cec1"}})) << "handed over on every poll";

    // h3's partition is deleted: no longer active (changed and gone), and
    // not in the partition list (gone again, from the deletions).
    statusTool(Names{"1*M*S"}, Names{"1*M*S", "2*M*S"}, std::nullopt);
    poll();
    EXPECT_EQ(changed_, (std::vector<Names>{{"h3"}}));
    EXPECT_EQ(gone_, (Names{"h3", "h3"}));
    EXPECT_TRUE(frames_.empty()) << "no frame list file: no call";
}

TEST_F(Partitions, AMissingActiveListMakesEveryKnownStatusUnknownOnce) {
    add("h1", "1*M*S", 1);
    add("h2", "2*M*S", 0);
    add("h3", "3*M*S", 127);
    statusTool(std::nullopt, std::nullopt, std::nullopt);
    poll();
    EXPECT_EQ(changed_, (std::vector<Names>{{"h1", "h2"}}));
    EXPECT_TRUE(gone_.empty()) << "unknown is not gone; no partition list: no deletions";
    EXPECT_EQ(status("h1"), 127);
    poll();
    EXPECT_TRUE(changed_.empty()) << "once";
    EXPECT_EQ(status("nobody"), 127);
    EXPECT_EQ(ps_.getHostStatus(nullptr), 127);
}

TEST_F(Partitions, AnEmptyPartitionListMeansEveryPartitionIsGoneAMissingOneNone) {
    add("h1", "1*M*S", 1);
    add("h2", "2*M*S", 1);
    statusTool(Names{"1*M*S", "2*M*S"}, Names{}, std::nullopt);
    poll();
    EXPECT_EQ(gone_, (Names{"h1", "h2"}));
    statusTool(Names{"1*M*S", "2*M*S"}, std::nullopt, std::nullopt);
    poll();
    EXPECT_TRUE(gone_.empty());
    // An empty line is an item: a list of one empty line names no partition of ours.
    statusTool(Names{"1*M*S", "2*M*S"}, Names{""}, std::nullopt);
    poll();
    EXPECT_EQ(gone_, (Names{"h1", "h2"}));
}

TEST_F(Partitions, ResultFilesAreReadALineAtATimeOf127CharactersAtMost) {
    std::string path = zn::paths::resolve(zn::paths::kCecList);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::string longLine(200, 'x');
    std::ofstream(path) << "a\n\n" << longLine << "\nb";
    bool found = false;
    strent* list = PartitionStatus::readList(zn::paths::kCecList, &found);
    EXPECT_TRUE(found);
    EXPECT_EQ(names(list), (Names{"a", "", std::string(127, 'x'), std::string(73, 'x'), "b"}));
    freestrlst(list);
    list = PartitionStatus::readList("/tmp/none.txt", &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(list, nullptr);
    strent* items = parsestr("p1,p2", ',');
    EXPECT_EQ(PartitionStatus::isInList(items, const_cast<char*>("p2")), 1);
    EXPECT_EQ(PartitionStatus::getStatusFromList(items, const_cast<char*>("p")), 0)
        << "whole items only";
    freestrlst(items);
}

TEST_F(Partitions, TheKeyToolsResultFileDecidesItsLastPieceWins) {
    std::string args = zn::paths::resolve("/tmp/setkey.args");
    std::string result = zn::paths::resolve(zn::paths::kSetKeyResult);
    std::filesystem::create_directories(zn::paths::resolve("/tmp"));
    struct Case {
        const char* what;
        std::optional<std::string> file;
        int exitStatus;
        int expected;
    } cases[] = {
        {"0 and a line feed", std::string("0\n"), 3, 0},
        {"a longer line is read in pieces of 4", std::string("12345\n"), 0, 5},
        {"the last line", std::string("7\n9\n"), 0, 9},
        {"no result file", std::nullopt, 0, 1},
        {"an empty file leaves the exit status", std::string(""), 4, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string body = "echo \"$@\" > '" + args + "'\n";
        body += c.file ? "printf '%s' '" + *c.file + "' > '" + result + "'\n"
                       : "rm -f '" + result + "'\n";
        body += "exit " + std::to_string(c.exitStatus) + "\n";
        consoletest::writeScript(zn::paths::resolve("/opt/wex/bin/setkeyoncec"), body);
        EXPECT_EQ(ps_.setKeyOnCEC(const_cast<char*>("cec1"), const_cast<char*>("key"), 3),
                  c.expected);
        EXPECT_EQ(testsupport::readFile(args), "cec1 key 3\n");
    }
}

TEST_F(Partitions, RemovingAndRenamingKeepTheListWhole) {
    add("a", "pa", 1);
    add("b", "pb", 1);
    add("a", "pa2", 0);
    ps_.removeHost(const_cast<char*>("a"));
    EXPECT_EQ(status("a"), 127) << "every entry of the host";
    add("c", "pc", 0);  // the tail is right after a removal
    EXPECT_EQ(status("c"), 0);
    ps_.removeHost(nullptr);

    // Renaming moves the head past the entries before the match: they leave.
    add("d", "pd", 1);
    ps_.changeHostname(const_cast<char*>("c"), const_cast<char*>("x"));
    EXPECT_EQ(status("b"), 127) << "dropped on the way";
    EXPECT_EQ(status("x"), 0);
    EXPECT_EQ(status("d"), 1);
    ps_.changeHostname(const_cast<char*>("nobody"), const_cast<char*>("y"));
    EXPECT_EQ(status("x"), 127) << "no match: the list ends empty";
    EXPECT_EQ(status("d"), 127);
    add("e", "pe", 1);
    EXPECT_EQ(status("e"), 1) << "and takes entries again";

    PartitionEntry second{strdup("g"), strdup("pg"), 127, nullptr};
    PartitionEntry first{strdup("f"), strdup("pf"), 0, &second};
    ps_.addInitialHosts(&first);
    EXPECT_EQ(status("f"), 0);
    EXPECT_EQ(status("g"), 127);
    std::free(first.hostname);
    std::free(first.partition);
    std::free(second.hostname);
    std::free(second.partition);
}

TEST_F(Partitions, TheConsoleIsWhereThePackageQuerySucceeds) {
    PartitionStatus::setConsoleQuery(consoletest::consoleQuery(true));
    EXPECT_TRUE(PartitionStatus::runningOnYSU());
    PartitionStatus::setConsoleQuery(consoletest::consoleQuery(false));
    EXPECT_FALSE(PartitionStatus::runningOnYSU());
    PartitionStatus::setConsoleQuery(zn::paths::resolve("/usr/bin/none"));
    EXPECT_FALSE(PartitionStatus::runningOnYSU()) << "no such program";
    PartitionStatus::setConsoleQuery("");
}

}  // namespace
