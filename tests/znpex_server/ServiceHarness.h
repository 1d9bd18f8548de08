// Test helpers for the service: a blocking JSON-RPC client over the local
// socket or TCP, a scripted resource manager speaking the raw protocol, a
// client run as user "nobody" in a child process, and a fixture that runs
// the service in-process under a temporary state root.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/Service.h"

namespace znpextest {

using znpex::proto::Json;
using znpex::proto::RpcMessage;

inline constexpr char kClass[] = "Test.Widget";
inline constexpr char kRmName[] = "Test.RM";
// A handle in its wire form, for resource operations.
inline constexpr char kHandle[] = "00112233445566778899aabbccddeeff00112233";

int connectLocal(const std::string& path);
int connectTcp(uint16_t port, const char* address = "127.0.0.1");

class TestClient {
public:
    explicit TestClient(int fd);
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    static std::unique_ptr<TestClient> local(const std::string& path);
    static std::unique_ptr<TestClient> tcp(uint16_t port);

    // Sends a request and waits for the reply with its id; notifications
    // arriving meanwhile are kept. A Kind::Error message with code 0 and the
    // I/O status text stands for "no reply".
    RpcMessage call(const std::string& method, Json params = Json::object(), int timeoutMs = 5000);
    void send(const Json& message);
    void sendRaw(const std::string& bytes);
    // The next message of any kind (notifications first); false on timeout/close.
    bool next(RpcMessage* out, int timeoutMs = 5000);
    // True when the service closed the connection within the time.
    bool closedWithin(int timeoutMs);
    int fd() const { return fd_; }

private:
    int fd_;
    uint64_t nextId_ = 1;
    znpex::proto::FdFrameReader reader_;
    std::deque<RpcMessage> held_;
};

// A resource manager that registers `classes` and answers each "rm.*"
// request with a result that shows what it saw: {"values": [], "items": [],
// "handles": [], "actionData": [], "seen": {"method", "identity"}} — unless
// silent, then it never answers.
class FakeManager {
public:
    FakeManager(const std::string& socketPath, std::vector<std::string> classes,
                bool silent = false, const std::string& rmName = kRmName);
    // The same with class definitions as "rm.register" takes them (classDef()).
    FakeManager(const std::string& socketPath, const std::string& rmName, const Json& classDefs);
    ~FakeManager();
    // The registration's reply.
    const RpcMessage& registration() const { return registration_; }
    void notify(const std::string& method, const Json& params);
    // Closes the connection (the service sees the manager go).
    void disconnect();
    size_t requestsSeen() const { return seen_.load(); }

private:
    void serve();
    std::unique_ptr<TestClient> client_;
    RpcMessage registration_;
    bool silent_;
    std::atomic<size_t> seen_{0};
    std::atomic<bool> stop_{false};
    std::mutex writeMu_;
    std::thread thread_;
};

// A class definition for "rm.register": no attributes, the class actions
// given by name (ids in order from 0).
Json classDef(const std::string& name, const std::vector<std::string>& classActions = {});

// Runs one request as user "nobody" (uid 65534) in a child process and
// returns the reply's payload ("" when none came). Only root can do this.
std::string callAsNobody(const std::string& socketPath, const std::string& method,
                         const Json& params);
bool canSwitchUser();

// The shipped access list.
std::string shippedAcl();
void writeText(const std::string& path, const std::string& text);

class ServiceTest : public ::testing::Test {
protected:
    ServiceTest();
    ~ServiceTest() override;
    // Starts the service (call once, after adjusting options_).
    void startService();
    std::unique_ptr<TestClient> root() { return TestClient::local(socketPath()); }
    std::unique_ptr<TestClient> unauthenticated() { return TestClient::tcp(service_->tcpPort()); }
    std::string socketPath() const { return service_->socketPath(); }
    std::string aclPath() const;
    // Writes the access list and has root ask the service to re-read it.
    void replaceAcl(const std::string& text);

    testsupport::TempDir dir_;
    znpex::server::ServiceOptions options_;
    std::unique_ptr<znpex::server::Service> service_;
};

// The error object of a failure reply (null when there is none).
inline const Json& errorData(const RpcMessage& m) {
    return m.errorData;
}
inline int errorId(const RpcMessage& m) {
    return m.errorData.is_object() && m.errorData.contains("id") ? m.errorData["id"].get<int>() : 0;
}

}  // namespace znpextest
