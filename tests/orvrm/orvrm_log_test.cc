#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMMessages.h"
#include "platform/clock.h"
#include "platform/msgcat.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tests/support/FakeClog.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::ScopedFakeClog;

// Captures trace records of the "_OVD" component.
class TraceCapture {
public:
    TraceCapture() {
        tarn_base::CTraceManager::setHook(
            [this](const std::string& comp, const std::string& cat, const std::string& text) {
                if (comp == "_OVD") {
                    lines.push_back(cat + "|" + text);
                }
            });
    }
    ~TraceCapture() { tarn_base::CTraceManager::setHook(nullptr); }
    std::vector<std::string> lines;
};

class LogHelpers : public ::testing::Test {
protected:
    void SetUp() override {
        orvrm::closeLog();
        ASSERT_TRUE(tarn_base::CTraceManager::setSpec("*:Errors=255,_OVD:Info=1"));
        orvrm::traceComponent();
    }
    void TearDown() override {
        orvrm::closeLog();
        zn::resetCatalogCache();
        unsetenv("NLSPATH");
    }
    ScopedFakeClog log;
};

TEST_F(LogHelpers, PkgErrorBuildsTracesAndLogsWithPositionalArguments) {
    TraceCapture trace;
    cu_error_t* err = pkg_error(267, 47, "ORVRM main", 0, 12, "no journal");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->cu_error_id, 267);
    EXPECT_EQ(err->cu_msg_cat, "Kor.ORVRM.cat");
    EXPECT_EQ(err->cu_msg_set, 1);
    const std::string expected =
        "2655-047 An error occurred when initializing the logging facility. The return code was "
        "12 and the error message was no journal.\n";
    EXPECT_EQ(cu_error_text(err), expected);
    ASSERT_EQ(log.capture->records.size(), 1u);
    EXPECT_EQ(log.capture->records[0].msgNum, 47);
    EXPECT_EQ(log.capture->records[0].severity, 4);
    EXPECT_EQ(log.capture->records[0].component, "wex.server");
    EXPECT_EQ(log.capture->records[0].text, expected);
    ASSERT_EQ(trace.lines.size(), 1u);
    EXPECT_EQ(trace.lines[0], "Errors|ORVRM main: error 267: " + expected);
    cu_rel_error_1(err);
}

TEST_F(LogHelpers, BadMessageNumbersGiveTheBadIdTextAndAreStillLogged) {
    for (int num : {0, 112, -3}) {
        cu_error_t* err = pkg_error(268, num, "f", 0);
        EXPECT_EQ(cu_error_text(err), "Bad message id for message set ORVRM_set") << num;
        cu_rel_error_1(err);
    }
    ASSERT_EQ(log.capture->records.size(), 3u);
    EXPECT_EQ(log.capture->records[1].text, "Bad message id for message set ORVRM_set");
}

TEST_F(LogHelpers, CommonErrorLogsMessage49WithItsText) {
    cu_error_t* err =
        pkg_common_error(tarn_rmf::RM_EINVALIDHANDLE, "undefineResource", 0, "undefineResource");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->cu_error_id, 0x10008);
    ASSERT_EQ(log.capture->records.size(), 1u);
    EXPECT_EQ(log.capture->records[0].msgNum, 49);
    EXPECT_EQ(log.capture->records[0].text,
              "2655-049 The following error message was returned by function undefineResource: " +
                  cu_error_text(err) + ".");
    cu_rel_error_1(err);
}

TEST_F(LogHelpers, NullErrorLogsNothingAndInfoLogsWithoutTrace) {
    TraceCapture trace;
    orvrmlog_error("x", nullptr);
    EXPECT_TRUE(log.capture->records.empty());
    orvrmlog_info(13, "unused", "grpA");
    ASSERT_EQ(log.capture->records.size(), 1u);
    EXPECT_EQ(log.capture->records[0].text,
              "2655-013 A node group with name grpA already exists.\n");
    EXPECT_TRUE(trace.lines.empty());
}

TEST_F(LogHelpers, UnavailableLogNeverFailsAndErrorsAreStillTraced) {
    log.capture->failOpen = true;
    TraceCapture trace;
    cu_error_t* err = pkg_error(0x18000, 37, "ManagedNodeRccp::sync", 0);
    ASSERT_NE(err, nullptr);
    cu_error_t* common =
        pkg_common_error(tarn_rmf::RM_EINVALIDATTRID, "getAttributeValues", 0, "g");
    orvrmlog_error("f", err);
    orvrmlog_info(5, "f", "Hostname");
    EXPECT_TRUE(log.capture->records.empty());
    EXPECT_FALSE(orvrm::logIsOpen());
    EXPECT_GE(log.capture->opens, 4);  // every helper tried to open lazily
    ASSERT_EQ(trace.lines.size(), 2u);
    EXPECT_NE(trace.lines[0].find("2655-037"), std::string::npos);
    cu_rel_error_1(err);
    cu_rel_error_1(common);
}

TEST_F(LogHelpers, InfoTraceFollowsTheInfoLevel) {
    TraceCapture trace;
    orvrminfo_trace("ORVRMRmcp::PEXMessageRecieved: %s", "Entered");
    ASSERT_TRUE(tarn_base::CTraceManager::setSpec("*:Errors=255,_OVD:Info=0"));
    orvrminfo_trace("hidden %d", 1);
    ASSERT_EQ(trace.lines.size(), 1u);
    EXPECT_EQ(trace.lines[0], "Info|ORVRMRmcp::PEXMessageRecieved: Entered");
}

TEST_F(LogHelpers, TranslatedCatalogueIsUsedWhenInstalled) {
    testsupport::TempDir dir;
    std::ofstream(dir / "Kor.ORVRM.msg") << "$quote \"\n$set 1\n3 \"Classe %1$s inconnue.\\n\"\n";
    std::string cmd = "gencat " + (dir / "Kor.ORVRM.cat") + " " + (dir / "Kor.ORVRM.msg");
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    setenv("NLSPATH", (dir.path() + "/%N").c_str(), 1);
    zn::resetCatalogCache();
    cu_error_t* err = pkg_error(0x10007, 3, "createRCCP", 0, "Kor.X");
    EXPECT_EQ(cu_error_text(err), "Classe Kor.X inconnue.\n");
    ASSERT_EQ(log.capture->records.size(), 1u);
    EXPECT_EQ(log.capture->records[0].text, "Classe Kor.X inconnue.\n");
    // A message the translation lacks falls back to the compiled default.
    cu_error_t* other = pkg_error(0x10007, 4, "createRCCP", 0, "Kor.X");
    EXPECT_EQ(cu_error_text(other),
              "2655-004 Could not initialize control point for class Kor.X.\n");
    cu_rel_error_1(err);
    cu_rel_error_1(other);
}

TEST_F(LogHelpers, CurrentTimeHasMicrosecondResolution) {
    zn::FakeClock clock({1'800'000'000, 999'999'999});
    zn::setProcessClock(&clock);
    timespec now{};
    getCurrentTime(&now);
    zn::setProcessClock(nullptr);
    EXPECT_EQ(now.tv_sec, 1'800'000'000);
    EXPECT_EQ(now.tv_nsec, 999'999'000);
    for (int i = 0; i < 1000; ++i) {
        getCurrentTime(&now);
        ASSERT_LT(now.tv_nsec, 1'000'000'000);
        ASSERT_EQ(now.tv_nsec % 1000, 0);
    }
}

}  // namespace
