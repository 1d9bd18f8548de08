#include "tests/znpex_server/ServiceHarness.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/paths.h"

namespace znpextest {

namespace proto = znpex::proto;

int connectLocal(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int connectTcp(uint16_t port, const char* address) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    ::inet_pton(AF_INET, address, &addr.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

TestClient::TestClient(int fd) : fd_(fd), reader_(fd) {}

TestClient::~TestClient() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

std::unique_ptr<TestClient> TestClient::local(const std::string& path) {
    int fd = connectLocal(path);
    EXPECT_GE(fd, 0) << "cannot connect to " << path;
    return std::make_unique<TestClient>(fd);
}

std::unique_ptr<TestClient> TestClient::tcp(uint16_t port) {
    int fd = connectTcp(port);
    EXPECT_GE(fd, 0) << "cannot connect to port " << port;
    return std::make_unique<TestClient>(fd);
}

void TestClient::send(const Json& message) {
    EXPECT_EQ(proto::writeFrame(fd_, proto::dumpJson(message), 5000), proto::IoStatus::Ok);
}

void TestClient::sendRaw(const std::string& bytes) {
    EXPECT_EQ(proto::writeAll(fd_, bytes.data(), bytes.size(), 5000), proto::IoStatus::Ok);
}

bool TestClient::next(RpcMessage* out, int timeoutMs) {
    if (!held_.empty()) {
        *out = std::move(held_.front());
        held_.pop_front();
        return true;
    }
    std::string payload;
    if (reader_.next(payload, timeoutMs) != proto::IoStatus::Ok) {
        return false;
    }
    *out = proto::parseMessage(payload);
    return true;
}

RpcMessage TestClient::call(const std::string& method, Json params, int timeoutMs) {
    Json id = nextId_++;
    send(proto::makeRequest(id, method, std::move(params)));
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        end - std::chrono::steady_clock::now())
                                        .count());
        std::string payload;
        proto::IoStatus st = reader_.next(payload, std::max(left, 0));
        if (st != proto::IoStatus::Ok) {
            RpcMessage none;
            none.kind = RpcMessage::Kind::Error;
            none.errorMessage = proto::ioStatusText(st);
            return none;
        }
        RpcMessage m = proto::parseMessage(payload);
        if ((m.kind == RpcMessage::Kind::Result || m.kind == RpcMessage::Kind::Error) &&
            m.id == id) {
            return m;
        }
        held_.push_back(std::move(m));
    }
}

bool TestClient::closedWithin(int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) {
            continue;
        }
        ssize_t n = ::read(fd_, buf, sizeof(buf));
        if (n <= 0) {
            return true;
        }
    }
    return false;
}

Json classDef(const std::string& name, const std::vector<std::string>& classActions) {
    Json actions = Json::array();
    for (size_t i = 0; i < classActions.size(); ++i) {
        actions.push_back(
            Json{{"name", classActions[i]}, {"id", static_cast<int>(i)}, {"input", Json::array()}});
    }
    return Json{{"class", name},
                {"classPersistent", Json::array()},
                {"classDynamic", Json::array()},
                {"persistent", Json::array()},
                {"dynamic", Json::array()},
                {"classActions", actions},
                {"actions", Json::array()}};
}

FakeManager::FakeManager(const std::string& socketPath, std::vector<std::string> classes,
                         bool silent, const std::string& rmName)
    : client_(TestClient::local(socketPath)), silent_(silent) {
    Json defs = Json::array();
    for (const auto& c : classes) {
        defs.push_back(classDef(c));
    }
    registration_ = client_->call("rm.register", Json{{"rm", rmName}, {"classes", defs}});
    thread_ = std::thread([this] { serve(); });
}

FakeManager::FakeManager(const std::string& socketPath, const std::string& rmName,
                         const Json& classDefs)
    : client_(TestClient::local(socketPath)), silent_(false) {
    registration_ = client_->call("rm.register", Json{{"rm", rmName}, {"classes", classDefs}});
    thread_ = std::thread([this] { serve(); });
}

FakeManager::~FakeManager() {
    stop_ = true;
    thread_.join();
}

void FakeManager::serve() {
    while (!stop_) {
        RpcMessage m;
        if (!client_->next(&m, 50)) {
            continue;
        }
        if (m.kind != RpcMessage::Kind::Request) {
            continue;
        }
        ++seen_;
        if (silent_) {
            continue;
        }
        Json identity = m.params.is_object() && m.params.contains("identity") ? m.params["identity"]
                                                                              : Json(nullptr);
        Json result = {{"values", Json::array()},
                       {"items", Json::array()},
                       {"handles", Json::array()},
                       {"actionData", Json::array()},
                       {"seen", {{"method", m.method}, {"identity", identity}}}};
        std::lock_guard<std::mutex> g(writeMu_);
        client_->send(proto::makeResult(m.id, std::move(result)));
    }
}

void FakeManager::notify(const std::string& method, const Json& params) {
    std::lock_guard<std::mutex> g(writeMu_);
    client_->send(proto::makeNotification(method, params));
}

void FakeManager::disconnect() {
    std::lock_guard<std::mutex> g(writeMu_);
    ::shutdown(client_->fd(), SHUT_RDWR);
}

bool canSwitchUser() {
    return ::geteuid() == 0;
}

std::string callAsNobody(const std::string& socketPath, const std::string& method,
                         const Json& params) {
    // Everything the child needs is prepared here: after fork it only makes
    // system calls.
    std::string frame;
    std::string payload = proto::dumpJson(proto::makeRequest(1, method, params));
    proto::appendFrameHeader(frame, payload.size());
    frame += payload;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof(addr.sun_path) - 1);
    std::vector<char> reply(1 << 20);
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        return {};
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(pipeFds[0]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(2);
        }
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            ::_exit(3);
        }
        if (::write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) {
            ::_exit(4);
        }
        size_t have = 0;
        size_t want = 4;
        while (have < want && have < reply.size()) {
            ssize_t n = ::read(fd, reply.data() + have, reply.size() - have);
            if (n <= 0) {
                break;
            }
            have += static_cast<size_t>(n);
            if (have >= 4) {
                auto* h = reinterpret_cast<unsigned char*>(reply.data());
                want = 4 + ((size_t{h[0]} << 24) | (size_t{h[1]} << 16) | (size_t{h[2]} << 8) |
                            size_t{h[3]});
            }
        }
        if (have > 4 && ::write(pipeFds[1], reply.data() + 4, have - 4) < 0) {
            ::_exit(5);
        }
        ::_exit(0);
    }
    ::close(pipeFds[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buf, sizeof(buf))) > 0) {
        out.append(buf, static_cast<size_t>(n));
    }
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return out;
}

std::string shippedAcl() {
    std::ifstream in(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeText(const std::string& path, const std::string& text) {
    zn::paths::ensureParentDir(path);
    std::ofstream(path, std::ios::trunc) << text;
}

ServiceTest::ServiceTest() : dir_(true) {
    // Other users (the "nobody" client) must reach the socket inside.
    ::chmod(dir_.path().c_str(), 0755);
    options_.tcpAddress = "127.0.0.1";
    options_.tcpPort = 0;
    options_.threads = 2;
    options_.router.requestTimeout = std::chrono::seconds(5);
    // Only the platform default exists; the service makes its own copy.
    writeText(zn::paths::resolve(zn::paths::kAclDefaultFile), shippedAcl());
}

ServiceTest::~ServiceTest() {
    if (service_) {
        service_->stop();
    }
}

void ServiceTest::startService() {
    service_ = std::make_unique<znpex::server::Service>(options_);
    service_->start();
}

std::string ServiceTest::aclPath() const {
    return zn::paths::resolve(zn::paths::kAclFile);
}

void ServiceTest::replaceAcl(const std::string& text) {
    writeText(aclPath(), text);
    auto r = root()->call("service.refreshAcl");
    ASSERT_EQ(r.kind, RpcMessage::Kind::Result) << r.errorMessage;
}

}  // namespace znpextest
