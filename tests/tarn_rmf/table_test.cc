// Row operations of a cached table: add, select, read, change, delete, key
// uniqueness, write errors that change nothing, index and scan agreement.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;
using regtest::field;
using regtest::field64;

const RMPersAttrDefs kColumns[] = {
    {"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0x32},
    {"Variety", ZN_UINT32, rmUintDefault(1), 0x32},
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 0x07},
    {"UniversalId", ZN_UINT64, rmNoDefault(), 0x0A},
    {"IPAddress", ZN_CHAR_PTR, rmStrDefault(""), 0x07},
    {"NodeIDs", ZN_UINT64_ARRAY, rmNoDefault(), 0x2A},
    {"Mode", ZN_CHAR_PTR, rmStrDefault("PreManaged"), 0x0B},
};

class RegistryTable : public ::testing::Test {
protected:
    void SetUp() override {
        tree_.mountTree();
        table_ = RMCreateResourceTable(&tree_, "/Kor/MNNetworkInterface/Resources", kColumns,
                                       std::size(kColumns), "ResourceHandle", nullptr, 1);
    }
    void TearDown() override {
        tree_.closeTable(table_);
        tree_.unmountTree();
    }
    RMRowId add(unsigned n, const char* name, const char* ip) {
        zn_resource_handle h = regtest::handle(n);
        RMFieldValue v[] = {field("ResourceHandle", h), field("Name", name),
                            field64("UniversalId", 1000 + n), field("IPAddress", ip)};
        return table_->addRow(v, std::size(v));
    }

    regtest::TempRoot root_;
    RMTree tree_{zn::paths::kRegistryTree};
    RMCachedTable* table_ = nullptr;
};

TEST_F(RegistryTable, AddedRowsAreFoundByKeyAndReadWithDefaults) {
    RMRowId first = add(1, "n1", "10.0.0.1");
    RMRowId second = add(2, "n2", "10.0.0.2");
    EXPECT_LT(first, second);
    RMSelParams params;
    params.setHandle("RH", regtest::handle(2));
    RMRowSet rs = table_->select("ResourceHandle == $RH", &params);
    ASSERT_EQ(rs.getRowCount(), 1u);
    EXPECT_EQ(rs.getRowId(0), second);
    const char* cols[] = {"Name", "Mode", "Variety", "NodeIDs"};
    zn_value_t out[4];
    zn_data_type_t types[4];
    rs.getFieldsByIndexV(0, cols, 4, out, types);
    regtest::Owned name(types[0], out[0]), mode(types[1], out[1]), variety(types[2], out[2]),
        ids(types[3], out[3]);
    EXPECT_EQ(name.str(), "n2");
    EXPECT_EQ(mode.str(), "PreManaged");  // the column's default
    EXPECT_EQ(variety.value().val_uint32, 1u);
    EXPECT_EQ(ids.type(), ZN_UINT64_ARRAY);
    EXPECT_EQ(ids.value().ptr_array, nullptr);
    EXPECT_EQ(table_->select("UniversalId == 1001").getRowCount(), 1u);
    EXPECT_EQ(table_->select("*").getRowCount(), 2u);
    EXPECT_EQ(table_->select("Name =~ \"^n[0-9]$\" && UniversalId > 1001").getRowCount(), 1u);
}

TEST_F(RegistryTable, MetadataWalksRowsInRowOrderAndIsASnapshot) {
    for (unsigned i = 0; i < 5; ++i) {
        add(i, ("n" + std::to_string(i)).c_str(), "10.0.0.1");
    }
    RMRowSet before = table_->getMetadata();
    table_->deleteRows("Name == \"n1\"");
    RMFieldValue v[] = {field("Name", "renamed")};
    table_->changeRows("Name == \"n3\"", nullptr, v, 1);
    ASSERT_EQ(before.getRowCount(), 5u);
    for (unsigned i = 0; i < 5; ++i) {
        EXPECT_EQ(regtest::text(before, i, "Name"), "n" + std::to_string(i));
    }
    RMRowSet after = table_->getMetadata();
    ASSERT_EQ(after.getRowCount(), 4u);
    EXPECT_EQ(regtest::text(after, 2, "Name"), "renamed");
    EXPECT_EQ(regtest::text(after, 3, "Name"), "n4");
}

TEST_F(RegistryTable, ChangesAndDeletesApplyToEverySelectedRowAndKeepIndexesCurrent) {
    add(1, "a", "10.0.0.1");
    add(2, "b", "10.0.0.1");
    add(3, "c", "10.0.0.2");
    RMFieldValue v[] = {field("IPAddress", "10.9.9.9"), field("Mode", "Managed")};
    EXPECT_EQ(table_->changeRows("IPAddress==\"10.0.0.1\"", nullptr, v, 2), 2u);
    EXPECT_EQ(table_->select("IPAddress==\"10.0.0.1\"").getRowCount(), 0u);
    EXPECT_EQ(regtest::names(table_->select("IPAddress==\"10.9.9.9\" && Mode == \"Managed\"")),
              (std::set<std::string>{"a", "b"}));
    EXPECT_EQ(table_->changeRows("Name == \"zzz\"", nullptr, v, 2), 0u);
    EXPECT_EQ(table_->deleteRows("IPAddress IN {\"10.9.9.9\", \"10.0.0.2\"}"), 3u);
    EXPECT_EQ(table_->getRowCount(), 0u);
    EXPECT_EQ(table_->select("Name == \"a\"").getRowCount(), 0u);
}

TEST_F(RegistryTable, RowsAreReachableByIdUntilDeleted) {
    RMRowId id = add(7, "seven", "10.0.0.7");
    RMFieldValue v[] = {field("Name", "SEVEN")};
    table_->changeRow(id, v, 1);
    EXPECT_EQ(regtest::text(table_->getRow(id), 0, "Name"), "SEVEN");
    table_->deleteRow(id);
    EXPECT_EQ(regtest::thrown([&] { table_->getRow(id); }).errc, RMTableErrc::kNoSuchRow);
    EXPECT_EQ(regtest::thrown([&] { table_->changeRow(id, v, 1); }).errc, RMTableErrc::kNoSuchRow);
    EXPECT_EQ(regtest::thrown([&] { table_->deleteRow(id); }).errc, RMTableErrc::kNoSuchRow);
}

TEST_F(RegistryTable, BadWritesAreRefusedAndChangeNothing) {
    add(1, "a", "10.0.0.1");
    zn_resource_handle dup = regtest::handle(1);
    zn_resource_handle fresh = regtest::handle(9);
    struct Case {
        const char* label;
        std::vector<RMFieldValue> values;
        RMTableErrc errc;
    };
    const Case cases[] = {
        {"duplicate key",
         {field("ResourceHandle", dup), field("Name", "x")},
         RMTableErrc::kDuplicateKey},
        {"unknown column",
         {field("ResourceHandle", fresh), field("Nmae", "x")},
         RMTableErrc::kUnknownColumn},
        {"column out of range",
         {{nullptr, 99, ZN_UINT32, {.val_uint32 = 1}}},
         RMTableErrc::kUnknownColumn},
        {"wrong type",
         {field("ResourceHandle", fresh), field("Name", 5u)},
         RMTableErrc::kTypeMismatch},
        {"column twice",
         {field("ResourceHandle", fresh), field("Name", "x"), field("Name", "y")},
         RMTableErrc::kBadValue},
    };
    for (const Case& c : cases) {
        auto e = regtest::thrown(
            [&] { table_->addRow(c.values.data(), static_cast<unsigned>(c.values.size())); });
        EXPECT_EQ(e.errc, c.errc) << c.label << ": " << e.what;
        EXPECT_EQ(table_->getRowCount(), 1u) << c.label;
    }
    // A value past the row size limit: refused before it is stored.
    std::vector<char> big(kRMMaxRowBytes + 1, 'x');
    big.back() = '\0';
    RMFieldValue huge[] = {field("ResourceHandle", fresh), field("Name", big.data())};
    auto e = regtest::thrown([&] { table_->addRow(huge, 2); });
    EXPECT_EQ(e.errc, RMTableErrc::kBadValue);
    EXPECT_TRUE(e.says("16 MiB")) << e.what;
    EXPECT_EQ(table_->getRowCount(), 1u);
    add(2, "b", "10.0.0.2");
    // Giving two rows the same key in one change, or an existing row's key.
    RMFieldValue clash[] = {field("ResourceHandle", fresh)};
    EXPECT_THROW(table_->changeRows("*", nullptr, clash, 1), RMTableError);
    RMFieldValue taken[] = {field("ResourceHandle", dup)};
    EXPECT_THROW(table_->changeRows("Name == \"b\"", nullptr, taken, 1), RMTableError);
    EXPECT_EQ(regtest::names(table_->select("*")), (std::set<std::string>{"a", "b"}));
    // Changing a row to its own key is fine.
    EXPECT_EQ(table_->changeRows("Name == \"a\"", nullptr, taken, 1), 1u);
    // Selection errors surface from every operation that takes one.
    EXPECT_THROW(table_->select("Nope == 1"), RMTableError);
    EXPECT_THROW(table_->deleteRows("Name == "), RMTableError);
    EXPECT_THROW(table_->changeRows("Name == 1", nullptr, clash, 1), RMTableError);
    EXPECT_EQ(table_->getRowCount(), 2u);
}

TEST_F(RegistryTable, ReadsOfUnknownColumnsOrRowsCopyNothing) {
    add(1, "a", "10.0.0.1");
    RMRowSet rs = table_->select("*");
    const char* cols[] = {"Name", "NoSuch"};
    zn_value_t out[2] = {};
    auto e = regtest::thrown([&] { rs.getFieldsByIndexV(0, cols, 2, out); });
    EXPECT_EQ(e.errc, RMTableErrc::kUnknownColumn);
    EXPECT_TRUE(e.says("\"NoSuch\"")) << e.what;
    EXPECT_EQ(out[0].ptr_char, nullptr);
    EXPECT_EQ(regtest::thrown([&] { rs.getFieldsByIndexV(1, cols, 1, out); }).errc,
              RMTableErrc::kRowIndex);
    int bad[] = {7};
    EXPECT_THROW(rs.getFieldsByIdV(0, bad, 1, out), RMTableError);
}

TEST_F(RegistryTable, IndexedLookupsAgreeWithFullScansThroughChurn) {
    std::mt19937 rng(12345);
    std::vector<RMRowId> ids;
    for (unsigned i = 0; i < 3000; ++i) {
        std::string name = "n" + std::to_string(i % 700);  // repeated names
        ids.push_back(add(i, name.c_str(), ("10.0." + std::to_string(i % 50) + ".1").c_str()));
    }
    // Delete most rows so the slots compact, and rename some of the rest.
    for (unsigned i = 0; i < 3000; ++i) {
        if (i % 5 != 0) {
            table_->deleteRow(ids[i]);
        } else if (i % 3 == 0) {
            std::string renamed = "r" + std::to_string(i % 11);
            RMFieldValue v[] = {field("Name", renamed.c_str())};
            table_->changeRow(ids[i], v, 1);
        }
    }
    for (int k = 0; k < 200; ++k) {
        std::string name = (k % 2 ? "n" : "r") + std::to_string(rng() % 700);
        std::string indexed = "Name == \"" + name + "\"";
        // "x || x" with a non-indexed side forces a scan over the same meaning.
        std::string scanned = "Name == \"" + name + "\" || Mode == \"no such mode\"";
        EXPECT_EQ(regtest::names(table_->select(indexed.c_str())),
                  regtest::names(table_->select(scanned.c_str())))
            << name;
        std::string byId = "UniversalId == " + std::to_string(1000 + rng() % 3000);
        std::string byIdScan = byId + " || Mode == \"none\"";
        EXPECT_EQ(table_->select(byId.c_str()).getRowCount(),
                  table_->select(byIdScan.c_str()).getRowCount());
    }
    EXPECT_EQ(table_->getRowCount(), 600u);
}

}  // namespace
