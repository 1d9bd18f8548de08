// Requests of a domain-scoped session (session option 4): an "rm.*" request
// goes to this host's manager and to the service of every other host of the
// domain (as the caller's user; there the identity is "<user>@<this host>",
// checked against that host's access list), and the answers come back as
// one: enumerations concatenate handles, resource answers concatenate their
// entries, and "hosts" lists each host's own result or error. A request
// that names handles goes only to the hosts whose node ids the handles carry
// (bytes 4-11); a handle of no known host gets an error entry. A host that
// does not answer within the peer timeout, or cannot be reached, gets an
// error entry: the request never waits longer than that.
#include <algorithm>

#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ValueCodec.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceErrors.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

constexpr uint64_t kNoNode = 0;

// The node id a handle's hex form carries (bytes 4-11, big-endian), or 0.
// The request decoder has checked the handles' form already.
uint64_t nodeOfHandle(const Json& hex) {
    zn_resource_handle h{};
    if (!hex.is_string() || !proto::parseHandleHex(hex.get<std::string>(), h)) {
        return kNoNode;
    }
    uint64_t id = 0;
    for (size_t i = 4; i < 12; ++i) {
        id = id << 8 | h.bytes[i];
    }
    return id;
}

// A host's failure as a "hosts" entry error: the code, a text, and the
// framework error when one came.
Json failureOf(const Json& response) {
    if (const Json* err = proto::findField(response, "error"); err != nullptr && err->is_object()) {
        const Json* code = proto::findField(*err, "code");
        const Json* message = proto::findField(*err, "message");
        Json e{{"code", code != nullptr && code->is_number_integer() ? *code : Json(0)},
               {"message", message != nullptr && message->is_string() ? *message : Json("")}};
        if (const Json* data = proto::findField(*err, "data")) {
            e["data"] = *data;
        }
        return e;
    }
    const Json* result = proto::findField(response, "result");
    Json e{{"code", proto::kOperationFailed}, {"message", "the resource manager failed"}};
    if (result != nullptr && result->is_object() && result->contains("error")) {
        e["data"] = (*result)["error"];
    }
    return e;
}

}  // namespace

bool Router::inDomainSession(const Connection& c) const {
    std::lock_guard<std::mutex> g(peerMu_);
    return domainSessions_.count(c.id()) != 0;
}

void Router::setDomainSession(const Connection& c, bool on) {
    std::lock_guard<std::mutex> g(peerMu_);
    if (on) {
        domainSessions_.insert(c.id());
    } else {
        domainSessions_.erase(c.id());
    }
}

void Router::forwardLocal(const std::string& identity, const RpcMessage& m, const MethodInfo& info,
                          const std::string& cls, Json params,
                          std::function<void(Json response)> done) {
    auto rules = acl_.rules();
    if (!isAllowed(*rules, identity, cls, info.target, info.access)) {
        denied_.fetch_add(1);
        done(proto::makeErrorFrom(m.id, proto::kPermissionDenied,
                                  *permissionDenied(identity, m.method, cls)));
        return;
    }
    ClassLookup where = registry_.find(cls);
    if (!where.known) {
        done(proto::makeErrorFrom(m.id, proto::kOperationFailed, *unknownClass(cls)));
        return;
    }
    if (!where.connected) {
        lost_.fetch_add(1);
        done(proto::makeErrorFrom(m.id, proto::kNotConnected, *notConnected(where.rmName)));
        return;
    }
    params["identity"] = identity;
    auto session = std::static_pointer_cast<ManagerSession>(where.endpoint);
    std::string rm = where.rmName;
    Json id = m.id;
    std::string method = m.method;
    auto timeout = std::min(options_.requestTimeout, options_.peerTimeout);
    auto finish = [done, id, rm, method, timeout](ManagerSession::Outcome o, Json response) {
        if (o == ManagerSession::Outcome::Answered) {
            done(std::move(response));
        } else if (o == ManagerSession::Outcome::TimedOut) {
            done(proto::makeErrorFrom(
                id, proto::kOperationFailed,
                *managerTimedOut(rm, method, static_cast<long long>(timeout.count()))));
        } else {
            done(proto::makeErrorFrom(id, proto::kNotConnected, *notConnected(rm)));
        }
    };
    if (!session->forward(m.method, std::move(params), timeout, finish)) {
        finish(ManagerSession::Outcome::Lost, nullptr);
        return;
    }
    forwarded_.fetch_add(1);
}

void Router::domainForward(const std::shared_ptr<Connection>& c, const RpcMessage& m,
                           const MethodInfo& info, const std::string& cls) {
    std::string identity = identityOf(*c);
    if (!c->isLocal()) {
        // Sessions are made domain-scoped only on the local socket; this
        // keeps any other caller's requests from being vouched for elsewhere.
        replyError(c, m.id, proto::kPermissionDenied,
                   "domain-scoped requests are only for callers on this host's local socket");
        return;
    }
    std::string user = identity.substr(0, identity.find('@'));
    const std::string selfHost = peers_->self().host;

    // Which hosts get which params: "" is this host.
    using Part = DomainPart;
    std::vector<Part> parts;
    Json unknown = Json::array();  // hosts entries for handles of no known host
    Json unknownItems = Json::array();
    auto partFor = [&](uint64_t node, const Json& base) -> Part* {
        bool local = node == peers_->self().nodeId;
        std::string host = local ? selfHost : "";
        if (!local) {
            auto h = peers_->byNodeId(node);
            if (!h) {
                return nullptr;
            }
            host = h->host;
        }
        for (Part& p : parts) {
            if (p.host == host) {
                return &p;
            }
        }
        Json params = base;
        if (params.contains("handles")) {
            params["handles"] = Json::array();
        }
        parts.push_back(Part{host, local, std::move(params), nullptr});
        return &parts.back();
    };
    auto noHost = [&](const Json& handle) {
        Json err{{"code", proto::kOperationFailed},
                 {"message", "no host of the management domain has node id " +
                                 std::to_string(nodeOfHandle(handle))}};
        unknown.push_back(
            Json{{"host", "node " + std::to_string(nodeOfHandle(handle))}, {"error", err}});
        unknownItems.push_back(Json{{"handle", handle}, {"error", err}});
    };
    if (const Json* one = proto::findField(m.params, "handle")) {
        if (partFor(nodeOfHandle(*one), m.params) == nullptr) {
            noHost(*one);
        }
    } else if (const Json* hs = proto::findField(m.params, "handles")) {
        for (const Json& h : *hs) {
            if (Part* p = partFor(nodeOfHandle(h), m.params)) {
                p->params["handles"].push_back(h);
            } else {
                noHost(h);
            }
        }
    } else {
        parts.push_back(Part{selfHost, true, m.params, nullptr});
        for (const PeerHost& other : peers_->hosts()) {
            parts.push_back(Part{other.host, false, m.params, nullptr});
        }
    }

    struct Gather {
        std::mutex mu;
        std::vector<Part> parts;
        size_t left = 0;
    };
    auto gather = std::make_shared<Gather>();
    gather->parts = std::move(parts);
    gather->left = gather->parts.size();
    std::weak_ptr<Connection> client = c;
    Json clientId = m.id;
    bool watch = info.watch;
    auto finish = [this, gather, client, clientId, unknown, unknownItems, watch, cls]() {
        auto conn = client.lock();
        if (conn == nullptr) {
            return;
        }
        {
            std::lock_guard<std::mutex> g(conn->stateMu);
            --conn->state.pendingRequests;
        }
        try {
            Json answer = gatherAnswers(clientId, gather->parts, unknown, unknownItems);
            for (const Part& p : gather->parts) {
                const Json* r = proto::findField(p.response, "result");
                if (watch && p.local && r != nullptr && r->is_object() && !r->contains("error")) {
                    addWatcher(conn, cls);  // change notifications stay this host's
                }
            }
            conn->send(proto::dumpJson(answer));
        } catch (const std::exception& e) {
            // A host's answer of an unexpected shape: say so rather than fall silent.
            replyError(conn, clientId, proto::kInternalError,
                       std::string("the hosts' answers could not be joined: ") + e.what());
        }
    };
    {
        std::lock_guard<std::mutex> g(c->stateMu);
        if (c->state.pendingRequests >= options_.maxPendingPerConnection) {
            replyFailure(c, m.id, proto::kOperationFailed,
                         *tooManyRequests(static_cast<int>(options_.maxPendingPerConnection)));
            return;
        }
        ++c->state.pendingRequests;
    }
    if (gather->parts.empty()) {
        finish();
        return;
    }
    for (size_t i = 0; i < gather->parts.size(); ++i) {
        auto done = [gather, i, finish](Json response) {
            bool last = false;
            {
                std::lock_guard<std::mutex> g(gather->mu);
                gather->parts[i].response = std::move(response);
                last = --gather->left == 0;
            }
            if (last) {
                finish();
            }
        };
        Part& p = gather->parts[i];
        Json params = p.params;
        if (p.local) {
            forwardLocal(identity, m, info, cls, std::move(params), done);
            continue;
        }
        params["user"] = user;
        std::string host = p.host;
        Json id = m.id;
        peers_->send(host, m.method, std::move(params), options_.peerTimeout,
                     [done, host, id](PeerLink::Outcome o, Json response) {
                         if (o == PeerLink::Outcome::Answered) {
                             done(std::move(response));
                             return;
                         }
                         std::string what = o == PeerLink::Outcome::TimedOut
                                                ? "did not answer in time"
                                                : "cannot be reached";
                         done(proto::makeError(id, proto::kNotConnected,
                                               "the service of host " + host + " " + what));
                     });
    }
}

Json Router::gatherAnswers(const Json& id, const std::vector<DomainPart>& parts,
                           const Json& unknownHosts, const Json& unknownItems) {
    Json merged{{"values", Json::array()},
                {"items", Json::array()},
                {"handles", Json::array()},
                {"actionData", Json::array()}};
    Json hosts = Json::array();
    const Json* firstFailure = nullptr;
    bool any = false;
    for (const DomainPart& p : parts) {
        const Json* result = proto::findField(p.response, "result");
        if (result == nullptr || !result->is_object() || result->contains("error")) {
            hosts.push_back(Json{{"host", p.host}, {"error", failureOf(p.response)}});
            if (firstFailure == nullptr) {
                firstFailure = &p.response;
            }
            continue;
        }
        any = true;
        for (const char* list : {"values", "items", "handles", "actionData"}) {
            if (const Json* arr = proto::findField(*result, list);
                arr != nullptr && arr->is_array()) {
                for (const Json& v : *arr) {
                    merged[list].push_back(v);
                }
            }
        }
        for (const char* one : {"newHandle", "acl"}) {
            if (result->contains(one) && !merged.contains(one)) {
                merged[one] = (*result)[one];
            }
        }
        hosts.push_back(Json{{"host", p.host}, {"result", *result}});
    }
    for (const Json& h : unknownHosts) {
        hosts.push_back(h);
    }
    for (const Json& item : unknownItems) {
        merged["items"].push_back(item);
    }
    if (!any && firstFailure != nullptr) {
        // Nobody answered: the first failure is the answer, with every host's part.
        Json response = *firstFailure;
        response["id"] = id;
        if (Json* result = response.contains("result") ? &response["result"] : nullptr;
            result != nullptr && result->is_object()) {
            (*result)["hosts"] = std::move(hosts);
        } else if (response.contains("error") && response["error"].is_object()) {
            Json& err = response["error"];
            if (!err.contains("data") || !err["data"].is_object()) {
                err["data"] = Json::object();
            }
            err["data"]["hosts"] = std::move(hosts);
        }
        return response;
    }
    merged["hosts"] = std::move(hosts);
    return proto::makeResult(id, std::move(merged));
}

}  // namespace znpex::server
