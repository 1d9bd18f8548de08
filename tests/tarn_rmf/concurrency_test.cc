// Many readers and writers on one table, and writers on two tables of one
// tree: readers never see half a change, writers never interleave.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tarn_rmf/registry/RMTree.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;
using regtest::field;

const RMPersAttrDefs kColumns[] = {
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 0},
    {"A", ZN_UINT32, rmUintDefault(0), 0},
    {"B", ZN_UINT32, rmUintDefault(0), 0},
};
constexpr unsigned kRows = 50;

class RegistryConcurrency : public ::testing::TestWithParam<unsigned> {
protected:
    void SetUp() override {
        tree_.mountTree();
        for (const char* path : {"/T/one", "/T/two"}) {
            RMCachedTable* t = RMCreateResourceTable(&tree_, path, kColumns, 3, "Name", nullptr, 0);
            t->setSyncMode(GetParam());
            for (unsigned i = 0; i < kRows; ++i) {
                std::string name = "r" + std::to_string(i);
                RMFieldValue v[] = {field("Name", name.c_str())};
                t->addRow(v, 1);
            }
            tables_.push_back(t);
        }
    }
    void TearDown() override {
        for (RMCachedTable* t : tables_) {
            tree_.closeTable(t);
        }
    }

    regtest::TempRoot root_;
    RMTree tree_{zn::paths::kRegistryTree};
    std::vector<RMCachedTable*> tables_;
};

TEST_P(RegistryConcurrency, ReadersSeeWholeChangesWhileWritersTakeTurns) {
    constexpr unsigned kGenerations = 150;
    std::atomic<bool> done{false};
    std::atomic<unsigned> torn{0}, lookups{0}, misses{0}, readersUp{0};
    // Writers start once every reader has read once, so they overlap.
    auto waitForReaders = [&] {
        while (readersUp.load() < 3) {
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> threads;
    for (RMCachedTable* t : tables_) {
        // Each change sets A and B of every row to the same new value.
        threads.emplace_back([t, &waitForReaders] {
            waitForReaders();
            for (uint32_t g = 1; g <= kGenerations; ++g) {
                RMFieldValue v[] = {field("A", g), field("B", g)};
                t->changeRows("*", nullptr, v, 2);
            }
        });
        // A second writer adds and removes rows of its own meanwhile.
        threads.emplace_back([t, &waitForReaders] {
            waitForReaders();
            for (unsigned i = 0; i < kGenerations; ++i) {
                std::string name = "extra" + std::to_string(i);
                RMFieldValue v[] = {field("Name", name.c_str())};
                RMRowId id = t->addRow(v, 1);
                t->deleteRow(id);
            }
        });
    }
    for (int r = 0; r < 3; ++r) {
        threads.emplace_back([&, r] {
            RMCachedTable* t = tables_[static_cast<size_t>(r) % tables_.size()];
            bool counted = false;
            while (!done.load()) {
                RMRowSet rs = t->getMetadata();
                uint32_t first = static_cast<uint32_t>(regtest::number(rs, 0, "A"));
                for (unsigned i = 0; i < rs.getRowCount(); ++i) {
                    uint64_t a = regtest::number(rs, i, "A"), b = regtest::number(rs, i, "B");
                    std::string name = regtest::text(rs, i, "Name");
                    bool extra = name.rfind("extra", 0) == 0;
                    if (a != b || (!extra && a != first)) {
                        ++torn;
                    }
                }
                std::string sel = "Name == \"r" + std::to_string(lookups % kRows) + "\"";
                if (t->select(sel.c_str()).getRowCount() != 1) {
                    ++misses;
                }
                ++lookups;
                if (!counted) {
                    counted = true;
                    ++readersUp;
                }
            }
        });
    }
    for (size_t i = 0; i < tables_.size() * 2; ++i) {
        threads[i].join();
    }
    done = true;
    for (size_t i = tables_.size() * 2; i < threads.size(); ++i) {
        threads[i].join();
    }
    EXPECT_EQ(torn.load(), 0u);
    EXPECT_EQ(misses.load(), 0u);
    EXPECT_GT(lookups.load(), 0u);
    for (RMCachedTable* t : tables_) {
        EXPECT_EQ(t->getRowCount(), kRows);
        EXPECT_EQ(t->select("A == 150 && B == 150").getRowCount(), kRows);
    }
    EXPECT_EQ(tree_.checkIntegrity(), "ok");
}

INSTANTIATE_TEST_SUITE_P(SyncModes, RegistryConcurrency, ::testing::Values(0u, 1u),
                         [](const auto& p) {
                             return p.param == 0 ? std::string("Deferred")
                                                 : std::string("WriteThrough");
                         });

}  // namespace
