// znpexd and orvrmd as children of a benchmark, under a state root of their
// own holding the shipped access list: started together, ready once the
// named class's manager is connected, stopped and their root removed at the end.
// The including target defines ZNPEXD_PATH, ORVRMD_PATH and ORVRM_SOURCE_DIR.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/znpex/SpawnService.h"
#include "platform/paths.h"
#include "znpex/client/px_client.h"

namespace benchsupport {

class BenchDaemons {
public:
    // Waits up to about 20 s for `readyClass` to be served; connected() says
    // whether it came.
    BenchDaemons(const std::string& root, std::string readyClass)
        : root_(root), readyClass_(std::move(readyClass)) {
        ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
        std::string acl = zn::paths::resolve(zn::paths::kAclDefaultFile);
        std::filesystem::create_directories(std::filesystem::path(acl).parent_path());
        std::ifstream shipped(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
        std::ofstream(acl) << shipped.rdbuf();
        service_ =
            spawnService(ZNPEXD_PATH, {"--state-root", root, "--no-tcp"}, root + "/znpexd.log");
        for (int i = 0; i < 400 && !std::filesystem::exists(root + zn::paths::kPexSocket); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        daemon_ = spawnService(ORVRMD_PATH, {}, root + "/orvrmd.log");
        for (int i = 0; i < 800 && !connected(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    ~BenchDaemons() {
        for (pid_t p : {daemon_, service_}) {
            if (p > 0) {
                ::kill(p, SIGTERM);
                ::waitpid(p, nullptr, 0);
            }
        }
        std::filesystem::remove_all(root_);
    }
    BenchDaemons(const BenchDaemons&) = delete;
    BenchDaemons& operator=(const BenchDaemons&) = delete;

    pid_t daemon() const { return daemon_; }
    bool connected() const {
        px_session_t s = nullptr;
        if (px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &s) != PX_OK) {
            return false;
        }
        px_class_list_t* list = nullptr;
        bool up = false;
        if (px_list_classes(s, &list) == PX_OK) {
            for (uint32_t i = 0; i < list->class_count; ++i) {
                up = up || (readyClass_ == list->classes[i].name && list->classes[i].connected);
            }
        }
        px_free_response(list);
        px_end_session(s);
        return up;
    }

private:
    std::string root_;
    std::string readyClass_;
    pid_t service_ = -1;
    pid_t daemon_ = -1;
};

}  // namespace benchsupport
