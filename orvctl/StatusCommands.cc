// orvctl status reads every node's Status, PowerStatus and Mode once.
// orvctl watch registers a watch on the nodes' Status and PowerStatus,
// then reads what they have now (so a change between the two is neither
// lost nor printed twice: a value already known prints nothing), and
// prints each change the events bring until it is told to stop. The watch
// runs on a session of its own, which a helper thread ends to stop the
// dispatch loop (signal handlers only set a flag).
#include "orvctl/StatusCommands.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "orvctl/NodeFind.h"
#include "orvctl/StatusChanges.h"
#include "orvctl/StatusSummary.h"
#include "platform/clock.h"
#include "znpex/cli/Interrupt.h"
#include "znpex/client/px_event.h"

namespace orvctl {
namespace {

constexpr char kStatus[] = "Status";
constexpr char kPower[] = "PowerStatus";
constexpr int32_t kNodeRemoved = 0x40004;
constexpr int32_t kServiceStopping = 0x40010;

struct Watcher {
    CliSession* cli = nullptr;
    uint64_t limit = 0;
    std::mutex mu;  // guards tracker and the output
    StatusTracker tracker;
    std::atomic<uint64_t> printed{0};
    std::atomic<bool> serviceStopping{false};

    void print(const std::string& line) {
        if (limit == 0 || printed.load() < limit) {
            cli->out() << line << std::endl;
            printed.fetch_add(1);
        }
    }
};

const px_event_attr_t* attr(const px_event_2_t& e, const char* name) {
    for (uint32_t i = 0; i < e.pe_attr_count; ++i) {
        if (e.pe_attrs[i].pe_name != nullptr && std::strcmp(e.pe_attrs[i].pe_name, name) == 0) {
            return &e.pe_attrs[i];
        }
    }
    return nullptr;
}

void onEvent(void*, px_event_2_t* e, void* arg) {
    auto* w = static_cast<Watcher*>(arg);
    const px_event_attr_t* host = attr(*e, "Hostname");
    std::string node =
        host != nullptr && host->pe_type == ZN_CHAR_PTR && host->pe_value.ptr_char != nullptr
            ? host->pe_value.ptr_char
            : "";
    timespec now = zn::processClock().wallNow();
    bool json = w->cli->opts().json();
    {
        std::lock_guard<std::mutex> g(w->mu);
        if ((e->pe_flags & PX_EVENT_ERROR) != 0) {
            if (e->pe_errnum == kNodeRemoved && !node.empty()) {
                w->tracker.forget(node);
                w->print(removedLine(node, now, json));
            } else if (e->pe_errnum == kServiceStopping) {
                w->serviceStopping.store(true);
            }
        } else if (!node.empty()) {
            for (const char* name : {kStatus, kPower}) {
                const px_event_attr_t* a = attr(*e, name);
                if (a != nullptr && a->pe_type == ZN_UINT32) {
                    if (auto c = w->tracker.update(node, name, a->pe_value.val_uint32)) {
                        w->print(changeLine(*c, now, json));
                    }
                }
            }
        }
    }
    px_free_response(e);
}

}  // namespace

int clusterStatus(CliSession& cli) {
    static const std::vector<std::string> persistent = {"Hostname", "Mode"};
    static const std::vector<std::string> dynamic = {kStatus, kPower};
    int status = znpex::cli::kExitOk;
    std::vector<NodeValues> nodes;
    if (!queryNodes(cli, "", &persistent, &dynamic, nodes, &status)) {
        return znpex::cli::kExitFailed;
    }
    StatusSummary s = summarize(nodes);
    if (cli.opts().json()) {
        cli.out() << summaryJson(s).dump(2) << '\n';
    } else {
        printSummary(cli.out(), s);
    }
    return status;
}

int watchNodes(CliSession& cli, const WatchArgs& args) {
    px_session_t s = cli.openSession();
    if (s == nullptr) {
        return cli.failCall();
    }
    Watcher w;
    w.cli = &cli;
    w.limit = args.count;
    const char* names[] = {"Hostname", kStatus, kPower};
    px_reg_event_rsp_t* rsp = nullptr;
    if (px_reg_event_select(s, 2, kNodeClass,
                            args.selection.empty() ? nullptr : args.selection.c_str(), names, 3,
                            "Status!=Status@P || PowerStatus!=PowerStatus@P", nullptr, &onEvent, &w,
                            &rsp) != PX_OK) {
        int rc = cli.failCall();
        px_end_session(s);
        return rc;
    }
    px_free_response(rsp);
    // What the nodes have now; the events waiting meanwhile are compared with it.
    static const std::vector<std::string> persistent = {"Hostname"};
    static const std::vector<std::string> dynamic = {kStatus, kPower};
    int status = znpex::cli::kExitOk;
    std::vector<NodeValues> nodes;
    if (!queryNodes(cli, args.selection, &persistent, &dynamic, nodes, &status)) {
        px_end_session(s);
        return znpex::cli::kExitFailed;
    }
    {
        std::lock_guard<std::mutex> g(w.mu);
        for (const NodeValues& n : nodes) {
            for (const char* name : {kStatus, kPower}) {
                const zn::OwnedValue* v = n.find(name);
                if (v != nullptr && v->type() == ZN_UINT32) {
                    w.tracker.know(n.text("Hostname"), name, v->value().val_uint32);
                }
            }
        }
    }

    znpex::cli::InterruptScope interrupt;
    std::atomic<bool> dispatchDone{false};
    std::atomic<bool> ended{false};
    zn::Clock& clock = zn::processClock();
    const zn::Clock::Duration deadline = clock.monoNow() + std::chrono::seconds(args.durationS);
    std::thread stopper([&] {
        while (!dispatchDone.load()) {
            bool stop = interrupt.interrupted() || w.serviceStopping.load() ||
                        (args.count > 0 && w.printed.load() >= args.count) ||
                        (args.durationS > 0 && clock.monoNow() >= deadline);
            if (stop) {
                ended.store(true);
                px_end_session(s);
                return;
            }
            // A short real-time poll: the interrupt comes from a signal.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    int rc = px_dispatch(s, 1);
    dispatchDone.store(true);
    stopper.join();
    if (rc == PX_DISPATCH_ENDED && !w.serviceStopping.load()) {
        return status;
    }
    if (w.serviceStopping.load()) {
        return cli.failMessage("the monitoring service is stopping");
    }
    int failed = cli.failCall();
    if (!ended.load()) {
        px_end_session(s);
    }
    return failed;
}

}  // namespace orvctl
