// The managed-node class under the class harness with a real service beside
// it: znpexd under the test root (the shipped access list), which the
// classes' own client sessions reach, and scripted managers of other
// classes on the same service.
#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "tests/orvrm/support/ScriptedHwCtrl.h"
#include "tests/support/Subprocess.h"

namespace classtest {

class NodeServiceTest : public NodeTest {
protected:
    void SetUp() override {
        std::string acl = root_ / "usr/sbin/tarn/cfg/znpex.acls";
        std::filesystem::create_directories(std::filesystem::path(acl).parent_path());
        std::ifstream shipped(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
        std::ofstream(acl) << shipped.rdbuf();
        startService();
        NodeTest::SetUp();
    }
    void TearDown() override { service_.reset(); }
    std::string socket() const { return root_.path() + zn::paths::kPexSocket; }
    void startService() {
        std::filesystem::remove(socket());
        service_ = std::make_unique<testsupport::Subprocess>(
            testsupport::binPath("znpex/server/znpexd"),
            std::vector<std::string>{"--state-root", root_.path(), "--no-tcp"},
            std::vector<std::string>{}, root_ / "znpexd.stderr");
        ASSERT_TRUE(testsupport::waitFor([&] { return std::filesystem::exists(socket()); }));
    }
    void stopService() {
        service_->signal(SIGTERM);
        ASSERT_NE(service_->wait(), -1);
    }

    std::unique_ptr<testsupport::Subprocess> service_;
};

}  // namespace classtest
