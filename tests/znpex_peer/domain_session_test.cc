// Domain-scoped sessions (option 4) against three hosts' services: an
// enumeration gathers every host's handles, requests naming handles go only
// to the hosts the handles belong to (a handle of no known host gets an
// error entry), the other hosts see the caller as "<user>@<first host>",
// and a host that is down or whose manager never answers gives an error
// entry for that host within the deadline while the others' answers arrive.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <set>

#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/ProtocolError.h"

namespace peertest {
namespace {

namespace proto = znpex::proto;
using testsupport::waitFor;
using Kind = RpcMessage::Kind;

// A handle's wire form: marker, version, class 7, the owner's node id, a serial.
std::string handleOf(uint64_t nodeId, uint64_t serial) {
    char text[41];
    std::snprintf(text, sizeof(text), "5a010007%016llx%016llx",
                  static_cast<unsigned long long>(nodeId), static_cast<unsigned long long>(serial));
    return text;
}

std::string userName() {
    passwd* pw = ::getpwuid(::geteuid());
    return pw != nullptr ? pw->pw_name : std::to_string(::geteuid());
}

// A manager that owns two resources on its host and records who asked.
class HostManager {
public:
    HostManager(const Host& h, bool silent = false)
        : node_(h.nodeId),
          manager_(h.socketPath(), "Test.RM", {"Test.Widget"},
                   [this, silent](const std::string& method, const Json& params) {
                       return answer(method, params, silent);
                   }) {}
    bool registered() const { return manager_.registered(); }
    std::vector<Json> seen() const {
        std::lock_guard<std::mutex> g(mu_);
        return seen_;
    }

private:
    Json answer(const std::string& method, const Json& params, bool silent) {
        {
            std::lock_guard<std::mutex> g(mu_);
            seen_.push_back(Json{{"method", method}, {"params", params}});
        }
        if (silent) {
            return nullptr;
        }
        Json r{{"values", Json::array()},
               {"items", Json::array()},
               {"handles", Json::array()},
               {"actionData", Json::array()}};
        if (method == "rm.enumerateResources") {
            r["handles"] = Json::array({handleOf(node_, 1), handleOf(node_, 2)});
        } else if (params.contains("handles")) {
            for (const Json& h : params["handles"]) {
                r["items"].push_back(Json{{"handle", h}});
            }
        }
        return r;
    }

    uint64_t node_;
    mutable std::mutex mu_;
    std::vector<Json> seen_;
    ScriptedManager manager_;
};

class DomainSessionTest : public PeerDomainTest {
protected:
    void SetUp() override {
        for (size_t i = 0; i < hosts_.size(); ++i) {
            // Requests from the first host's service act for "<user>@127.0.0.1".
            writeAcl(i, "\t" + userName() + "@127.0.0.1\t* rw\n");
        }
        ASSERT_TRUE(startAll());
        ASSERT_EQ(refreshNodeTable(0), 0) << hosts_[0].log();
        for (size_t i : {1u, 2u}) {
            ASSERT_TRUE(waitFor([&] { return nodes(i).size() == 3; })) << i;
        }
    }
    std::unique_ptr<znpextest::TestClient> domainSession() {
        auto c = hosts_[0].root_client();
        RpcMessage r = c->call("session.start", Json{{"options", 4}, {"client", "domain-test"}});
        EXPECT_EQ(r.kind, Kind::Result) << r.errorMessage;
        return c;
    }
};

std::set<std::string> asSet(const Json& arr) {
    std::set<std::string> out;
    for (const Json& v : arr) {
        out.insert(v.get<std::string>());
    }
    return out;
}

const Json* hostEntry(const Json& result, const std::string& host) {
    for (const Json& h : result["hosts"]) {
        if (h["host"] == host) {
            return &h;
        }
    }
    return nullptr;
}

TEST_F(DomainSessionTest, AnswersOfEveryHostAreGatheredAndHandlesGoToTheirOwners) {
    HostManager m1(hosts_[0]), m2(hosts_[1]), m3(hosts_[2]);
    ASSERT_TRUE(m1.registered() && m2.registered() && m3.registered());
    auto c = domainSession();

    RpcMessage r = c->call("rm.enumerateResources", Json{{"class", "Test.Widget"}}, 15000);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    std::set<std::string> want;
    for (const Host& h : hosts_) {
        want.insert(handleOf(h.nodeId, 1));
        want.insert(handleOf(h.nodeId, 2));
    }
    EXPECT_EQ(asSet(r.result["handles"]), want);
    ASSERT_EQ(r.result["hosts"].size(), 3u) << r.result.dump();
    for (const Host& h : hosts_) {
        const Json* e = hostEntry(r.result, h.name);
        ASSERT_NE(e, nullptr) << h.name;
        EXPECT_TRUE(e->contains("result")) << e->dump();
    }
    // The other hosts saw the caller's user at the asking host.
    ASSERT_EQ(m2.seen().size(), 1u);
    EXPECT_EQ(m2.seen()[0]["params"]["identity"], userName() + "@127.0.0.1");
    EXPECT_EQ(m1.seen()[0]["params"]["identity"], userName() + "@LOCALHOST");

    // Handles go only to their owners; a handle of no known host is an error entry.
    const uint64_t stranger = 0x1234;
    Json handles = Json::array(
        {handleOf(hosts_[0].nodeId, 1), handleOf(hosts_[1].nodeId, 2), handleOf(stranger, 3)});
    r = c->call("rm.validateResourceHandles", Json{{"class", "Test.Widget"}, {"handles", handles}},
                15000);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    ASSERT_EQ(m1.seen().size(), 2u);
    EXPECT_EQ(m1.seen()[1]["params"]["handles"], Json::array({handles[0]}));
    ASSERT_EQ(m2.seen().size(), 2u);
    EXPECT_EQ(m2.seen()[1]["params"]["handles"], Json::array({handles[1]}));
    EXPECT_EQ(m3.seen().size(), 1u) << "host 3 owns none of the handles";
    ASSERT_EQ(r.result["items"].size(), 3u) << r.result.dump();
    size_t errors = 0;
    for (const Json& item : r.result["items"]) {
        if (item.contains("error")) {
            ++errors;
            EXPECT_EQ(item["handle"], handles[2]);
        }
    }
    EXPECT_EQ(errors, 1u);
    const Json* unknown = hostEntry(r.result, "node " + std::to_string(stranger));
    ASSERT_NE(unknown, nullptr) << r.result.dump();
    EXPECT_TRUE(unknown->contains("error"));

    // A plain session on the same host stays local.
    auto plain = hosts_[0].root_client();
    r = plain->call("rm.enumerateResources", Json{{"class", "Test.Widget"}});
    ASSERT_EQ(r.kind, Kind::Result);
    EXPECT_EQ(r.result["handles"].size(), 2u);
    EXPECT_FALSE(r.result.contains("hosts"));
}

TEST_F(DomainSessionTest, EachHostChecksTheCallerAgainstItsOwnAccessList) {
    HostManager m1(hosts_[0]), m2(hosts_[1]), m3(hosts_[2]);
    ASSERT_TRUE(m1.registered() && m2.registered() && m3.registered());
    // Host 3 no longer lets the first host's callers in.
    writeAcl(2, "");
    RpcMessage reload = hosts_[2].root_client()->call("service.refreshAcl");
    ASSERT_EQ(reload.kind, Kind::Result) << reload.errorMessage;

    auto c = domainSession();
    RpcMessage r = c->call("rm.enumerateResources", Json{{"class", "Test.Widget"}}, 15000);
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    EXPECT_EQ(r.result["handles"].size(), 4u) << "hosts 1 and 2";
    const Json* refused = hostEntry(r.result, hosts_[2].name);
    ASSERT_NE(refused, nullptr) << r.result.dump();
    ASSERT_TRUE(refused->contains("error")) << refused->dump();
    EXPECT_EQ((*refused)["error"]["code"], proto::kPermissionDenied) << refused->dump();
    EXPECT_TRUE(m3.seen().empty()) << "refused before reaching host 3's manager";
}

TEST_F(DomainSessionTest, AHostThatIsDownOrSilentIsAnErrorEntryNotAHang) {
    HostManager m1(hosts_[0]), m2(hosts_[1], /*silent=*/true), m3(hosts_[2]);
    ASSERT_TRUE(m1.registered() && m2.registered() && m3.registered());
    stop(2);
    auto c = domainSession();
    auto began = std::chrono::steady_clock::now();
    RpcMessage r = c->call("rm.enumerateResources", Json{{"class", "Test.Widget"}}, 15000);
    auto took = std::chrono::steady_clock::now() - began;
    ASSERT_EQ(r.kind, Kind::Result) << r.errorMessage;
    // The peer deadline is 2 s; the client's own would be far longer.
    EXPECT_LT(took, std::chrono::seconds(8));
    EXPECT_EQ(asSet(r.result["handles"]), (std::set<std::string>{handleOf(hosts_[0].nodeId, 1),
                                                                 handleOf(hosts_[0].nodeId, 2)}));
    for (size_t i : {1u, 2u}) {
        const Json* e = hostEntry(r.result, hosts_[i].name);
        ASSERT_NE(e, nullptr) << r.result.dump();
        ASSERT_TRUE(e->contains("error")) << e->dump();
        EXPECT_NE((*e)["error"]["code"], 0) << e->dump();
    }
    EXPECT_TRUE(hostEntry(r.result, hosts_[0].name)->contains("result"));
}

}  // namespace
}  // namespace peertest

namespace peertest {
namespace {

// The client library's side: option 4 opens a domain-scoped session, and a
// host that failed is named in the response's host errors.
TEST_F(DomainSessionTest, TheClientLibraryNamesTheHostsThatFailed) {
    HostManager m1(hosts_[0]), m2(hosts_[1]), m3(hosts_[2]);
    ASSERT_TRUE(m1.registered() && m2.registered() && m3.registered());
    stop(2);
    // The library reaches "this host's service" under the state root.
    ::setenv("ZN_ROOT", hosts_[0].root.c_str(), 1);
    px_session_t s = nullptr;
    ASSERT_EQ(px_start_session(nullptr, 0, PX_SCOPE_DOMAIN, &s), PX_OK);
    px_enumerate_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_enumerate_select(s, "Test.Widget", nullptr, &rsp), PX_OK);
    ASSERT_NE(rsp, nullptr);
    EXPECT_EQ(rsp->handle_count, 4u) << "hosts 1 and 2";
    EXPECT_EQ(rsp->hdr.pr_error, nullptr);
    ASSERT_EQ(rsp->hdr.pr_host_error_count, 1u);
    EXPECT_STREQ(rsp->hdr.pr_host_errors[0].ph_host, "127.0.0.3");
    EXPECT_NE(rsp->hdr.pr_host_errors[0].ph_error, nullptr);
    px_free_response(rsp);

    // A session with this host alone has no host errors.
    px_session_t local = nullptr;
    ASSERT_EQ(px_start_session(nullptr, 0, PX_SCOPE_LOCAL, &local), PX_OK);
    ASSERT_EQ(px_enumerate_select(local, "Test.Widget", nullptr, &rsp), PX_OK);
    EXPECT_EQ(rsp->handle_count, 2u);
    EXPECT_EQ(rsp->hdr.pr_host_error_count, 0u);
    EXPECT_EQ(rsp->hdr.pr_host_errors, nullptr);
    px_free_response(rsp);
    px_session_t refused = nullptr;
    EXPECT_EQ(px_start_session(nullptr, 0, 2, &refused), PX_ENOTSUPPORTED);
    px_end_session(local);
    px_end_session(s);
}

}  // namespace
}  // namespace peertest
