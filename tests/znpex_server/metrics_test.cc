// The service's metrics: the page follows service.status, is served over
// HTTP when an address is named (by the environment or, for znpexd, an
// option that wins over it) and not at all otherwise.
#include <arpa/inet.h>
#include <fcntl.h>  // Subprocess.h uses open flags
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>

#include "tests/support/Subprocess.h"
#include "tests/znpex_server/ServiceHarness.h"
#include "znpex/server/ServiceMetrics.h"

namespace znpextest {
namespace {

using testsupport::waitFor;

// GET `path` from 127.0.0.1:`port`: the whole answer ("" when nobody listens).
std::string httpGet(uint16_t port, const std::string& path) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string out;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        std::string req = "GET " + path + " HTTP/1.1\r\nHost: test\r\n\r\n";
        ::send(fd, req.data(), req.size(), MSG_NOSIGNAL);
        char buf[4096];
        for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;) {
            out.append(buf, static_cast<size_t>(n));
        }
    }
    ::close(fd);
    return out;
}

bool hasLine(const std::string& page, const std::string& line) {
    return page.find("\n" + line + "\n") != std::string::npos || page.rfind(line + "\n", 0) == 0;
}

TEST(ServiceMetricsPage, FollowsTheStatusAndLeavesOutWhatItLacks) {
    Json status = {{"connections", 4},
                   {"requests",
                    {{"forwarded", 10},
                     {"denied", 2},
                     {"timedOut", 0},
                     {"notConnected", 1},
                     {"malformed", 3}}},
                   {"events", {{"delivered", 77}, {"watches", 5}}},
                   {"heartbeat", {{"received", 120}, {"sent", 0}, {"silent", 1}}},
                   {"peers", {{"delivered", 9}, {"failed", 1}, {"changesSent", 6}}}};
    std::string page = znpex::server::renderServiceMetrics(status);
    for (const char* line : {
             "# TYPE znpex_requests_total counter",
             "znpex_requests_total{outcome=\"forwarded\"} 10",
             "znpex_requests_total{outcome=\"denied\"} 2",
             "znpex_requests_total{outcome=\"malformed\"} 3",
             "znpex_connections 4",
             "znpex_events_delivered_total 77",
             "znpex_event_watches 5",
             "znpex_heartbeats_received_total 120",
             "znpex_heartbeat_silent_hosts 1",
             "znpex_peer_messages_total{outcome=\"delivered\"} 9",
             "znpex_peer_messages_total{outcome=\"failed\"} 1",
             "znpex_table_changes_sent_total 6",
         }) {
        EXPECT_TRUE(hasLine(page, line)) << line << " in\n" << page;
    }
    for (const char* absent : {"znpex_peer_messages_total{outcome=\"unclaimed\"}",
                               "znpex_table_copies_sent_total", "znpex_uptime_seconds"}) {
        EXPECT_EQ(page.find(absent), std::string::npos) << absent;
    }
    EXPECT_EQ(znpex::server::renderServiceMetrics(Json::object()), "");
}

class ServiceMetricsTest : public ServiceTest {};

TEST_F(ServiceMetricsTest, TheRunningServiceServesItsCounters) {
    options_.metricsAddress = "127.0.0.1:0";
    startService();
    ASSERT_NE(service_->metricsPort(), 0);
    // A request it served shows.
    RpcMessage r = root()->call("service.status");
    ASSERT_EQ(r.kind, RpcMessage::Kind::Result);
    std::string page = httpGet(service_->metricsPort(), "/metrics");
    EXPECT_EQ(page.substr(0, 15), "HTTP/1.1 200 OK") << page;
    EXPECT_NE(page.find("\nznpex_requests_total{outcome=\"forwarded\"} "), std::string::npos)
        << page;
    EXPECT_NE(page.find("\nznpex_events_delivered_total 0\n"), std::string::npos) << page;
    EXPECT_EQ(httpGet(service_->metricsPort(), "/").substr(0, 22), "HTTP/1.1 404 Not Found");
}

TEST_F(ServiceMetricsTest, ABadAddressStopsTheStartWithTheReason) {
    options_.metricsAddress = "127.0.0.1:notaport";
    try {
        startService();
        ADD_FAILURE() << "started";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("metrics address 127.0.0.1:notaport"),
                  std::string::npos)
            << e.what();
    }
}

TEST(ZnpexdMetrics, TheEnvironmentOrTheOptionNamesTheAddressAndUnsetServesNothing) {
    struct Case {
        const char* what;
        std::vector<std::string> env;
        std::vector<std::string> args;
        const char* served;  // the address in the log; null: not served
    };
    for (const Case& c : {
             Case{"environment", {"ZNPEX_METRICS_ADDRESS=127.0.0.1:0"}, {}, "127.0.0.1:0"},
             Case{"option wins",
                  {"ZNPEX_METRICS_ADDRESS=127.0.0.9:1"},
                  {"--metrics-address", "127.0.0.1:0"},
                  "127.0.0.1:0"},
             Case{"unset", {}, {}, nullptr},
         }) {
        SCOPED_TRACE(c.what);
        testsupport::TempDir dir;
        std::string log = dir / "znpexd.stderr";
        std::vector<std::string> args = {"--state-root", dir.path(), "--address",
                                         "127.0.0.1",    "--port",   "0"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::vector<std::string> env = c.env;
        if (c.served == nullptr) {
            env.push_back("ZNPEX_METRICS_ADDRESS=");
        }
        testsupport::Subprocess proc(testsupport::binPath("znpex/server/znpexd"), args, env, log);
        ASSERT_TRUE(waitFor([&] {
            return testsupport::readFile(log).find("listening on tcp") != std::string::npos;
        })) << testsupport::readFile(log);
        std::string text = testsupport::readFile(log);
        std::smatch m;
        static const std::regex re("metrics on ([^ ]+) \\(port ([0-9]+)\\)");
        bool found = std::regex_search(text, m, re);
        if (c.served == nullptr) {
            EXPECT_FALSE(found) << text;
            continue;
        }
        ASSERT_TRUE(found) << text;
        EXPECT_EQ(m[1].str(), c.served);
        // Until the start ends the page says only that it is starting.
        auto port = static_cast<uint16_t>(std::stoi(m[2].str()));
        std::string page;
        EXPECT_TRUE(waitFor([&] {
            page = httpGet(port, "/metrics");
            return page.find("# TYPE znpex_requests_total counter") != std::string::npos;
        })) << page;
    }
}

}  // namespace
}  // namespace znpextest
