// Sessions: the supported options, local and TCP contacts with their
// handshakes, contact lists tried in order, the identity the service gives,
// and clean failures when nothing answers.
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>  // Subprocess.h uses the open flags

#include "tests/support/Subprocess.h"
#include "tests/znpex_client/ClientFixture.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/client/Contact.h"
#include "znpex/proto/ServiceMessages.h"

using namespace testsupport;
namespace client = znpex::client;

namespace {

TEST_F(ClientTest, LocalOptionsOpenASessionWithTheServiceIdentity) {
    for (px_session_opts_t opts : {0x401u, 1u}) {
        px_session_t s = nullptr;
        ASSERT_EQ(px_start_session(nullptr, 0, opts, &s), PX_OK);
        EXPECT_STREQ(px_session_identity(s), "root@LOCALHOST");
        EXPECT_EQ(px_end_session(s), PX_OK);
    }
    auto starts = requestsOf("session.start");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[0].params["options"], 0x401);
    EXPECT_EQ(starts[1].params["options"], 1);
    EXPECT_EQ(requestsOf("session.end").size(), 2u);
    EXPECT_TRUE(requestsOf("auth.hello").empty());  // local sessions need no hello
}

TEST_F(ClientTest, OtherOptionsAreNotSupported) {
    for (px_session_opts_t opts : {0u, 0x400u, 0x405u, 2u, 5u}) {
        px_session_t s = reinterpret_cast<px_session_t>(0x1);
        EXPECT_EQ(px_start_session(nullptr, 0, opts, &s), PX_ENOTSUPPORTED) << opts;
        EXPECT_EQ(s, nullptr);
        zn::ErrorPtr e = threadError();
        EXPECT_EQ(e->cu_error_id, client::PXC_ENOTSUPPORTED);
        EXPECT_EQ(e->cu_msg_cat, "znpex_client.cat");
        EXPECT_NE(cu_error_text(e.get()).find("not supported"), std::string::npos);
    }
    EXPECT_EQ(service->connectionsAccepted(), 0u);
}

TEST_F(ClientTest, LocalhostContactMeansTheLocalSocket) {
    px_contact_t c{"LocalHost"};
    ASSERT_EQ(px_start_session(&c, 1, 1, &session), PX_OK);
    EXPECT_EQ(service->connectionsAccepted(), 1u);
}

TEST(ClientSession, NoServiceGivesAConnectErrorNamingTheSocket) {
    TempDir root(true);
    px_session_t s = nullptr;
    EXPECT_EQ(px_start_session(nullptr, 0, 0x401, &s), PX_ECONNECT);
    EXPECT_EQ(s, nullptr);
    zn::ErrorPtr e = threadError();
    EXPECT_EQ(e->cu_error_id, client::PXC_ECONNECT);
    std::string text = cu_error_text(e.get());
    EXPECT_NE(text.find(root.path() + "/var/zn/soc/znpex.sock"), std::string::npos) << text;
    EXPECT_NE(text.find("2661-001"), std::string::npos) << text;
}

TEST(ClientSession, BadArgumentsAreRefused) {
    TempDir root(true);
    px_session_t s = nullptr;
    EXPECT_EQ(px_start_session(nullptr, 0, 1, nullptr), PX_EINVAL);
    EXPECT_EQ(px_start_session(nullptr, 2, 1, &s), PX_EINVAL);
    for (const char* bad : {"", ":657", "host:", "host:0", "host:65536", "host:12x", "[::1",
                            "[::1]x", "fe80::1:657"}) {
        px_contact_t c{bad};
        EXPECT_EQ(px_start_session(&c, 1, 1, &s), PX_EINVAL) << bad;
        EXPECT_EQ(threadError()->cu_error_id, client::PXC_EINVAL) << bad;
    }
    EXPECT_EQ(px_end_session(nullptr), PX_EINVAL);
    EXPECT_EQ(px_set_timeouts(nullptr, 5), PX_EINVAL);
    px_free_response(nullptr);
}

TEST(ClientContact, ParsesHostsPortsAndBrackets) {
    struct Case {
        const char* text;
        bool local;
        const char* host;
        int port;
    };
    const Case cases[] = {
        {nullptr, true, "", 0},
        {"localhost", true, "", 0},
        {"localhost:700", false, "localhost", 700},
        {"127.0.0.2", false, "127.0.0.2", PX_DEFAULT_PORT},
        {"127.0.0.2:1", false, "127.0.0.2", 1},
        {"node1.example:65535", false, "node1.example", 65535},
        {"[::1]", false, "::1", PX_DEFAULT_PORT},
        {"[::1]:800", false, "::1", 800},
    };
    for (const auto& c : cases) {
        client::Contact out;
        std::string why;
        ASSERT_TRUE(client::parseContact(c.text, out, &why)) << (c.text ? c.text : "null") << why;
        EXPECT_EQ(out.local, c.local);
        EXPECT_EQ(out.host, c.host);
        if (!c.local) {
            EXPECT_EQ(out.port, c.port);
        }
    }
    client::Contact v6;
    std::string why;
    ASSERT_TRUE(client::parseContact("[::1]:800", v6, &why));
    EXPECT_EQ(v6.text(), "[::1]:800");
    // The environment may name the port of every host that gives none.
    struct Env {
        const char* value;
        int port;
    };
    for (const Env& e :
         {Env{"7001", 7001}, Env{"0", PX_DEFAULT_PORT}, Env{"70000", PX_DEFAULT_PORT},
          Env{"12ab", PX_DEFAULT_PORT}, Env{"", PX_DEFAULT_PORT}}) {
        setenv("ZNPEX_PORT", e.value, 1);
        client::Contact c;
        ASSERT_TRUE(client::parseContact("127.0.0.2", c, &why));
        EXPECT_EQ(c.port, e.port) << e.value;
        ASSERT_TRUE(client::parseContact("127.0.0.2:9", c, &why));
        EXPECT_EQ(c.port, 9) << "a port given wins";
    }
    unsetenv("ZNPEX_PORT");
}

class TcpClientTest : public ClientTest {
protected:
    bool useTcp() const override { return true; }
};

TEST_F(TcpClientTest, TcpSessionsSayHelloFirstAndGetTheirIdentity) {
    service->setIdentity("UNAUTHENT");
    std::string host = "127.0.0.1:" + std::to_string(service->tcpPort());
    px_contact_t c{host.c_str()};
    ASSERT_EQ(px_start_session(&c, 1, 0x401, &session), PX_OK);
    EXPECT_STREQ(px_session_identity(session), "UNAUTHENT");
    auto methods = service->methods();
    ASSERT_GE(methods.size(), 2u);
    EXPECT_EQ(methods[0], "auth.hello");
    EXPECT_EQ(methods[1], "session.start");
}

// A loopback port with nothing listening: bound, then closed.
int deadPort() {
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

TEST_F(TcpClientTest, ContactsAreTriedInOrderUntilOneAnswers) {
    std::string dead = "127.0.0.1:" + std::to_string(deadPort());
    std::string live = "127.0.0.1:" + std::to_string(service->tcpPort());
    px_contact_t list[] = {{dead.c_str()}, {live.c_str()}};
    ASSERT_EQ(px_start_session(list, 2, 1, &session), PX_OK);
    px_contact_t onlyDead[] = {{dead.c_str()}};
    px_session_t s = nullptr;
    EXPECT_EQ(px_start_session(onlyDead, 1, 1, &s), PX_ECONNECT);
    EXPECT_NE(threadErrorText().find(dead), std::string::npos);
}

TEST_F(ClientTest, ARefusedSessionStartFailsTheStart) {
    service->on("session.start", [](const znpex::proto::RpcMessage& m) {
        FakeService::Answer a;
        a.reply = FakeService::error(m, znpex::proto::kPermissionDenied, "go away",
                                     errorObject(0x30001, "2660-001 %1$s may not", "someone"));
        return a;
    });
    px_session_t s = nullptr;
    EXPECT_EQ(px_start_session(nullptr, 0, 1, &s), PX_EACCESS);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(threadError()->cu_error_id, 0x30001);
    EXPECT_EQ(threadErrorText(), "2660-001 someone may not");
}

TEST_F(ClientTest, ASilentServiceFailsTheStartWithinTheConnectTime) {
    service->on("session.start", [](const znpex::proto::RpcMessage&) {
        return FakeService::Answer{};  // never answers
    });
    px_set_default_timeouts(200, 0);
    px_session_t s = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(px_start_session(nullptr, 0, 1, &s), PX_ETIMEDOUT);
    px_set_default_timeouts(5000, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(threadError()->cu_error_id, client::PXC_ETIMEDOUT);
}

size_t openDescriptors() {
    size_t n = 0;
    DIR* d = ::opendir("/proc/self/fd");
    while (::readdir(d) != nullptr) {
        ++n;
    }
    ::closedir(d);
    return n;
}

TEST_F(ClientTest, SessionsLeaveNoDescriptorsBehind) {
    size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        px_session_t s = nullptr;
        ASSERT_EQ(px_start_session(nullptr, 0, 1, &s), PX_OK);
        ASSERT_EQ(px_end_session(s), PX_OK);
        std::string dead = "127.0.0.1:" + std::to_string(deadPort());
        px_contact_t bad{dead.c_str()};
        EXPECT_EQ(px_start_session(&bad, 1, 1, &s), PX_ECONNECT);
    }
    // The fake service lives in this process too and closes its ends as it notices.
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }, std::chrono::seconds(5)))
        << openDescriptors() << " open, " << before << " before";
}

}  // namespace
