// znpex watch: registers one event watch and prints each event as it comes,
// one line per event (table) or one JSON object per line, until SIGINT or
// SIGTERM, --count events or --duration seconds; each of these ends it with
// status 0. The watch runs on a session of its own, which a helper thread
// ends to stop the dispatch loop (signal handlers only set a flag).
#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include "platform/clock.h"
#include "znpex/cli/Commands.h"
#include "znpex/cli/Interrupt.h"
#include "znpex/cli/ValueText.h"
#include "znpex/client/px_event.h"
#include "znpex/proto/Json.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::cli {
namespace {

struct Printer {
    CliSession* cli = nullptr;
    uint64_t limit = 0;  // 0: no limit
    std::atomic<uint64_t> printed{0};
};

std::string eventText(const px_event_2_t& e, bool json) {
    if (json) {
        proto::Json attrs = proto::Json::object();
        for (uint32_t i = 0; i < e.pe_attr_count; ++i) {
            attrs[e.pe_attrs[i].pe_name] =
                formatValue(e.pe_attrs[i].pe_type, e.pe_attrs[i].pe_value);
        }
        proto::Json j = {{"registration", e.pe_registration},
                         {"class", e.pe_class},
                         {"flags", e.pe_flags},
                         {"attributes", std::move(attrs)}};
        if (e.pe_has_handle != 0) {
            j["handle"] = proto::handleToHex(e.pe_handle);
        }
        if ((e.pe_flags & PX_EVENT_ERROR) != 0) {
            j["error"] = e.pe_errnum;
        }
        return proto::dumpJson(j);
    }
    std::ostringstream line;
    line << e.pe_class;
    if (e.pe_has_handle != 0) {
        line << ' ' << proto::handleToHex(e.pe_handle);
    }
    line << " flags=0x" << std::hex << e.pe_flags;
    if ((e.pe_flags & PX_EVENT_ERROR) != 0) {
        line << " error=0x" << e.pe_errnum;
    }
    line << std::dec;
    for (uint32_t i = 0; i < e.pe_attr_count; ++i) {
        line << ' ' << e.pe_attrs[i].pe_name << '='
             << formatValue(e.pe_attrs[i].pe_type, e.pe_attrs[i].pe_value);
    }
    return line.str();
}

void onEvent(void*, px_event_2_t* e, void* arg) {
    auto* p = static_cast<Printer*>(arg);
    if (p->limit == 0 || p->printed.load() < p->limit) {
        p->cli->out() << eventText(*e, p->cli->opts().json()) << std::endl;
        p->printed.fetch_add(1);
    }
    px_free_response(e);
}

}  // namespace

int cmdWatch(CliSession& cli, const WatchArgs& args) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    std::vector<std::string> names = args.attrs;
    if (names.empty()) {
        const std::vector<tarn_rmf2v::RMAttrDef>* lists[2] = {&def.persistent, &def.dynamic};
        if (args.classLevel) {
            lists[0] = &def.classPersistent;
            lists[1] = &def.classDynamic;
        }
        for (const auto* list : lists) {
            for (const auto& a : *list) {
                names.push_back(a.name);
            }
        }
    }
    std::vector<const char*> cnames;
    for (const std::string& n : names) {
        cnames.push_back(n.c_str());
    }
    px_contact_t contact{cli.opts().host.empty() ? nullptr : cli.opts().host.c_str()};
    px_session_t s = nullptr;
    if (px_set_client_host(cli.opts().asHost.c_str()) != PX_OK ||
        px_start_session(&contact, 1, 0x401, &s) != PX_OK) {
        return cli.failCall();
    }
    Printer printer;
    printer.cli = &cli;
    printer.limit = args.count;
    px_reg_event_rsp_t* rsp = nullptr;
    uint32_t option = args.classLevel ? 2 | PX_EVENT_OPT_CLASS : 2;
    if (px_reg_event_select(
            s, option, args.className.c_str(),
            args.selection.empty() ? nullptr : args.selection.c_str(), cnames.data(),
            static_cast<uint32_t>(cnames.size()), args.expression.c_str(),
            args.rearm.empty() ? nullptr : args.rearm.c_str(), &onEvent, &printer, &rsp) != PX_OK) {
        int rc = cli.failCall();
        px_end_session(s);
        return rc;
    }
    px_free_response(rsp);

    InterruptScope interrupt;

    // Ends the session (and so the dispatch below) when it is time to stop.
    std::atomic<bool> dispatchDone{false};
    std::atomic<bool> ended{false};
    zn::Clock& clock = zn::processClock();
    const zn::Clock::Duration deadline = clock.monoNow() + std::chrono::seconds(args.durationS);
    std::thread stopper([&] {
        while (!dispatchDone.load()) {
            bool stop = interrupt.interrupted() ||
                        (args.count > 0 && printer.printed.load() >= args.count) ||
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
    if (rc == PX_DISPATCH_ENDED) {
        return kExitOk;
    }
    int status = cli.failCall();
    if (!ended.load()) {
        px_end_session(s);
    }
    return status;
}

}  // namespace znpex::cli
