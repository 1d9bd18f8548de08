// Peer-message rate between two hosts' services on one machine: two
// in-process services on 127.0.0.1 and 127.0.0.2 (one port, one state root
// whose key pair both prove and whose trusted host list names both), a manager "Bench.RM" on each;
// the first manager sends peer messages as fast as it can, and the figure is how many per second
// reach the second manager, for a fixed time.
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "bench/znpex/SharedHostKey.h"
#include "platform/paths.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/Service.h"

namespace {

using znpex::proto::Json;
namespace srv = znpex::server;

int connectLocal(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

// Registers "Bench.RM" with one class on the service at `path`.
int manager(const std::string& path, const char* cls) {
    int fd = connectLocal(path);
    Json defs = Json::array({Json{{"class", cls}}});
    Json reg =
        znpex::proto::makeRequest(1, "rm.register", Json{{"rm", "Bench.RM"}, {"classes", defs}});
    znpex::proto::writeFrame(fd, znpex::proto::dumpJson(reg), 5000);
    return fd;
}

srv::ServiceOptions optionsFor(const std::string& root, int n, uint16_t port) {
    srv::ServiceOptions o;
    o.socketPath = root + "/s" + std::to_string(n) + ".sock";
    o.diPath = root + "/tables" + std::to_string(n) + ".db";
    o.tcpAddress = "127.0.0." + std::to_string(n);
    o.tcpPort = port;
    o.peers = true;
    o.router.hostName = o.tcpAddress;
    o.router.nodeId = static_cast<uint64_t>(n);
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
    char tmpl[] = "/tmp/znpex-peer-bench-XXXXXX";
    std::string root = ::mkdtemp(tmpl);
    ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
    if (!benchsupport::shareOneHostKey({"127.0.0.1", "127.0.0.2"})) {
        return 1;
    }
    srv::Service a(optionsFor(root, 1, 0));
    a.start();
    srv::Service b(optionsFor(root, 2, a.tcpPort()));
    b.start();
    znpex::di::Transaction t;
    t.clearNodes = true;
    for (int n : {1, 2}) {
        std::string addr = "127.0.0." + std::to_string(n);
        t.nodes.push_back(znpex::di::NodeEntry{static_cast<uint64_t>(n), addr, {addr}, {addr}});
    }
    a.router().applyDi(t, nullptr);
    b.router().applyDi(t, nullptr);

    int sender = manager(a.socketPath(), "Bench.A");
    int receiver = manager(b.socketPath(), "Bench.B");
    std::string payload = znpex::proto::dumpJson(znpex::proto::makeNotification(
        "peer.send", Json{{"type", 1}, {"subtype", 2}, {"data", "AAAAAAAAAAA="}}));
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> sent{0};
    std::thread writer([&] {
        while (!stop) {
            znpex::proto::writeFrame(sender, payload, 5000);
            sent.fetch_add(1);
        }
    });
    znpex::proto::FdFrameReader reader(receiver);
    uint64_t got = 0;
    auto begin = std::chrono::steady_clock::now();
    auto end = begin + std::chrono::duration<double>(seconds);
    std::string msg;
    while (std::chrono::steady_clock::now() < end) {
        if (reader.next(msg, 100) != znpex::proto::IoStatus::Ok) {
            continue;
        }
        if (msg.find("peer.received") != std::string::npos) {
            ++got;
        }
    }
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    stop = true;
    writer.join();
    std::printf(
        "peer messages between two loopback services: %llu sent, %llu delivered in %.1f s = "
        "%.0f/s\n",
        static_cast<unsigned long long>(sent.load()), static_cast<unsigned long long>(got), took,
        static_cast<double>(got) / took);
    ::close(sender);
    ::close(receiver);
    a.stop();
    b.stop();
    std::filesystem::remove_all(root);
    return 0;
}
