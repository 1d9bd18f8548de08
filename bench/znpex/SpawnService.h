// Starting a znpexd for a benchmark: a free loopback port for it, and the
// service itself (`path` with `args`, standard error to `log`).
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace benchsupport {

// A TCP port on 127.0.0.1 that nobody listens on right now.
inline int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof in;
    ::bind(fd, reinterpret_cast<sockaddr*>(&in), sizeof in);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&in), &len);
    ::close(fd);
    return ntohs(in.sin_port);
}

// Returns the service's pid, or -1 when it could not be started.
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
