// Heartbeat reports end to end: a management server's service on 127.0.0.1
// with the daemon's classes in this process as its manager "Kor.ORVRM", a
// client of that service watching every node's "Status", and senders on
// 127.0.0.2 upwards that greet the service as other hosts' services do and
// deliver heartbeat reports for simulated nodes (loopback addresses, no
// service of their own) the way a node's service sends its beat. Each report
// flips its node's Status, so every report handled is one event at the
// watcher. Prints, from one run:
//   - the bare peer-message rate over the same links, to a manager that
//     decodes each message as every manager must and does nothing more, and
//     to one that only counts raw frames; the reports handled per second and
//     their ratio to both;
//   - the latency from a node's beat to the watcher's Status 1 event, and
//     from a node's silence limit to the watcher's Status 0 event (median
//     and 99th percentile).
// Usage: [nodes (1000)] [seconds per rate phase (5)] [senders (4)].
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "platform/clock.h"
#include "platform/paths.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"
#include "znpex/client/px_event.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/HeartbeatReport.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/PeerLink.h"
#include "znpex/server/Service.h"

namespace {

using Steady = std::chrono::steady_clock;
using znpex::proto::Json;
namespace srv = znpex::server;

constexpr int kFrequency = 1;    // seconds between beats
constexpr int kSensitivity = 2;  // missed beats before a node is reported silent
constexpr size_t kWindow = 64;   // requests in flight per sender

// Node i's address: 127.1.0.0 upwards.
std::string address(size_t i) {
    return "127." + std::to_string(1 + i / 65536) + "." + std::to_string(i / 256 % 256) + "." +
           std::to_string(i % 256);
}
uint64_t nodeIdOf(size_t i) {
    return 1000 + i;
}

double ms(Steady::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

void printLatency(const char* what, std::vector<double> v) {
    if (v.empty()) {
        std::printf("%s: no samples\n", what);
        return;
    }
    std::sort(v.begin(), v.end());
    std::printf("%s: %zu samples, median %.2f ms, p99 %.2f ms, max %.2f ms\n", what, v.size(),
                v[v.size() / 2], v[std::min(v.size() - 1, v.size() * 99 / 100)], v.back());
}

// A client of the service watching every node's Status; each event is
// stamped on arrival.
class Watcher {
public:
    explicit Watcher(const std::map<std::string, size_t>& index) : index_(index) {}
    bool start() {
        if (px_start_session(nullptr, 0, 1, &session_) != PX_OK) {
            return false;
        }
        const char* names[] = {"Hostname"};
        px_reg_event_rsp_t* rsp = nullptr;
        int rc = px_reg_event_select(session_, 2, orvrm::kManagedNodeClass, nullptr, names, 1,
                                     "Status!=Status@P", nullptr, &Watcher::onEvent, this, &rsp);
        px_free_response(rsp);
        if (rc != PX_OK) {
            return false;
        }
        thread_ = std::thread([this] { px_dispatch(session_, 1); });
        return true;
    }
    ~Watcher() {
        if (session_ != nullptr) {
            px_end_session(session_);
        }
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    uint64_t events() const { return events_.load(); }
    // The next event of node `i` with `status` after `since`, or nothing
    // within `timeout`.
    bool waitFor(size_t i, uint32_t status, Steady::time_point since, Steady::duration timeout,
                 Steady::time_point* at) {
        std::unique_lock<std::mutex> g(mu_);
        return cv_.wait_for(g, timeout, [&] {
            auto it = last_.find(i);
            if (it == last_.end() || it->second.status != status || it->second.at < since) {
                return false;
            }
            *at = it->second.at;
            return true;
        });
    }
    // Every event of `status` seen so far, by node.
    std::map<size_t, Steady::time_point> seen(uint32_t status) {
        std::lock_guard<std::mutex> g(mu_);
        std::map<size_t, Steady::time_point> out;
        for (auto& [i, e] : last_) {
            if (e.status == status) {
                out[i] = e.at;
            }
        }
        return out;
    }

private:
    struct Last {
        uint32_t status;
        Steady::time_point at;
    };
    static void onEvent(void*, px_event_2_t* e, void* arg) {
        auto* self = static_cast<Watcher*>(arg);
        Steady::time_point at = Steady::now();
        std::string host;
        uint32_t status = 127;
        for (uint32_t i = 0; i < e->pe_attr_count; ++i) {
            const px_event_attr_t& a = e->pe_attrs[i];
            if (std::string(a.pe_name) == "Hostname" && a.pe_type == ZN_CHAR_PTR) {
                host = a.pe_value.ptr_char;
            } else if (std::string(a.pe_name) == "Status" && a.pe_type == ZN_UINT32) {
                status = a.pe_value.val_uint32;
            }
        }
        auto it = self->index_.find(host);
        if ((e->pe_flags & PX_EVENT_ERROR) == 0 && it != self->index_.end()) {
            self->events_.fetch_add(1);
            std::lock_guard<std::mutex> g(self->mu_);
            self->last_[it->second] = Last{status, at};
            self->cv_.notify_all();
        }
        px_free_response(e);
    }

    const std::map<std::string, size_t>& index_;
    px_session_t session_ = nullptr;
    std::thread thread_;
    std::atomic<uint64_t> events_{0};
    std::mutex mu_;
    std::condition_variable cv_;
    std::map<size_t, Last> last_;
};

// A manager of the service that reads and counts the peer messages it gets:
// either only finding the method in each raw frame, or decoding each one as
// every manager does (message, then peer message) and doing nothing more.
class CountingManager {
public:
    CountingManager(const std::string& path, const std::string& rm, bool decode) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            std::perror("connect");
            std::exit(1);
        }
        Json defs = Json::array({Json{{"class", rm + ".Sink"}}});
        Json reg = znpex::proto::makeRequest(1, "rm.register", Json{{"rm", rm}, {"classes", defs}});
        znpex::proto::writeFrame(fd_, znpex::proto::dumpJson(reg), 5000);
        thread_ = std::thread([this, decode] {
            znpex::proto::FdFrameReader reader(fd_);
            std::string msg;
            while (!stop_) {
                if (reader.next(msg, 100) != znpex::proto::IoStatus::Ok) {
                    continue;
                }
                if (!decode) {
                    got_.fetch_add(msg.find("peer.received") != std::string::npos ? 1 : 0);
                    continue;
                }
                znpex::proto::RpcMessage m = znpex::proto::parseMessage(msg);
                if (m.method == znpex::proto::kPeerReceived &&
                    !znpex::proto::decodePeerMessage(m.params).data.empty()) {
                    got_.fetch_add(1);
                }
            }
        });
    }
    ~CountingManager() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }
    uint64_t got() const { return got_.load(); }

private:
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> got_{0};
    std::thread thread_;
};

// Senders: one link each from 127.0.0.(2+k) to the service, keeping
// kWindow requests in flight while running.
class Senders {
public:
    using Make = std::function<Json(uint64_t seq)>;

    Senders(size_t count, uint16_t port) : work_(asio::make_work_guard(io_)) {
        for (size_t k = 0; k < count; ++k) {
            srv::PeerHello self;
            self.host = "127.0.0." + std::to_string(2 + k);
            self.nodeId = 2 + k;
            srv::PeerLinkOptions o;
            o.port = port;
            o.sourceAddress = self.host;
            auto link = std::make_shared<srv::PeerLink>(io_.get_executor(), "127.0.0.1", self, o,
                                                        [](const std::string&) {});
            link->setAddresses({"127.0.0.1"});
            links_.push_back(link);
        }
        thread_ = std::thread([this] { io_.run(); });
    }
    ~Senders() {
        for (auto& l : links_) {
            l->shutdown();
        }
        work_.reset();
        io_.stop();
        thread_.join();
    }
    // Runs `make` for `seconds`; returns how many were answered.
    uint64_t run(double seconds, Make make) {
        make_ = std::move(make);
        answered_ = 0;
        running_ = true;
        for (auto& l : links_) {
            for (size_t w = 0; w < kWindow; ++w) {
                next(l);
            }
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        running_ = false;
        // Let what is in flight end.
        for (int i = 0; i < 100 && inFlight_.load() != 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return answered_.load();
    }
    // One request on the first link, waited for.
    bool once(const Json& params) {
        std::promise<bool> done;
        links_[0]->request(srv::kPeerDeliver, params, std::chrono::seconds(5),
                           [&](srv::PeerLink::Outcome o, Json) {
                               done.set_value(o == srv::PeerLink::Outcome::Answered);
                           });
        return done.get_future().get();
    }

private:
    void next(const std::shared_ptr<srv::PeerLink>& l) {
        if (!running_) {
            return;
        }
        inFlight_.fetch_add(1);
        l->request(srv::kPeerDeliver, make_(seq_.fetch_add(1)), std::chrono::seconds(5),
                   [this, l](srv::PeerLink::Outcome o, Json) {
                       if (o == srv::PeerLink::Outcome::Answered) {
                           answered_.fetch_add(1);
                       }
                       inFlight_.fetch_sub(1);
                       next(l);
                   });
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::vector<std::shared_ptr<srv::PeerLink>> links_;
    std::thread thread_;
    Make make_;
    std::atomic<bool> running_{false};
    std::atomic<uint64_t> seq_{0};
    std::atomic<uint64_t> answered_{0};
    std::atomic<uint64_t> inFlight_{0};
};

Json report(size_t node, bool alive) {
    srv::PeerDeliver d;
    d.rm = "Kor.ORVRM";
    d.message.type = znpex::proto::kHeartbeatMessageType;
    d.message.subtype = znpex::proto::kHeartbeatMessageSubtype;
    d.message.data = znpex::proto::buildHeartbeatReport(znpex::proto::HeartbeatReport{
        nodeIdOf(node), {znpex::proto::HeartbeatEntry{alive ? 1u : 0u, address(node)}}});
    return srv::encodePeerDeliver(d);
}

zn_resource_handle defineNode(orvrm::ManagedNodeRccp* nodes, const std::string& host, uint64_t id) {
    rm_attribute_value v[3] = {};
    v[0] = {orvrm::kMnHostname, ZN_CHAR_PTR, {}};
    v[0].rm_value.ptr_char = const_cast<char*>(host.c_str());
    v[1] = {orvrm::kMnUniversalId, ZN_UINT64, {}};
    v[1].rm_value.val_uint64 = id;
    v[2] = {orvrm::kMnMode, ZN_CHAR_PTR, {}};
    v[2].rm_value.ptr_char = const_cast<char*>(orvrm::kModeManaged);
    cu_error_t* err = nullptr;
    zn_resource_handle* h = nodes->createResource(nullptr, v, 3, &err);
    if (h == nullptr) {
        std::fprintf(stderr, "node %s not defined: %s\n", host.c_str(),
                     err != nullptr ? cu_error_text(err).c_str() : "");
        std::exit(1);
    }
    zn_resource_handle out = *h;
    std::free(h);
    return out;
}

bool makeKeys(size_t senders) {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
    if (sec_generate_rsa_localhost_token(SEC_KEYTYPE_RSA1024, &pvt, &pub) != 0 ||
        sec__record_hostid_token(SEC_PRIVATE_KEYFILE, pvt) != 0 ||
        sec__record_hostid_token(SEC_PUBLIC_KEYFILE, pub) != 0) {
        return false;
    }
    for (size_t k = 0; k <= senders; ++k) {
        std::string host = "127.0.0." + std::to_string(1 + k);
        sec_store_host_token(host.c_str(), pub);
    }
    sec_release_host_token(&pvt);
    sec_release_host_token(&pub);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    size_t nodes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000;
    double seconds = argc > 2 ? std::atof(argv[2]) : 5.0;
    size_t senderCount = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 4;
    nodes = std::max<size_t>(nodes, 200);
    senderCount = std::clamp<size_t>(senderCount, 1, 200);
    char tmpl[] = "/tmp/orvrm-heartbeat-bench-XXXXXX";
    std::string root = ::mkdtemp(tmpl);
    ::setenv(zn::paths::kRootEnv, root.c_str(), 1);
    std::string thl = zn::paths::resolve(zn::paths::kThlFile);
    zn::paths::ensureParentDir(thl);
    std::fclose(std::fopen(thl.c_str(), "w"));
    zn::paths::ensureParentDir(zn::paths::resolve(zn::paths::kPexSocket));
    // The shipped access rules, so the watching client may watch.
    std::string acl = zn::paths::resolve(zn::paths::kAclDefaultFile);
    zn::paths::ensureParentDir(acl);
    std::filesystem::copy_file(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls", acl);
    if (!makeKeys(senderCount)) {
        std::fprintf(stderr, "no host key could be made\n");
        return 1;
    }
    {
        srv::ServiceOptions so;
        so.diPath = root + "/tables.db";
        so.tcpAddress = "127.0.0.1";
        so.peers = true;
        so.router.hostName = "127.0.0.1";
        so.router.nodeId = 1;
        srv::Service service(so);
        service.start();

        // The node table as the management server's service holds it.
        znpex::di::Transaction table;
        table.clearNodes = true;
        auto entry = [](const std::string& a, uint64_t id) {
            return znpex::di::NodeEntry{id, a, {a}, {a}};
        };
        for (size_t k = 0; k <= senderCount; ++k) {
            table.nodes.push_back(entry("127.0.0." + std::to_string(1 + k), 1 + k));
        }
        for (size_t i = 0; i < nodes; ++i) {
            table.nodes.push_back(entry(address(i), nodeIdOf(i)));
        }
        service.router().applyDi(table, nullptr);

        // The daemon's classes; their own schedules stand still on a fake
        // clock, the heartbeat is the service's.
        zn::FakeClock still;
        zn::setProcessClock(&still);
        auto rmcp = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
        for (const orvrm::ClassEntry& e : orvrm::classList()) {
            cu_error_t* err = nullptr;
            std::string name = e.name;
            if (rmcp->createRCCP(name.data(), &err) == nullptr) {
                std::fprintf(stderr, "class %s not created\n", name.c_str());
                return 1;
            }
        }
        for (int i = 0; i < 2; ++i) {
            unsigned long id = 0;
            rmcp->start(&id);
        }
        auto* nodeClass = dynamic_cast<orvrm::ManagedNodeRccp*>(
            rmcp->findRccpByName(const_cast<char*>(orvrm::kManagedNodeClass)));
        std::map<std::string, size_t> index;
        std::vector<zn_resource_handle> handles;
        for (size_t k = 0; k < senderCount; ++k) {
            defineNode(nodeClass, "127.0.0." + std::to_string(2 + k), 2 + k);
        }
        for (size_t i = 0; i < nodes; ++i) {
            handles.push_back(defineNode(nodeClass, address(i), nodeIdOf(i)));
            index[address(i)] = i;
        }
        dynamic_cast<orvrm::OrvCtrlRccp*>(
            rmcp->findRccpByName(const_cast<char*>(orvrm::kOrvCtrlClass)))
            ->applyHeartbeat(kFrequency, kSensitivity);
        tarn_rmf2v::RMServiceConnectionOptions co;
        co.socketPath = zn::paths::resolve(zn::paths::kPexSocket);
        co.maxBackoff = std::chrono::milliseconds(200);
        co.clock = &zn::systemClock();
        auto conn = std::make_unique<tarn_rmf2v::RMServiceConnection>(*rmcp, co);
        conn->start();
        for (int i = 0; i < 200 && !conn->connected(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        // The tables and the heartbeat's tuning reach the service.
        for (int i = 0; i < 200 && service.router().status()["heartbeat"].value("watched", 0u) <
                                       nodes + senderCount;
             ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        Json hb = service.router().status()["heartbeat"];
        std::printf("nodes %zu, senders %zu; service watches %s hosts as %s\n", nodes, senderCount,
                    hb["watched"].dump().c_str(), hb["role"].dump().c_str());

        Watcher watcher(index);
        if (!conn->connected()) {
            std::fprintf(stderr, "the daemon did not reach the service\n");
            return 1;
        }
        if (!watcher.start()) {
            std::fprintf(stderr, "the watcher did not reach the service\n");
            return 1;
        }
        // The watch is live once the service has every node's Status monitored.
        auto w0 = Steady::now();
        auto monitored = [&] {
            for (const zn_resource_handle& h : handles) {
                if (!nodeClass->getMonitor()->isMonitored(&h, orvrm::kMnStatus)) {
                    return false;
                }
            }
            return true;
        };
        while (!monitored() && Steady::now() - w0 < std::chrono::seconds(120)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        std::printf("the watch of %zu nodes was live after %.2f s\n", nodes,
                    ms(Steady::now() - w0) / 1000);
        Senders senders(senderCount, service.tcpPort());
        std::string socket = zn::paths::resolve(zn::paths::kPexSocket);
        CountingManager rawSink(socket, "Bench.Raw", false);
        CountingManager decodingSink(socket, "Bench.Decoding", true);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));

        // 1. The bare peer-message rate over the same links, to a manager
        // that decodes each message and to one that only counts frames.
        auto bareRate = [&](CountingManager& sink, const char* rm, const char* what) {
            srv::PeerDeliver bare;
            bare.rm = rm;
            bare.message.type = 2;
            bare.message.data = {'b', 'e', 'n', 'c', 'h'};
            Json bareParams = srv::encodePeerDeliver(bare);
            uint64_t got0 = sink.got();
            auto b0 = Steady::now();
            senders.run(seconds, [&](uint64_t) { return bareParams; });
            double took = std::chrono::duration<double>(Steady::now() - b0).count();
            double rate = static_cast<double>(sink.got() - got0) / took;
            std::printf("bare peer messages, %s: %llu delivered in %.1f s = %.0f/s\n", what,
                        static_cast<unsigned long long>(sink.got() - got0), took, rate);
            return rate;
        };
        double decodedRate = bareRate(decodingSink, "Bench.Decoding", "manager decodes each");
        double rawRate = bareRate(rawSink, "Bench.Raw", "manager only counts frames");

        // 2. Heartbeat reports, each flipping its node's Status; the rate is
        // of Status events at the watcher. Each node's last report is kept
        // for the silence latency.
        std::vector<std::atomic<int64_t>> lastSent(nodes);
        uint64_t ev0 = watcher.events();
        auto h0 = Steady::now();
        uint64_t answered = senders.run(seconds, [&](uint64_t seq) {
            size_t node = seq % nodes;
            lastSent[node] = Steady::now().time_since_epoch().count();
            return report(node, (seq / nodes) % 2 == 0);
        });
        double hbTook = std::chrono::duration<double>(Steady::now() - h0).count();
        uint64_t events = watcher.events() - ev0;
        double hbRate = static_cast<double>(events) / hbTook;
        std::printf(
            "heartbeat reports: %llu answered by the service, %llu Status events at the watcher "
            "in %.1f s = %.0f reports/s handled end to end (target >= 10000)\n",
            static_cast<unsigned long long>(answered), static_cast<unsigned long long>(events),
            hbTook, hbRate);
        std::printf(
            "ratio to the bare peer-message rate: %.2f to a decoding manager (target >= 0.5), "
            "%.2f to one that only counts frames\n",
            decodedRate > 0 ? hbRate / decodedRate : 0.0, rawRate > 0 ? hbRate / rawRate : 0.0);

        // 3. Silence: every node now stops; those left at 1 fall to 0 once
        // the limit has passed since their last report.
        auto limit = std::chrono::seconds(kFrequency * kSensitivity);
        auto silenceFrom = Steady::now();
        std::this_thread::sleep_for(limit + std::chrono::milliseconds(2000));
        std::vector<double> silence;
        for (auto& [i, at] : watcher.seen(0)) {
            Steady::time_point last{Steady::duration(lastSent[i].load())};
            if (at > silenceFrom) {
                silence.push_back(ms(at - (last + limit)));
            }
        }
        printLatency("silence limit -> Status 0 at the watcher", silence);

        // 4. A beat of a silent node, one at a time, to its Status 1 event.
        std::vector<double> beat;
        for (size_t p = 0; p < 200; ++p) {
            auto t0 = Steady::now();
            senders.once(report(p, true));
            Steady::time_point at;
            if (watcher.waitFor(p, 1, t0, std::chrono::seconds(2), &at)) {
                beat.push_back(ms(at - t0));
            }
        }
        printLatency("heartbeat -> Status 1 at the watcher", beat);

        conn->stop();
        rmcp.reset();
        zn::setProcessClock(nullptr);
        service.stop();
    }
    std::filesystem::remove_all(root);
    return 0;
}
