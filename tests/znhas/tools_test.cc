// The administrator tools, run as programs against a private state root.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <string>

#include "tests/znhas/znhas_fixture.h"

namespace {

struct ToolRun {
    int status = -1;
    std::string out;
};

class ToolsTest : public znhas_test::ZnhasTest {
protected:
    // Runs a tool with arguments (already shell-safe); stderr joins stdout.
    ToolRun run(const std::string& tool, const std::string& args) {
        const char* bin = getenv("ORVRM_BIN_DIR");
        std::string cmd =
            std::string(bin != nullptr ? bin : ".") + "/znhas/" + tool + " " + args + " 2>&1";
        ToolRun r;
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) {
            return r;
        }
        std::array<char, 4096> buf{};
        size_t n;
        while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) {
            r.out.append(buf.data(), n);
        }
        int st = pclose(p);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return r;
    }
};

TEST_F(ToolsTest, HelpOnEveryToolAndSubcommand) {
    for (const char* args :
         {"--help", "list --help", "add --help", "delete --help", "show --help", "init --help"}) {
        ToolRun r = run("znhas-thl", args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << args;
    }
    for (const char* args : {"--help", "generate --help", "show --help"}) {
        ToolRun r = run("znhas-keygen", args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << args;
    }
    EXPECT_NE(run("znhas-thl", "").status, 0) << "a subcommand is required";
    EXPECT_NE(run("znhas-keygen", "generate --type rsa2048").status, 0);
}

TEST_F(ToolsTest, KeysGeneratedAndListedThroughTheLibrary) {
    ASSERT_EQ(run("znhas-keygen", "generate --type rsa512").status, 0);
    ToolRun shown = run("znhas-keygen", "show -o json");
    ASSERT_EQ(shown.status, 0) << shown.out;
    auto pub = nlohmann::json::parse(shown.out);
    EXPECT_EQ(pub["type"], "rsa512");
    const std::string key = pub["key"];
    EXPECT_EQ(key.size(), 2 * (64 + 5U));

    EXPECT_EQ(run("znhas-thl", "list").status, ZNHAS_E_FILE) << "no list yet";
    ASSERT_EQ(run("znhas-thl", "init").status, 0);
    ASSERT_EQ(run("znhas-thl", "add -n Peer.One -t rsa512 -k " + key).status, 0);
    ASSERT_EQ(run("znhas-thl", "add -n other -t 300 -k 00ff").status, 0);
    ASSERT_EQ(run("znhas-thl", "delete -n OTHER").status, 0);

    ToolRun listed = run("znhas-thl", "list -o json");
    ASSERT_EQ(listed.status, 0) << listed.out;
    auto rows = nlohmann::json::parse(listed.out);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0]["host"], "Peer.One");
    EXPECT_EQ(rows[0]["key"], key);
    EXPECT_EQ(rows[0]["type"], "rsa512");
    EXPECT_EQ(rows[0]["active"], true);

    auto all = nlohmann::json::parse(run("znhas-thl", "list -a -o json").out);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1]["host"], "other");
    EXPECT_EQ(all[1]["type"], "?");
    EXPECT_EQ(all[1]["type_code"], 300);
    EXPECT_EQ(all[1]["active"], false);

    ToolRun text = run("znhas-thl", "show -n peer.one");
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "peer.one\trsa512\tactive\t" + key + "\n");

    ToolRun missing = run("znhas-thl", "show -n other");
    EXPECT_EQ(missing.status, ZNHAS_E_NOTFOUND);
    EXPECT_NE(missing.out.find("2650-949 libzn_has Failure: Cannot locate a host identifier token"),
              std::string::npos);
    ToolRun odd = run("znhas-thl", "add -n x -t rsa512 -k abc");
    EXPECT_EQ(odd.status, ZNHAS_E_ODDHEX);
    EXPECT_NE(odd.out.find("2650-951 "), std::string::npos);
}

}  // namespace
