// The management server as the node agent reaches it: the request to be
// managed, and the question whether the server still knows this node. An
// interface so that tests put a scripted server in its place; the real one
// goes through the monitoring service's client library over TCP.
#pragma once

#include <memory>
#include <string>

#include "platform/zn_owned.h"

namespace orvnode {

struct Exchange {
    enum class Outcome {
        Answered,     // `reply` holds the server's reply
        Refused,      // the server refused the request; `message` says why (its catalogue text)
        Unreachable,  // no answer (connection, time-out); `message` says why
    };
    Outcome outcome = Outcome::Unreachable;
    zn::SdPtr reply;
    std::string message;
    // The name the server's service greets other hosts under, when it said:
    // this node's service must trust the server's key under that name.
    std::string serviceName;
};

enum class Knowledge { Known, Forgotten, Unreachable };

class ServerLink {
public:
    virtual ~ServerLink() = default;
    virtual Exchange requestManagement(const zn_structured_data& request) = 0;
    // Whether the server still knows `hostname` as a managed node (asked as
    // the node, proven by its host key); `why` says what was seen.
    virtual Knowledge knowsNode(const std::string& hostname, std::string* why) = 0;
};

// The real server at `contact` ("host[:port]"); sessions claim `hostname`
// when proving this host's key. `timeoutMs` bounds connecting and each request.
std::unique_ptr<ServerLink> makeServerLink(const std::string& contact, const std::string& hostname,
                                           int timeoutMs);

}  // namespace orvnode
