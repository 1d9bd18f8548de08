// An acknowledged change survives kill -9 of orvrmd: a client defines nodes
// (each with a universal id and two addresses) and undefines some while the
// daemon is killed at a random moment, several rounds. After each restart
// every acknowledged node is there with exactly its interfaces, every
// acknowledged undefine holds, and a node whose define was cut short is
// either absent or whole: never half made.
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "tests/orvrm/DaemonsFixture.h"
#include "znpex/client/px_client.h"

namespace {

using daemonstest::Daemons;
using namespace std::chrono_literals;

struct NodeState {
    uint64_t id;
    std::set<std::string> addresses;
};

class Storm {
public:
    explicit Storm(int round) : round_(round) {}

    void run(const std::atomic<bool>& stop) {
        px_session_t s = nullptr;
        if (px_start_session(nullptr, 0, 1, &s) != PX_OK) {
            return;
        }
        px_set_timeouts(s, 2000);
        for (int i = 0; !stop.load() && i < 100000; ++i) {
            if (i % 5 == 4) {
                undefineOne(s);
            }
            defineOne(s, i);
        }
        px_end_session(s);
    }

    std::mutex mu;
    std::map<std::string, NodeState> acked;   // defined, acknowledged
    std::map<std::string, NodeState> unsure;  // sent, no answer
    std::set<std::string> gone;               // undefine acknowledged
    std::map<std::string, zn_resource_handle> handles;

private:
    void defineOne(px_session_t s, int i) {
        std::string name = "r" + std::to_string(round_) + "n" + std::to_string(i);
        uint64_t id = static_cast<uint64_t>(round_) * 1000000 + static_cast<uint64_t>(i) + 1;
        std::string a1 = "10." + std::to_string(round_) + "." + std::to_string(i / 250) + "." +
                         std::to_string(i % 250 + 1);
        std::string a2 = "11." + a1.substr(3);
        zn_array* addrs = zn_array_new(2);
        addrs->elements[0].ptr_char = a1.data();
        addrs->elements[1].ptr_char = a2.data();
        px_attr_t attrs[3] = {};
        attrs[0] = {"Hostname", ZN_CHAR_PTR, {}};
        attrs[0].pa_value.ptr_char = name.data();
        attrs[1] = {"UniversalId", ZN_UINT64, {}};
        attrs[1].pa_value.val_uint64 = id;
        attrs[2] = {"ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, {}};
        attrs[2].pa_value.ptr_array = addrs;
        NodeState st{id, {a1, a2}};
        {
            std::lock_guard<std::mutex> g(mu);
            unsure[name] = st;
        }
        px_define_rsp_t* rsp = nullptr;
        int rc = px_define_resource(s, "Kor.ManagedNode", attrs, 3, nullptr, &rsp);
        std::free(addrs);
        if (rc == PX_OK && rsp != nullptr && rsp->hdr.pr_error == nullptr && rsp->has_handle) {
            std::lock_guard<std::mutex> g(mu);
            unsure.erase(name);
            acked[name] = st;
            handles[name] = rsp->handle;
        }
        px_free_response(rsp);
    }

    void undefineOne(px_session_t s) {
        std::string name;
        zn_resource_handle h{};
        {
            std::lock_guard<std::mutex> g(mu);
            if (handles.empty()) {
                return;
            }
            name = handles.begin()->first;
            h = handles.begin()->second;
            handles.erase(handles.begin());
            unsure[name] = acked[name];
            acked.erase(name);
        }
        px_resources_rsp_t* rsp = nullptr;
        int rc = px_undefine_resource(s, "Kor.ManagedNode", &h, 1, nullptr, &rsp);
        if (rc == PX_OK && rsp != nullptr && rsp->hdr.pr_error == nullptr &&
            rsp->resource_count == 1 && rsp->resources[0].error == nullptr) {
            std::lock_guard<std::mutex> g(mu);
            unsure.erase(name);
            gone.insert(name);
        }
        px_free_response(rsp);
    }

    int round_;
};

// What the daemon has after the restart: nodes with their ids and
// addresses, and interfaces as (name, id, address).
struct Registry {
    std::map<std::string, NodeState> nodes;
    std::multiset<std::tuple<std::string, uint64_t, std::string>> interfaces;
};

Registry readRegistry() {
    Registry out;
    px_session_t s = nullptr;
    EXPECT_EQ(px_start_session(nullptr, 0, 1, &s), PX_OK);
    const char* nodeAttrs[] = {"Hostname", "UniversalId", "ConnectivityIPAddrs"};
    px_resources_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_query_persistent_attrs_select(s, "Kor.ManagedNode", "", nodeAttrs, 3, &rsp),
              PX_OK);
    for (uint32_t i = 0; rsp != nullptr && i < rsp->resource_count; ++i) {
        const px_resource_rsp_t& r = rsp->resources[i];
        NodeState st{r.attrs[1].pv_value.val_uint64, {}};
        const zn_array* a = r.attrs[2].pv_value.ptr_array;
        for (uint32_t k = 0; a != nullptr && k < a->array_cnt; ++k) {
            st.addresses.insert(a->elements[k].ptr_char);
        }
        out.nodes[r.attrs[0].pv_value.ptr_char] = st;
    }
    px_free_response(rsp);
    const char* ifAttrs[] = {"Name", "UniversalId", "IPAddress"};
    rsp = nullptr;
    EXPECT_EQ(px_query_persistent_attrs_select(s, "Kor.MNNetworkInterface", "", ifAttrs, 3, &rsp),
              PX_OK);
    for (uint32_t i = 0; rsp != nullptr && i < rsp->resource_count; ++i) {
        const px_resource_rsp_t& r = rsp->resources[i];
        out.interfaces.emplace(r.attrs[0].pv_value.ptr_char, r.attrs[1].pv_value.val_uint64,
                               r.attrs[2].pv_value.ptr_char);
    }
    px_free_response(rsp);
    px_end_session(s);
    return out;
}

TEST_F(Daemons, AcknowledgedNodesSurviveKill9WithExactlyTheirInterfaces) {
    std::mt19937 rng(20261124);
    std::map<std::string, NodeState> expected;  // acknowledged and still defined
    std::set<std::string> gone;
    size_t acknowledged = 0, cutShort = 0;
    for (int round = 1; round <= 5; ++round) {
        Storm storm(round);
        std::atomic<bool> stop{false};
        std::thread client([&] { storm.run(stop); });
        std::this_thread::sleep_for(std::chrono::milliseconds(100 + rng() % 400));
        daemon_->signal(SIGKILL);
        daemon_->wait();
        stop = true;
        client.join();
        startDaemon();

        Registry reg = readRegistry();
        std::lock_guard<std::mutex> g(storm.mu);
        for (auto& [name, st] : storm.acked) {
            expected[name] = st;
        }
        for (const std::string& name : storm.gone) {
            expected.erase(name);
            gone.insert(name);
        }
        acknowledged += storm.acked.size() + storm.gone.size();
        // A cut-short define or undefine went one way or the other, whole.
        for (auto& [name, st] : storm.unsure) {
            ++cutShort;
            if (reg.nodes.count(name) != 0) {
                expected[name] = st;
            } else {
                expected.erase(name);
            }
        }
        std::multiset<std::tuple<std::string, uint64_t, std::string>> wanted;
        for (auto& [name, st] : expected) {
            ASSERT_EQ(reg.nodes.count(name), 1u) << "acknowledged node " << name << " lost";
            EXPECT_EQ(reg.nodes[name].id, st.id) << name;
            EXPECT_EQ(reg.nodes[name].addresses, st.addresses) << name;
            for (const std::string& a : st.addresses) {
                wanted.emplace(name, st.id, a);
            }
        }
        for (const std::string& name : gone) {
            EXPECT_EQ(reg.nodes.count(name), 0u) << "acknowledged undefine of " << name << " lost";
        }
        EXPECT_EQ(reg.nodes.size(), expected.size()) << "round " << round;
        EXPECT_EQ(reg.interfaces, wanted) << "round " << round << ": every node has exactly its "
                                          << "interfaces";
    }
    EXPECT_GT(acknowledged, 20u) << "the storm got going before the kills";
    RecordProperty("acknowledged", static_cast<int>(acknowledged));
    RecordProperty("cut_short", static_cast<int>(cutShort));
}

}  // namespace
