// Runs one of the project's programs as a child process with its own
// environment, standard error captured to a file, for tests of whole daemons.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace testsupport {

// The build tree's path of a program ("orvrm/orvrmd").
inline std::string binPath(const std::string& rel) {
    const char* dir = std::getenv("ORVRM_BIN_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/" + rel;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Polls `cond` every 10 ms for up to `limit`.
inline bool waitFor(const std::function<bool()>& cond,
                    std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class Subprocess {
public:
    // Starts `path` with `args`, the current environment plus `env`
    // ("NAME=value"), standard error to `stderrPath`.
    Subprocess(const std::string& path, const std::vector<std::string>& args,
               const std::vector<std::string>& env, const std::string& stderrPath) {
        std::vector<std::string> envs;
        for (char** e = environ; *e != nullptr; ++e) {
            envs.emplace_back(*e);
        }
        envs.insert(envs.end(), env.begin(), env.end());
        std::vector<char*> envp;
        for (auto& s : envs) {
            envp.push_back(s.data());
        }
        envp.push_back(nullptr);
        std::vector<std::string> argStore{path};
        argStore.insert(argStore.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& s : argStore) {
            argv.push_back(s.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
        if (posix_spawn(&pid_, path.c_str(), &fa, &attr, argv.data(), envp.data()) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&fa);
        posix_spawnattr_destroy(&attr);
    }
    ~Subprocess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }
    void signal(int sig) { ::kill(pid_, sig); }
    // Waits up to `limit` for the child; returns its wait status, or -1.
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        int status = 0;
        bool done = waitFor(
            [&] {
                pid_t r = waitpid(pid_, &status, WNOHANG);
                return r == pid_;
            },
            limit);
        if (!done) {
            return -1;
        }
        reaped_ = true;
        return status;
    }
    bool running() {
        int status = 0;
        return waitpid(pid_, &status, WNOHANG) == 0;
    }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

}  // namespace testsupport
