#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/TempDir.h"
#include "znpex/di/DiStore.h"

namespace {

using namespace znpex::di;

Transaction addNodes(std::initializer_list<NodeEntry> nodes) {
    Transaction t;
    t.op = DI_TABLE_ADD;
    t.nodes = nodes;
    return t;
}

TEST(DiStore, TablesSurviveReopening) {
    testsupport::TempDir dir;
    std::string path = dir / "di/tables.db";
    {
        DiStore s(path);
        ASSERT_EQ(s.apply(addNodes({{7, "n1.example", {"n1", "node-one"}, {"10.0.0.1"}},
                                    {9, "n2.example", {}, {"10.0.0.2", "10.0.1.2"}}})),
                  DI_OK);
        Transaction g;
        g.groups = {{"rack1", {"n1.example", "n2.example"}}};
        ASSERT_EQ(s.apply(g), DI_OK);
        EXPECT_EQ(s.version(), 2u);
    }
    DiStore again(path);
    auto nodes = again.nodes();
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0].hostname, "n1.example");
    EXPECT_EQ(nodes[0].nodeId, 7u);
    EXPECT_EQ(nodes[0].names, (std::vector<std::string>{"n1", "node-one"}));
    EXPECT_TRUE(nodes[1].names.empty());
    EXPECT_EQ(nodes[1].addresses, (std::vector<std::string>{"10.0.0.2", "10.0.1.2"}));
    auto groups = again.groups();
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].members, (std::vector<std::string>{"n1.example", "n2.example"}));
    // Watchers compare versions: a restart must not send the count back.
    EXPECT_EQ(again.version(), 2u);
    ASSERT_EQ(again.apply(addNodes({{3, "n3.example", {}, {}}})), DI_OK);
    EXPECT_EQ(again.version(), 3u);
}

// What a copy of the database file alone holds: the tables as they would be
// found if the log were lost.
size_t nodesInFileAlone(const std::string& path, const std::string& copy) {
    std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove(copy + "-wal");
    return DiStore(copy).nodes().size();
}

TEST(DiStore, AStampGoesWithItsChangeAndAFlushPutsChangesInTheFile) {
    testsupport::TempDir dir;
    std::string path = dir / "tables.db";
    DiStore s(path);
    ASSERT_EQ(s.apply(addNodes({{1, "a", {}, {"10.0.0.1"}}}), nullptr, 500), DI_OK);
    EXPECT_EQ(s.stamp(), 500u);
    // A refused change leaves the stamp it brought behind.
    ASSERT_EQ(s.apply(addNodes({{2, "", {}, {}}}), nullptr, 600), DI_EINVAL);
    ASSERT_EQ(s.apply(addNodes({{3, "c", {}, {}}})), DI_OK);
    EXPECT_EQ(s.stamp(), 500u);

    EXPECT_TRUE(s.unflushed());
    EXPECT_EQ(nodesInFileAlone(path, dir / "before.db"), 0u);
    ASSERT_TRUE(s.flush());
    EXPECT_FALSE(s.unflushed());
    EXPECT_EQ(nodesInFileAlone(path, dir / "after.db"), 2u);
    // The heartbeat tuning is rare and must not wait for a flush.
    Heartbeat h;
    h.frequency = 4;
    h.sensitivity = 3;
    ASSERT_EQ(s.setHeartbeat(h), DI_OK);
    EXPECT_FALSE(s.unflushed());
}

TEST(DiStore, UpdateReplacesRemoveDeletesNullTableEmpties) {
    testsupport::TempDir dir;
    DiStore s(dir / "t.db");
    ASSERT_EQ(s.apply(addNodes({{1, "a", {}, {"10.0.0.1"}}, {2, "b", {}, {}}})), DI_OK);
    Transaction upd = addNodes({{11, "a", {"alias"}, {"10.9.9.9"}}});
    upd.op = DI_TABLE_UPDATE;
    ASSERT_EQ(s.apply(upd), DI_OK);
    EXPECT_EQ(s.nodes()[0].nodeId, 11u);
    EXPECT_EQ(s.nodes()[0].addresses, (std::vector<std::string>{"10.9.9.9"}));
    Transaction rm = addNodes({{0, "b", {}, {}}, {0, "never-there", {}, {}}});
    rm.op = DI_TABLE_REMOVE;
    ASSERT_EQ(s.apply(rm), DI_OK);
    ASSERT_EQ(s.nodes().size(), 1u);
    Transaction replaceAll = addNodes({{5, "c", {}, {}}});
    replaceAll.clearNodes = true;
    ASSERT_EQ(s.apply(replaceAll), DI_OK);
    ASSERT_EQ(s.nodes().size(), 1u);
    EXPECT_EQ(s.nodes()[0].hostname, "c");
}

// A malformed transaction changes nothing, even when its first rows are fine.
TEST(DiStore, BadTransactionsAreRefusedWhole) {
    testsupport::TempDir dir;
    DiStore s(dir / "t.db");
    ASSERT_EQ(s.apply(addNodes({{1, "keep", {}, {}}})), DI_OK);
    struct Case {
        const char* what;
        Transaction t;
        const char* reason;
    } cases[] = {
        {"empty host name", addNodes({{2, "fine", {}, {}}, {3, "", {}, {}}}),
         "without a host name"},
        {"newline in a name", addNodes({{2, "x", {"a\nb"}, {}}}), "newline"},
        {"empty address", addNodes({{2, "x", {}, {""}}}), "empty item"},
        {"huge host name", addNodes({{2, std::string(2000, 'h'), {}, {}}}), "longer than"},
        {"bad op",
         [] {
             Transaction t;
             t.op = static_cast<di_table_op_t>(42);
             return t;
         }(),
         "unknown table operation"},
    };
    for (auto& c : cases) {
        c.t.clearNodes = true;  // would wipe the table if applied
        std::string why;
        EXPECT_EQ(s.apply(c.t, &why), DI_EINVAL) << c.what;
        EXPECT_NE(why.find(c.reason), std::string::npos) << c.what << ": " << why;
    }
    ASSERT_EQ(s.nodes().size(), 1u);
    EXPECT_EQ(s.nodes()[0].hostname, "keep");
    EXPECT_EQ(s.version(), 1u);
}

TEST(DiStore, AFileThatIsNotAStoreIsRefused) {
    testsupport::TempDir dir;
    std::ofstream(dir / "junk.db") << std::string(4096, 'x');
    EXPECT_THROW(DiStore(dir / "junk.db"), std::runtime_error);
    std::ofstream(dir / "file") << "x";
    EXPECT_THROW(DiStore(dir / "file/sub.db"), std::runtime_error);
}

}  // namespace
