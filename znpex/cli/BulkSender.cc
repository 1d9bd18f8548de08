#include "znpex/cli/BulkSender.h"

#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/clock.h"
#include "znpex/client/Responses.h"

namespace znpex::cli {
namespace {

std::vector<px_attr_t> attrsOf(const BulkEntry& e) {
    std::vector<px_attr_t> out;
    out.reserve(e.values.size());
    for (size_t i = 0; i < e.values.size(); ++i) {
        out.push_back({e.names[i].c_str(), e.values[i].type(), e.values[i].value()});
    }
    return out;
}

// Shared by the sending threads.
struct Work {
    Work(const std::string& c, const std::vector<BulkEntry>& r, std::vector<BulkOutcome>& o,
         BulkCounts& n)
        : className(c), rows(r), outcomes(o), counts(n) {}

    const std::string& className;
    const std::vector<BulkEntry>& rows;
    std::vector<BulkOutcome>& outcomes;  // one per row, each written by one thread
    BulkCounts& counts;
    std::atomic<size_t> next{0};
    std::atomic<bool> halt{false};
    std::mutex mu;
    std::condition_variable cv;
    size_t running = 0;  // protected by mu
};

void sendRows(Work& w, px_session_t s) {
    for (;;) {
        size_t i = w.next.fetch_add(1);
        if (w.halt.load() || i >= w.rows.size()) {
            break;
        }
        std::vector<px_attr_t> attrs = attrsOf(w.rows[i]);
        px_define_rsp_t* r = nullptr;
        int rc = px_define_resource(s, w.className.c_str(), attrs.data(),
                                    static_cast<uint32_t>(attrs.size()), nullptr, &r);
        client::RspPtr<px_define_rsp_t> rsp(r);
        BulkOutcome& o = w.outcomes[i];
        o.sent = true;
        if (rc != PX_OK) {
            cu_error_t* e = nullptr;
            cu_get_error(&e);
            o.error.reset(e);
            w.halt.store(true);
        } else if (r->hdr.pr_error != nullptr) {
            o.error = zn::copyError(r->hdr.pr_error);
        }
        if (o.error) {
            w.counts.refused.fetch_add(1);
        }
        w.counts.done.fetch_add(1);
    }
    std::lock_guard<std::mutex> lk(w.mu);
    --w.running;
    w.cv.notify_all();
}

}  // namespace

std::vector<BulkOutcome> sendBulk(const std::vector<px_session_t>& sessions,
                                  const std::string& className, const std::vector<BulkEntry>& rows,
                                  BulkCounts& counts, const std::function<bool()>& stop,
                                  const std::function<void()>& tick, int tickMs) {
    std::vector<BulkOutcome> outcomes(rows.size());
    Work w(className, rows, outcomes, counts);
    w.running = sessions.size();
    std::vector<std::thread> threads;
    threads.reserve(sessions.size());
    for (px_session_t s : sessions) {
        threads.emplace_back([&w, s] { sendRows(w, s); });
    }
    zn::Clock& clock = zn::processClock();
    {
        std::unique_lock<std::mutex> lk(w.mu);
        while (w.running > 0) {
            clock.waitUntil(w.cv, lk, clock.monoNow() + std::chrono::milliseconds(tickMs));
            if (stop()) {
                w.halt.store(true);
            }
            lk.unlock();
            tick();
            lk.lock();
        }
    }
    for (auto& t : threads) {
        t.join();
    }
    return outcomes;
}

}  // namespace znpex::cli
