// Starts a znpexd for a benchmark: `path` with `args`, standard error to
// `log`. Returns its pid, or -1 when it could not be started.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace benchsupport {

inline pid_t spawnService(const char* path, std::vector<std::string> args, const std::string& log) {
    args.insert(args.begin(), path);
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, path, &fa, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

}  // namespace benchsupport
