#include <gtest/gtest.h>

#include <filesystem>

#include "tarn_base/CTraceManager.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace {

using tarn_base::CTraceManager;
using tarn_base::tr_category_description;

const tr_category_description kCats[] = {{"Errors"}, {"Info"}};

tarn_base::CTraceComponent* comp(const char* id) {
    return CTraceManager::newComponent(id, kCats, 2);
}

TEST(TraceLevels, FollowTheSettingAndLaterRulesWin) {
    auto* ovd = comp("_OVDt");
    auto* rmf = comp("_RMFt");
    struct Case {
        const char* spec;
        unsigned ovdErrors, ovdInfo, rmfInfo;
    } cases[] = {
        {"*:Errors=255,_RMFt:Info=2,_OVDt:Info=1", 255, 1, 2},
        {"*:*=255", 255, 255, 255},
        {"*:*=255,_OVDt:*=0", 0, 0, 255},
        {" _OVDt : Info = 7 ", 0, 7, 0},
        {"", 0, 0, 0},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(CTraceManager::setSpec(c.spec)) << c.spec;
        EXPECT_EQ(ovd->level(0), c.ovdErrors) << c.spec;
        EXPECT_EQ(ovd->level(1), c.ovdInfo) << c.spec;
        EXPECT_EQ(rmf->level(1), c.rmfInfo) << c.spec;
    }
}

TEST(TraceLevels, MalformedSettingsChangeNothing) {
    auto* c = comp("_BADt");
    ASSERT_TRUE(CTraceManager::setSpec("_BADt:Info=3"));
    for (const char* bad : {"_BADt:Info", "_BADt=3", "Info=3:_BADt", "_BADt:Info=256",
                            "_BADt:Info=-1", "_BADt:Info=x", ":Info=1", "_BADt:=1"}) {
        EXPECT_FALSE(CTraceManager::setSpec(bad)) << bad;
        EXPECT_EQ(c->level(1), 3u) << bad;
    }
    EXPECT_EQ(CTraceManager::spec(), "_BADt:Info=3");
}

TEST(TraceLevels, ComponentsRegisteredLaterGetTheCurrentLevels) {
    ASSERT_TRUE(CTraceManager::setSpec("_LATEt:Info=4"));
    auto* c = comp("_LATEt");
    EXPECT_EQ(c->level(1), 4u);
    EXPECT_EQ(comp("_LATEt"), c);  // same component again
    EXPECT_EQ(CTraceManager::newComponent(nullptr, kCats, 2), nullptr);
    EXPECT_EQ(CTraceManager::newComponent("_X", kCats, 0), nullptr);
}

TEST(TraceFile, RecordsGoToABoundedFileWithOneOldGeneration) {
    testsupport::TempDir dir;
    std::string path = dir / "trace/orvrm.trace";
    CTraceManager::setFile(path, 4096);
    auto* c = comp("_FILEt");
    ASSERT_TRUE(CTraceManager::setSpec("_FILEt:*=1"));
    for (int i = 0; i < 500; ++i) {
        c->writef(1, "record %04d %s", i, std::string(40, 'x').c_str());
    }
    CTraceManager::flush();
    CTraceManager::setFile("");
    ASSERT_TRUE(std::filesystem::exists(path));
    ASSERT_TRUE(std::filesystem::exists(path + ".1"));
    EXPECT_LE(std::filesystem::file_size(path), 4096u);
    EXPECT_LE(std::filesystem::file_size(path + ".1"), 4096u);
    EXPECT_NE(testsupport::readFile(path).find("_FILEt Info: record 0499"), std::string::npos);
}

TEST(TraceFile, DisabledCategoryWritesNothing) {
    testsupport::TempDir dir;
    std::string path = dir / "t.trace";
    CTraceManager::setFile(path);
    auto* c = comp("_OFFt");
    ASSERT_TRUE(CTraceManager::setSpec("_OFFt:Errors=1"));
    c->writef(1, "not written %d", 1);
    c->writef(0, "written %d", 2);
    CTraceManager::setFile("");
    std::string all = testsupport::readFile(path);
    EXPECT_EQ(all.find("not written"), std::string::npos);
    EXPECT_NE(all.find("_OFFt Errors: written 2"), std::string::npos);
}

}  // namespace
