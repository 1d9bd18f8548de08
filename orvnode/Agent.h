// The node agent's work: ask the management server to manage this node
// with a signed request, check the reply, trust the server's key, and from
// then on ask now and then whether the server still knows the node, asking
// to be managed again when it does not. An unreachable server is tried
// again after a pause that grows (Backoff); a refused request or a reply
// that does not check out ends the work with the reason. Time comes from
// the given clock, so tests run the pauses on a fake one. Not thread-safe,
// except stop(), which may be called from any thread (a signal handler's
// thread included).
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "orvnode/Backoff.h"
#include "orvnode/Request.h"
#include "orvnode/Secret.h"
#include "orvnode/ServerLink.h"
#include "platform/clock.h"

namespace orvnode {

struct AgentOptions {
    RequestSpec request;     // the token is filled in from this host's key
    std::string serverName;  // the name the server's key is trusted under
    std::chrono::milliseconds firstPause{std::chrono::seconds(1)};
    std::chrono::milliseconds longestPause{std::chrono::minutes(5)};
    // Attempts at reaching the server before giving up (0: never give up).
    unsigned maxAttempts = 0;
    // How often a managed node asks whether the server still knows it.
    std::chrono::milliseconds recheck{std::chrono::minutes(10)};
};

enum class AgentResult {
    Managed,      // the server took the request; its key is trusted
    Refused,      // the server refused the request (message logged)
    BadReply,     // the reply did not check out: stop, it cannot be trusted
    Unreachable,  // gave up after maxAttempts
    Failed,       // this host could not do its part (key, list, request)
    Stopped,      // stop() was called
};
const char* agentResultText(AgentResult r);

class Agent {
public:
    using Log = std::function<void(const std::string& line)>;

    Agent(AgentOptions options, Secret secret, ServerLink& server, zn::Clock& clock, Log log);

    // Asks until the server answers: Managed, or why not.
    AgentResult enroll();
    // enroll(), then a recheck every options.recheck, enrolling again when
    // the server has forgotten the node, until stop() or a result other than
    // Managed. Returns that result.
    AgentResult run();
    void stop() { stop_ = true; }

    // What the server answered last (set by a successful enroll()).
    const ServerReply& server() const { return server_; }

private:
    AgentResult enrollOnce(bool* retry);
    // Waits `d` on the clock in short steps, so that stop() is seen; false when stopped.
    bool pause(std::chrono::milliseconds d);
    bool ownName(const std::string& name) const;

    AgentOptions options_;
    Secret secret_;
    ServerLink& server_link_;
    zn::Clock& clock_;
    Log log_;
    Backoff backoff_;
    ServerReply server_;
    std::atomic<bool> stop_{false};
};

}  // namespace orvnode
