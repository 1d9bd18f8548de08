// orvnode: the node agent. Asks the management server to manage this node
// and keeps it managed; see Agent.h. Runs in the foreground (the service
// manager's unit is etc/systemd/orvnode.service) and logs to standard error.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <iostream>

#include "orvnode/Agent.h"
#include "platform/paths.h"
#include "tarn_rmf2v/RMNodeId.h"

namespace {

orvnode::Agent* gAgent = nullptr;

void onSignal(int) {
    if (gAgent != nullptr) {
        gAgent->stop();  // an atomic store: safe here
    }
}

std::string systemHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof(name) - 1) == 0 ? name : "";
}

// The host part of "host[:port]" / "[v6]:port".
std::string hostOf(const std::string& contact) {
    if (!contact.empty() && contact[0] == '[') {
        size_t close = contact.find(']');
        return close == std::string::npos ? contact : contact.substr(1, close - 1);
    }
    size_t colon = contact.find(':');
    return colon != std::string::npos && contact.find(':', colon + 1) == std::string::npos
               ? contact.substr(0, colon)
               : contact;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "orvnode: ask the management server to manage this node, and keep it managed.\n"
        "Makes this host's key pair when there is none, sends a request signed with the "
        "frame's secret, checks the server's signed reply and trusts the server's key.",
        "orvnode"};
    std::string server;
    std::string serverName;
    std::string hostname;
    std::string mtms;
    std::string secretFile = zn::paths::resolve(zn::paths::kNodeAgentSecret);
    std::string secretHex;
    uint32_t protocol = orvnode::kDefaultProtocol;
    uint64_t nodeId = 0;
    std::vector<std::string> names;
    int timeoutMs = 10000;
    int firstPauseMs = 1000;
    int longestPauseMs = 300000;
    unsigned attempts = 0;
    int recheckS = 600;
    bool once = false;
    app.add_option("--server", server, "The management server's service: host[:port]")->required();
    app.add_option("--server-name", serverName,
                   "The name to trust the server's key under (default: the host of --server); "
                   "the name its service gives is trusted too");
    app.add_option("--hostname", hostname, "This node's host name (default: the system's)");
    app.add_option("--mtms", mtms, "The machine type-model-serial of this node's frame")
        ->required();
    app.add_option("--secret-file", secretFile, "File holding the frame's secret (hex)")
        ->capture_default_str();
    app.add_option("--secret", secretHex,
                   "The frame's secret (hex) itself; prefer --secret-file, as other users may "
                   "see a command line");
    app.add_option("--protocol", protocol, "Request protocol: 512, 513 or 514")
        ->check(CLI::IsMember({512, 513, 514}))
        ->capture_default_str();
    app.add_option("--node-id", nodeId, "This node's id (default: the node id file's)");
    app.add_option("--name", names, "A further name of this node; may repeat");
    app.add_option("--timeout", timeoutMs, "Milliseconds to wait for the server")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--retry-first", firstPauseMs, "First pause after a failed attempt, ms")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--retry-longest", longestPauseMs, "Longest pause between attempts, ms")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--attempts", attempts, "Attempts before giving up (0: never)")
        ->capture_default_str();
    app.add_option("--recheck", recheckS,
                   "Seconds between checks that the server still knows this node")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--once", once, "Exit once managed instead of checking on");
    CLI11_PARSE(app, argc, argv);

    auto log = [](const std::string& line) { std::cerr << "orvnode: " << line << std::endl; };
    orvnode::Secret secret;
    std::string why;
    bool ok = secretHex.empty() ? orvnode::Secret::fromFile(secretFile, &secret, &why)
                                : orvnode::Secret::fromHex(secretHex, &secret, &why);
    orvnode::wipeString(secretHex);
    if (!ok) {
        log(why);
        return 2;
    }
    orvnode::AgentOptions o;
    o.request.protocol = protocol;
    o.request.hostname = hostname.empty() ? systemHostName() : hostname;
    o.request.nodeId = nodeId != 0 ? nodeId : tarn_rmf2v::loadOrCreateNodeId(&why);
    if (o.request.nodeId == 0) {
        log("no node id: " + why);
        return 2;
    }
    o.request.mtms = mtms;
    o.request.furtherNames = names;
    o.serverName = serverName.empty() ? hostOf(server) : serverName;
    o.firstPause = std::chrono::milliseconds(firstPauseMs);
    o.longestPause = std::chrono::milliseconds(longestPauseMs);
    o.maxAttempts = attempts;
    o.recheck = std::chrono::seconds(recheckS);

    auto link = orvnode::makeServerLink(server, o.request.hostname, timeoutMs);
    orvnode::Agent agent(std::move(o), std::move(secret), *link, zn::systemClock(), log);
    gAgent = &agent;
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    orvnode::AgentResult r = once ? agent.enroll() : agent.run();
    gAgent = nullptr;
    if (r == orvnode::AgentResult::Managed || r == orvnode::AgentResult::Stopped) {
        return 0;
    }
    log(std::string("stopped: ") + orvnode::agentResultText(r));
    return 1;
}
