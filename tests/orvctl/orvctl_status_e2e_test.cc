// orvctl status and orvctl watch against the running service and daemon:
// minimally managed nodes polled every second by a scripted fping under the
// test root; one stops answering and comes back, and watch prints each
// change as it happens (as text and as JSON lines).
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>

#include "platform/paths.h"
#include "tests/orvctl/OrvctlRun.h"
#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::Daemons;
using nlohmann::json;
using orvctltest::orvctl;
using orvctltest::Outcome;
using testsupport::waitFor;

class OrvctlStatus : public Daemons {
protected:
    // The scripted fping reports these hosts unreachable (replaced whole,
    // so a poll never reads half a script).
    void unreachable(const std::string& hosts) {
        std::string path = zn::paths::resolve(zn::paths::kFping);
        std::string tmp = path + ".new";
        std::ofstream(tmp) << "#!/bin/sh\nprintf '" << hosts << "'\nexit "
                           << (hosts.empty() ? 0 : 1) << "\n";
        ::chmod(tmp.c_str(), 0755);
        std::filesystem::rename(tmp, path);
    }
    std::string statusText() { return orvctl({"status"}).out; }
};

TEST_F(OrvctlStatus, StatusCountsTheNodesAndWatchPrintsEachChange) {
    reachableNodesPolledEverySecond();
    for (const char* n : {"m1", "m2", "m3"}) {
        ASSERT_EQ(orvctl({"node", "add", n, "Mode=MinManaged"}).status, 0);
    }
    ASSERT_EQ(orvctl({"node", "add", "p1"}).status, 0);  // PreManaged: never heard of
    ASSERT_TRUE(waitFor([&] { return statusText().find("Status: up 3,") != std::string::npos; }))
        << statusText();
    EXPECT_EQ(statusText(),
              "Nodes: 4\n"
              "Status: up 3, down 0, unknown 1\n"
              "Power: on 0, off 0, unknown 4\n"
              "Mode: MinManaged 3, PreManaged 1\n"
              "Status unknown: p1\n");

    auto text = std::async(std::launch::async, [] {
        return orvctl({"watch", "Mode==\"MinManaged\"", "--count", "2", "--duration", "30"});
    });
    auto lines = std::async(std::launch::async, [] {
        return orvctl({"-o", "json", "watch", "--count", "2", "--duration", "30"});
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // both watching
    unreachable("m2\\n");
    ASSERT_TRUE(
        waitFor([&] { return statusText().find("Not reachable: m2\n") != std::string::npos; }));
    Outcome st = orvctl({"-o", "json", "status"});
    ASSERT_EQ(st.status, 0) << st.err;
    json sj = json::parse(st.out);
    EXPECT_EQ(sj["status"]["down"], 1);
    EXPECT_EQ(sj["unreachable"], json::array({"m2"}));
    unreachable("");

    Outcome t = text.get();
    ASSERT_EQ(t.status, 0) << t.err;
    std::istringstream in(t.out);
    std::vector<std::string> got;
    for (std::string line; std::getline(in, line);) {
        got.push_back(line.substr(line.find(' ') + 1));  // without the time
    }
    EXPECT_EQ(got, (std::vector<std::string>{"m2 Status up -> down", "m2 Status down -> up"}));
    Outcome j = lines.get();
    ASSERT_EQ(j.status, 0) << j.err;
    std::istringstream jin(j.out);
    std::vector<json> events;
    for (std::string line; std::getline(jin, line);) {
        events.push_back(json::parse(line));
    }
    ASSERT_EQ(events.size(), 2u) << j.out;
    EXPECT_EQ(events[0]["node"], "m2");
    EXPECT_EQ(events[0]["attribute"], "Status");
    EXPECT_EQ(events[0]["old"], 1);
    EXPECT_EQ(events[0]["new"], 0);
    EXPECT_EQ(events[1]["new"], 1);
}

TEST_F(OrvctlStatus, WatchEndsAfterItsDurationAndRefusesABadSelection) {
    Outcome quiet = orvctl({"watch", "--duration", "1"});
    EXPECT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.out, "");
    Outcome bad = orvctl({"watch", "Hostname=="});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err, "");
}

}  // namespace
