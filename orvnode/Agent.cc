#include "orvnode/Agent.h"

#include <strings.h>

#include "orvnode/HostKey.h"

namespace orvnode {
namespace {

// How often a pause looks at stop().
constexpr auto kPauseStep = std::chrono::milliseconds(200);

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

const char* agentResultText(AgentResult r) {
    switch (r) {
        case AgentResult::Managed:
            return "managed";
        case AgentResult::Refused:
            return "refused";
        case AgentResult::BadReply:
            return "the reply did not check out";
        case AgentResult::Unreachable:
            return "the server could not be reached";
        case AgentResult::Failed:
            return "this host could not do its part";
        case AgentResult::Stopped:
            return "stopped";
    }
    return "?";
}

Agent::Agent(AgentOptions options, Secret secret, ServerLink& server, zn::Clock& clock, Log log)
    : options_(std::move(options)),
      secret_(std::move(secret)),
      server_link_(server),
      clock_(clock),
      log_(std::move(log)),
      backoff_(options_.firstPause, options_.longestPause) {}

bool Agent::pause(std::chrono::milliseconds d) {
    auto until = clock_.monoNow() + d;
    while (!stop_) {
        auto now = clock_.monoNow();
        if (now >= until) {
            return true;
        }
        clock_.sleepUntil(std::min<zn::Clock::Duration>(until, now + kPauseStep));
    }
    return false;
}

bool Agent::ownName(const std::string& name) const {
    if (sameName(name, "localhost") || sameName(name, options_.request.hostname)) {
        return true;
    }
    for (const std::string& n : options_.request.furtherNames) {
        if (sameName(name, n)) {
            return true;
        }
    }
    return false;
}

AgentResult Agent::enrollOnce(bool* retry) {
    *retry = false;
    std::string why;
    bool made = false;
    if (!ensureHostKey(&options_.request.token, &made, &why)) {
        log_(why);
        return AgentResult::Failed;
    }
    if (made) {
        log_("made this host's key pair");
    }
    zn::SdPtr request = buildRequest(options_.request, secret_, &why);
    if (!request) {
        log_("the request to be managed could not be made: " + why);
        return AgentResult::Failed;
    }
    Exchange x = server_link_.requestManagement(*request);
    switch (x.outcome) {
        case Exchange::Outcome::Unreachable:
            log_("management server " + options_.serverName + " not reached: " + x.message);
            *retry = true;
            return AgentResult::Unreachable;
        case Exchange::Outcome::Refused:
            log_("management server " + options_.serverName +
                 " refused to manage this node: " + x.message);
            return AgentResult::Refused;
        case Exchange::Outcome::Answered:
            break;
    }
    ServerReply reply;
    if (!checkReply(x.reply.get(), options_.request.protocol, secret_, &reply, &why)) {
        log_("the reply of management server " + options_.serverName +
             " is not trusted, stopping: " + why);
        return AgentResult::BadReply;
    }
    // Under the name the server was given, the names its reply lists, and
    // the name its service greets this node's service under.
    std::vector<std::string> names{options_.serverName};
    std::vector<std::string> offered = reply.names;
    if (!x.serviceName.empty()) {
        offered.push_back(x.serviceName);
    }
    for (const std::string& n : offered) {
        bool listed = false;
        for (const std::string& m : names) {
            listed = listed || sameName(n, m);
        }
        if (!ownName(n) && !listed) {
            names.push_back(n);
        }
    }
    for (const std::string& n : names) {
        if (!trustServer(n, reply.token, &why)) {
            log_(why);
            return AgentResult::Failed;
        }
    }
    server_ = std::move(reply);
    std::string also;
    for (size_t i = 1; i < names.size(); ++i) {
        also += (i == 1 ? " (also as " : ", ") + names[i];
    }
    log_("managed by " + options_.serverName + " (node id " + std::to_string(server_.nodeId) +
         "); its key is trusted" + (also.empty() ? "" : also + ")"));
    return AgentResult::Managed;
}

AgentResult Agent::enroll() {
    for (unsigned attempt = 1;; ++attempt) {
        if (stop_) {
            return AgentResult::Stopped;
        }
        bool retry = false;
        AgentResult r = enrollOnce(&retry);
        if (!retry) {
            if (r == AgentResult::Managed) {
                backoff_.reset();
            }
            return r;
        }
        if (options_.maxAttempts != 0 && attempt >= options_.maxAttempts) {
            log_("gave up after " + std::to_string(attempt) + " attempts");
            return AgentResult::Unreachable;
        }
        auto wait = backoff_.next();
        log_("trying again in " + std::to_string(wait.count()) + " ms");
        if (!pause(wait)) {
            return AgentResult::Stopped;
        }
    }
}

AgentResult Agent::run() {
    AgentResult r = enroll();
    while (r == AgentResult::Managed) {
        if (!pause(options_.recheck)) {
            return AgentResult::Stopped;
        }
        std::string why;
        switch (server_link_.knowsNode(options_.request.hostname, &why)) {
            case Knowledge::Known:
                break;
            case Knowledge::Unreachable:
                // Not an answer: the next recheck asks again.
                log_("could not ask whether the server still knows this node: " + why);
                break;
            case Knowledge::Forgotten:
                log_("the server has forgotten this node (" + why + "): asking again");
                r = enroll();
                break;
        }
    }
    return r;
}

}  // namespace orvnode
