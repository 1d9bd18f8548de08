// The metrics responder: "GET /metrics" gets the page, every other request
// a clear status, and a caller that sends too much or too slowly is cut off
// without holding the responder.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "platform/metrics/MetricsServer.h"

namespace {

using zn::metrics::Answer;
using zn::metrics::judgeRequest;
using zn::metrics::MetricsServer;
using zn::metrics::ServerOptions;

int connectTo(uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Sends `request` and reads the answer until the responder closes.
std::string exchange(uint16_t port, const std::string& request) {
    int fd = connectTo(port);
    if (fd < 0) {
        return "";
    }
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;) {
        out.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return out;
}

std::string statusLine(const std::string& response) {
    return response.substr(0, response.find("\r\n"));
}

TEST(MetricsRequest, OnlyGetOfTheMetricsPathIsAnswered) {
    struct Case {
        const char* head;
        int status;
        bool metrics;
    };
    for (const Case& c : {
             Case{"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", 200, true},
             Case{"GET /metrics?x=1 HTTP/1.0\r\n\r\n", 200, true},
             Case{"HEAD /metrics HTTP/1.1\r\n\r\n", 200, true},
             Case{"GET / HTTP/1.1\r\n\r\n", 404, false},
             Case{"GET /metricsx HTTP/1.1\r\n\r\n", 404, false},
             Case{"POST /metrics HTTP/1.1\r\n\r\n", 405, false},
             Case{"DELETE /metrics HTTP/1.1\r\n\r\n", 405, false},
             Case{"GET /metrics HTTP/2\r\n\r\n", 400, false},
             Case{"GET /metrics\r\n\r\n", 400, false},
             Case{"GET  /metrics HTTP/1.1\r\n\r\n", 400, false},
             Case{"\r\n\r\n", 400, false},
         }) {
        Answer a = judgeRequest(c.head);
        EXPECT_EQ(a.status, c.status) << c.head;
        EXPECT_EQ(a.metrics, c.metrics) << c.head;
    }
}

TEST(MetricsServer, ServesThePageAndRefusesEverythingElseClearly) {
    std::atomic<int> renders{0};
    MetricsServer s("127.0.0.1:0", [&] {
        renders.fetch_add(1);
        return std::string("up 1\n");
    });
    ASSERT_NE(s.port(), 0);
    std::string r = exchange(s.port(), "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(statusLine(r), "HTTP/1.1 200 OK");
    EXPECT_NE(r.find("Content-Type: text/plain; version=0.0.4"), std::string::npos) << r;
    EXPECT_NE(r.find("Content-Length: 5\r\n"), std::string::npos) << r;
    EXPECT_EQ(r.substr(r.size() - 5), "up 1\n");

    r = exchange(s.port(), "HEAD /metrics HTTP/1.1\r\n\r\n");
    EXPECT_EQ(statusLine(r), "HTTP/1.1 200 OK");
    EXPECT_EQ(r.substr(r.size() - 4), "\r\n\r\n") << "headers only";

    r = exchange(s.port(), "PUT /metrics HTTP/1.1\r\n\r\n");
    EXPECT_EQ(statusLine(r), "HTTP/1.1 405 Method Not Allowed");
    EXPECT_NE(r.find("Allow: GET, HEAD\r\n"), std::string::npos);
    EXPECT_EQ(statusLine(exchange(s.port(), "GET /other HTTP/1.1\r\n\r\n")),
              "HTTP/1.1 404 Not Found");
    EXPECT_EQ(statusLine(exchange(s.port(), "nonsense\r\n\r\n")), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(renders.load(), 2) << "only the metrics requests render the page";
    EXPECT_EQ(s.served(), 2u);
    EXPECT_EQ(s.refused(), 3u);
}

TEST(MetricsServer, AnEndlessOrSlowRequestIsCutOffAndTheNextCallerIsServed) {
    ServerOptions o;
    o.maxRequestHead = 512;
    o.ioTimeout = std::chrono::milliseconds(300);
    MetricsServer s(
        "127.0.0.1:0", [] { return std::string("ok 1\n"); }, o);

    // A head that never ends: refused once past the bound, not read on.
    std::string big = "GET /metrics HTTP/1.1\r\nX: " + std::string(4096, 'a');
    EXPECT_EQ(statusLine(exchange(s.port(), big)), "HTTP/1.1 431 Request Header Fields Too Large");

    // A head that stops halfway: answered at the deadline.
    EXPECT_EQ(statusLine(exchange(s.port(), "GET /metr")), "HTTP/1.1 408 Request Timeout");

    // A caller that connects and says nothing does not keep others out for long.
    int idle = connectTo(s.port());
    ASSERT_GE(idle, 0);
    EXPECT_EQ(statusLine(exchange(s.port(), "GET /metrics HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
    ::close(idle);
}

TEST(MetricsServer, ABadAddressSaysWhy) {
    struct Case {
        const char* address;
        const char* why;
    };
    for (const Case& c :
         {Case{"127.0.0.1", "expected host:port"}, Case{"127.0.0.1:", "expected host:port"},
          Case{"127.0.0.1:http", "the port is not a number"},
          Case{"127.0.0.1:70000", "the port is out of range"},
          Case{"not-an-address:0", "metrics address not-an-address:0: "}}) {
        try {
            MetricsServer s(c.address, [] { return std::string(); });
            ADD_FAILURE() << c.address << " was taken";
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(c.why), std::string::npos)
                << c.address << ": " << e.what();
        }
    }
}

}  // namespace
