// What survives a reopen: write-through and synced changes, definitions
// upgraded with more columns, filtered views; and what a damaged store, a
// damaged row, a bad definition or a store that refuses a step gives.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <memory>

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <set>
#include <string>

#include "tarn_rmf/registry/RMStoreFault.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;
using regtest::field;
using regtest::field64;

const char kPath[] = "/Kor/NodeGroup/Resources";

const RMPersAttrDefs kV1[] = {
    {"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0x32},
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 0x07},
    {"NodeIDs", ZN_UINT64_ARRAY, rmNoDefault(), 0x2A},
};
const RMPersAttrDefs kV2[] = {
    {"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0x32},
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 0x07},
    {"NodeIDs", ZN_UINT64_ARRAY, rmNoDefault(), 0x2A},
    {"ValidateNodes", ZN_UINT32, rmUintDefault(1), 0x2B},
    {"SelectStr", ZN_CHAR_PTR, rmStrDefault("*"), 0x0B},
};

class RegistryStore : public ::testing::Test {
protected:
    // Opens the tree afresh, as a restarted daemon would.
    std::unique_ptr<RMTree> openTree() {
        auto t = std::make_unique<RMTree>(zn::paths::kRegistryTree);
        t->mountTree();
        return t;
    }
    RMCachedTable* open(RMTree& t, const RMPersAttrDefs* defs, unsigned n,
                        const char* filter = nullptr) {
        return RMCreateResourceTable(&t, kPath, defs, n, "ResourceHandle", filter, 0);
    }
    RMRowId addGroup(RMCachedTable* t, unsigned n, const char* name, uint64_t owner) {
        zn_resource_handle h = regtest::handle(n);
        // Freed whether the row is added or refused.
        std::unique_ptr<zn_array, decltype(&std::free)> ids(zn_array_new(1), &std::free);
        ids->elements[0].val_uint64 = owner;
        RMFieldValue v[] = {field("ResourceHandle", h), field("Name", name),
                            field("NodeIDs", ZN_UINT64_ARRAY, zn_value_t{.ptr_array = ids.get()})};
        return t->addRow(v, 3);
    }
    std::string dbFile() const { return root_.dir() + zn::paths::kRegistryTree + "/registry.db"; }

    regtest::TempRoot root_;
};

TEST_F(RegistryStore, WriteThroughAndSyncedChangesOutliveTheProcessAndDeferredOnesDoNot) {
    // The child makes changes in each mode and dies without closing anything.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        auto tree = openTree();
        RMCachedTable* t = open(*tree, kV1, 3);
        bool ok = t->getSyncMode() == 0;
        addGroup(t, 1, "deferred then flushed", 1);
        t->setSyncMode(1);  // writes the pending row first
        addGroup(t, 2, "through", 1);
        t->setSyncMode(0);
        addGroup(t, 3, "synced", 1);
        t->sync();
        addGroup(t, 4, "lost", 1);
        RMFieldValue v[] = {field("Name", "renamed but lost")};
        t->changeRows("Name == \"through\"", nullptr, v, 1);
        ok = ok && t->pendingCount() == 2;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    auto tree = openTree();
    RMCachedTable* t = open(*tree, kV1, 3);
    EXPECT_EQ(regtest::names(t->getMetadata()),
              (std::set<std::string>{"deferred then flushed", "through", "synced"}));
    // Deferred deletes and changes reach the store on close.
    t->deleteRows("Name == \"through\"");
    RMFieldValue v[] = {field("Name", "renamed")};
    t->changeRows("Name == \"synced\"", nullptr, v, 1);
    tree->closeTable(t);
    tree.reset();
    tree = openTree();
    t = open(*tree, kV1, 3);
    EXPECT_EQ(regtest::names(t->getMetadata()),
              (std::set<std::string>{"deferred then flushed", "renamed"}));
    EXPECT_EQ(tree->checkIntegrity(), "ok");
    tree->closeTable(t);
}

TEST_F(RegistryStore, ASecondTreeOnTheSameDirectoryIsKeptOut) {
    auto tree = openTree();
    RMTree second(zn::paths::kRegistryTree);
    auto e = regtest::thrown([&] { second.mountTree(); });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_TRUE(e.says("locked")) << e.what;
}

TEST_F(RegistryStore, ClassTablesHaveOneRowOfDefaultsAndWriteThrough) {
    const RMPersAttrDefs cls[] = {{"Variety", ZN_UINT32, rmUintDefault(1), 0}};
    auto tree = openTree();
    RMCachedTable* c = RMCreateClassTable(tree.get(), "/Kor/NodeGroup/Class", cls, 1);
    EXPECT_EQ(c->getSyncMode(), 1u);
    RMRowSet rs = c->getMetadata();
    ASSERT_EQ(rs.getRowCount(), 1u);
    EXPECT_EQ(regtest::number(rs, 0, "Variety"), 1u);
    RMFieldValue v[] = {field("Variety", 7u)};
    EXPECT_EQ(c->changeRows("*", nullptr, v, 1), 1u);
    EXPECT_EQ(c->pendingCount(), 0u);  // written through, nothing left for a close
    tree.reset();
    tree = openTree();
    c = RMCreateClassTable(tree.get(), "/Kor/NodeGroup/Class", cls, 1);
    rs = c->getMetadata();
    ASSERT_EQ(rs.getRowCount(), 1u);
    EXPECT_EQ(regtest::number(rs, 0, "Variety"), 7u);
}

TEST_F(RegistryStore, MoreColumnsUpgradeTheTableAndKeepEveryRow) {
    auto tree = openTree();
    RMCachedTable* t = open(*tree, kV1, 3);
    addGroup(t, 1, "g1", 5);
    addGroup(t, 2, "g2", 5);
    tree->closeTable(t);
    tree.reset();
    tree = openTree();
    t = open(*tree, kV2, 5);
    RMRowSet rs = t->select("ValidateNodes == 1 && SelectStr == \"*\"");
    ASSERT_EQ(rs.getRowCount(), 2u);
    EXPECT_EQ(regtest::text(rs, 1, "Name"), "g2");
    RMFieldValue v[] = {field("SelectStr", "Hostname =~ \"^c\"")};
    t->changeRows("Name == \"g1\"", nullptr, v, 1);
    tree->closeTable(t);
    // An older definition (fewer columns) still opens, on the stored columns.
    tree.reset();
    tree = openTree();
    t = open(*tree, kV1, 3);
    EXPECT_EQ(t->getSchema().size(), 5u);
    EXPECT_EQ(regtest::text(t->select("Name == \"g1\""), 0, "SelectStr"), "Hostname =~ \"^c\"");
    tree->closeTable(t);
}

TEST_F(RegistryStore, DefinitionsThatDisagreeWithTheStoreOrThemselvesAreRefused) {
    auto tree = openTree();
    tree->closeTable(open(*tree, kV1, 3));
    const RMPersAttrDefs retyped[] = {{"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0},
                                      {"Name", ZN_UINT32, rmNoDefault(), 0}};
    const RMPersAttrDefs renamed[] = {{"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0},
                                      {"Label", ZN_CHAR_PTR, rmNoDefault(), 0}};
    const RMPersAttrDefs twice[] = {{"A", ZN_UINT32, rmNoDefault(), 0},
                                    {"A", ZN_UINT32, rmNoDefault(), 0}};
    const RMPersAttrDefs badName[] = {{"Not a name", ZN_UINT32, rmNoDefault(), 0}};
    const RMPersAttrDefs badType[] = {{"A", ZN_NONE, rmNoDefault(), 0}};
    struct Case {
        const char* label;
        const char* path;
        const RMPersAttrDefs* defs;
        unsigned count;
        const char* key;
        RMTableErrc errc;
    };
    const Case cases[] = {
        {"column retyped", kPath, retyped, 2, nullptr, RMTableErrc::kSchemaConflict},
        {"column renamed", kPath, renamed, 2, nullptr, RMTableErrc::kSchemaConflict},
        {"name twice", "/T/twice", twice, 2, nullptr, RMTableErrc::kBadDefinition},
        {"not an identifier", "/T/name", badName, 1, nullptr, RMTableErrc::kBadDefinition},
        {"type not storable", "/T/type", badType, 1, nullptr, RMTableErrc::kBadDefinition},
        {"no columns", "/T/none", kV1, 0, nullptr, RMTableErrc::kBadDefinition},
        {"key not a column", "/T/key", kV1, 3, "Nope", RMTableErrc::kBadDefinition},
        {"array key", "/T/key2", kV1, 3, "NodeIDs", RMTableErrc::kBadDefinition},
        {"relative path", "T/rel", kV1, 3, nullptr, RMTableErrc::kBadDefinition},
    };
    for (const Case& c : cases) {
        auto e = regtest::thrown(
            [&] { RMCreateResourceTable(tree.get(), c.path, c.defs, c.count, c.key, nullptr, 0); });
        EXPECT_EQ(e.errc, c.errc) << c.label << ": " << e.what;
    }
    EXPECT_THROW(RMCreateResourceTable(tree.get(), "/T/opt", kV1, 3, nullptr, nullptr, 2),
                 RMTableError);
}

TEST_F(RegistryStore, AFilterLoadsMatchingRowsAndLeavesTheOthersStored) {
    auto tree = openTree();
    RMCachedTable* t = open(*tree, kV1, 3);
    addGroup(t, 1, "mine", 0x1111);
    addGroup(t, 2, "theirs", 0x2222);
    tree->closeTable(t);
    tree.reset();
    tree = openTree();
    t = open(*tree, kV1, 3, "NodeIDs==0x0000000000001111");
    EXPECT_EQ(t->getRowCount(), 1u);
    EXPECT_EQ(t->getFilter(), "NodeIDs==0x0000000000001111");
    // A row added through the filtered table joins its view even though it
    // doesn't match, and gets a row id after every stored one.
    RMRowId id = addGroup(t, 3, "added", 0x3333);
    EXPECT_EQ(t->select("Name == \"added\"").getRowCount(), 1u);
    EXPECT_GT(id, 2);
    tree->closeTable(t);
    tree.reset();
    tree = openTree();
    t = open(*tree, kV1, 3);
    EXPECT_EQ(t->getRowCount(), 3u);
    tree->closeTable(t);
    EXPECT_THROW(open(*tree, kV1, 3, "NodeIDs == $X"), RMTableError);  // unbound parameter
    EXPECT_THROW(open(*tree, kV1, 3, "NodeIDs ="), RMTableError);
}

TEST_F(RegistryStore, ReopeningAnOpenTableSharesItOnlyWithTheSameDefinition) {
    auto tree = openTree();
    RMCachedTable* a = open(*tree, kV1, 3);
    RMCachedTable* b = open(*tree, kV1, 3);
    EXPECT_EQ(a, b);
    EXPECT_EQ(regtest::thrown([&] { open(*tree, kV1, 3, "Name == \"x\""); }).errc,
              RMTableErrc::kAlreadyOpen);
    tree->closeTable(b);
    addGroup(a, 1, "still open", 1);  // one use is left
    tree->closeTable(a);
    tree->unmountTree();
    EXPECT_FALSE(tree->isMounted());
    EXPECT_EQ(regtest::thrown([&] { open(*tree, kV1, 3); }).errc, RMTableErrc::kNotMounted);
}

TEST_F(RegistryStore, AFileThatIsNoDatabaseIsAStorageError) {
    ASSERT_EQ(zn::paths::ensureParentDir(dbFile()), 0);
    std::ofstream(dbFile()) << "this is not a database, just some text that is long enough";
    RMTree tree(zn::paths::kRegistryTree);
    auto e = regtest::thrown([&] { tree.mountTree(); });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_TRUE(e.says("not a database")) << e.what;
    EXPECT_FALSE(tree.isMounted());
}

TEST_F(RegistryStore, ADamagedRowStopsTheOpenAndNamesTheRow) {
    auto tree = openTree();
    RMCachedTable* t = open(*tree, kV1, 3);
    t->setSyncMode(1);
    addGroup(t, 1, "good", 1);
    RMRowId bad = addGroup(t, 2, "to be damaged", 1);
    tree->closeTable(t);
    tree.reset();
    struct Case {
        const char* blob;  // SQL expression for the damaged row
        const char* detail;
    };
    const Case cases[] = {
        {"x'0103ff'", "has the wrong type"},
        {"x''", "unknown row format"},
        {"x'01'", "bad column count"},
        {"x'0104'", "bad column count"},  // more columns than defined
        {"zeroblob(16777217)", "larger than a row may be"},
    };
    for (const Case& c : cases) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(dbFile().c_str(), &db), SQLITE_OK);
        std::string sql =
            std::string("UPDATE rm_t1 SET row=") + c.blob + " WHERE id=" + std::to_string(bad);
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
        tree = openTree();
        auto e = regtest::thrown([&] { open(*tree, kV1, 3); });
        EXPECT_EQ(e.errc, RMTableErrc::kDamagedRow) << c.blob;
        EXPECT_TRUE(e.says("row " + std::to_string(bad)) && e.says(c.detail)) << e.what;
        tree.reset();
    }
}

TEST_F(RegistryStore, AStepTheStoreRefusesChangesNothing) {
    struct Refusal {
        std::string path;
        RMStoreStep step;
    };
    std::vector<Refusal> asked;
    RMStoreStep refused = RMStoreStep::kOpen;
    bool refusing = false;
    std::optional<RMScopedStoreFault> fault;
    fault.emplace([&](const std::string& path, RMStoreStep step) {
        asked.push_back({path, step});
        return refusing && step == refused;
    });
    auto tree = openTree();
    RMCachedTable* t = open(*tree, kV1, 3);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].path, kPath);
    EXPECT_EQ(asked[0].step, RMStoreStep::kOpen);

    // Deferred changes touch no store: nothing is asked until they are written.
    addGroup(t, 1, "pending", 1);
    EXPECT_EQ(asked.size(), 1u);
    refusing = true;
    refused = RMStoreStep::kWrite;
    auto e = regtest::thrown([&] { t->setSyncMode(1); });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_TRUE(e.says("writing a change")) << e.what;
    EXPECT_EQ(t->getSyncMode(), 0u);
    EXPECT_EQ(t->pendingCount(), 1u) << "still pending";
    refusing = false;
    t->setSyncMode(1);

    // A refused write leaves the table as it was; a refused sync leaves the
    // written change in place.
    refusing = true;
    e = regtest::thrown([&] { addGroup(t, 2, "refused", 1); });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_EQ(t->getRowCount(), 1u);
    refused = RMStoreStep::kSync;
    addGroup(t, 3, "written", 1);
    e = regtest::thrown([&] { t->sync(); });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_TRUE(e.says("syncing")) << e.what;
    EXPECT_EQ(t->getRowCount(), 2u);

    // A refused open opens nothing.
    refused = RMStoreStep::kOpen;
    e = regtest::thrown([&] {
        RMCreateResourceTable(tree.get(), "/Kor/Other/Resources", kV1, 3, "ResourceHandle", nullptr,
                              0);
    });
    EXPECT_EQ(e.errc, RMTableErrc::kStorage);
    EXPECT_TRUE(e.says("opening a table")) << e.what;

    fault.reset();
    tree->closeTable(t);
    tree.reset();
    tree = openTree();
    t = open(*tree, kV1, 3);
    EXPECT_EQ(regtest::names(t->getMetadata()), (std::set<std::string>{"pending", "written"}));
}

}  // namespace
