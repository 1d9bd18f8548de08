// Three hosts' services on 127.0.0.1-3 (one management domain, one port)
// with the daemon's classes in this process acting as the management server
// on host 1 (its local socket is host 1's), and on each host the scripted
// peer-domain and management-server managers. Two nodes, 127.0.0.2 (id 1)
// and 127.0.0.3 (id 2), serve the storage facility image "IMG".
#pragma once

#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "platform/clock.h"
#include "tests/orvrm/peerdomain/ScriptedPeerHost.h"
#include "tests/znpex_peer/PeerHosts.h"
#include "znpex/client/px_client.h"
#include "znpex/di/di_table.h"

namespace peerdomaintest {

class PeerSetupTest : public peertest::PeerDomainTest {
protected:
    void SetUp() override {
        const passwd* pw = getpwuid(geteuid());
        std::string me = pw != nullptr ? pw->pw_name : "root";
        for (size_t i = 0; i < hosts_.size(); ++i) {
            // The daemon reaches other hosts over TCP proving host 1's key
            // (root@127.0.0.1) and through host 1's domain session (as
            // <user>@127.0.0.1).
            writeAcl(i, "\troot@127.0.0.1\t* rw\n\t" + me + "@127.0.0.1\t* rw\n\t" + me +
                            "@LOCALHOST\t* rw\n");
        }
        ASSERT_TRUE(startAll());
        for (size_t i = 0; i < hosts_.size(); ++i) {
            ASSERT_EQ(refreshNodeTable(i), 0);
        }
        setenv("ZNPEX_PORT", std::to_string(port_).c_str(), 1);
        setenv("ZN_ROOT", hosts_[0].root.c_str(), 1);
        // Host 1's key is under its root: TCP sessions prove they run there.
        px_set_client_host("127.0.0.1");
        px_set_default_timeouts(2000, 3000);
        zn::setProcessClock(&clock_);
        newScriptedHosts();
        rmcp_ = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
        for (const orvrm::ClassEntry& e : orvrm::classList()) {
            cu_error_t* err = nullptr;
            std::string name = e.name;
            ASSERT_NE(rmcp_->createRCCP(name.data(), &err), nullptr) << name;
        }
        defineNode("127.0.0.2", 1, "IMG");
        defineNode("127.0.0.3", 2, "IMG");
    }
    void TearDown() override {
        rmcp_.reset();
        scripted_.clear();
        zn::setProcessClock(nullptr);
        unsetenv("ZNPEX_PORT");
        px_set_client_host(nullptr);
        px_set_default_timeouts(5000, 30000);
    }

    // Fresh scripted managers on every host (a new registry for each).
    void newScriptedHosts() {
        scripted_.clear();
        ++generation_;
        for (size_t i = 0; i < hosts_.size(); ++i) {
            scripted_.push_back(
                std::make_unique<ScriptedPeerHost>(hosts_[i].socketPath(), hosts_[i].root,
                                                   "/scripted/" + std::to_string(generation_)));
            ASSERT_TRUE(scripted_.back()->start()) << "scripted manager on " << hosts_[i].name;
        }
        scripted_[0]->mirrorDomainsTo({scripted_[1].get(), scripted_[2].get()});
        keepPublicationsOut();
    }
    // The nodes' universal ids here (1, 2) are not their hosts' node ids, and
    // the domain's tables route requests by node id: the daemon's
    // publications must not reach them. A manager's link installs the
    // process's route to its service; this takes it away again.
    static void keepPublicationsOut() { znpex::di::setRefresher(nullptr); }
    orvrm::ManagedNodeRccp* nodes() {
        return dynamic_cast<orvrm::ManagedNodeRccp*>(
            rmcp_->findRccpByName(const_cast<char*>(orvrm::kManagedNodeClass)));
    }
    void defineNode(const char* host, uint64_t id, const char* image) {
        rm_attribute_value v[3] = {};
        v[0] = {orvrm::kMnHostname, ZN_CHAR_PTR, {}};
        v[0].rm_value.ptr_char = const_cast<char*>(host);
        v[1] = {orvrm::kMnUniversalId, ZN_UINT64, {}};
        v[1].rm_value.val_uint64 = id;
        v[2] = {orvrm::kMnStorageFacilityImageID, ZN_CHAR_PTR, {}};
        v[2].rm_value.ptr_char = const_cast<char*>(image);
        cu_error_t* err = nullptr;
        zn_resource_handle* h = nodes()->createResource(nullptr, v, image != nullptr ? 3 : 2, &err);
        ASSERT_NE(h, nullptr) << (err != nullptr ? cu_error_text(err) : "");
        std::free(h);
    }
    // What reached host `i`'s managers, queries left out.
    std::vector<std::string> operations(size_t i) {
        std::vector<std::string> out;
        for (const std::string& c : scripted_[i]->calls()) {
            if (c.find(".query ") == std::string::npos) {
                out.push_back(c);
            }
        }
        return out;
    }

    zn::FakeClock clock_;
    std::vector<std::unique_ptr<ScriptedPeerHost>> scripted_;
    std::unique_ptr<ORVRMRmcp> rmcp_;
    int generation_ = 0;
};

}  // namespace peerdomaintest
