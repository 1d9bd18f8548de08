// Sends the define requests of a bulk file's rows from one thread per
// session, each taking the next row not yet sent, so that as many requests
// are in flight as there are sessions. The calling thread waits, calling
// `tick` every `tickMs` milliseconds (progress) and asking `stop` whether to
// send no more rows; the requests in flight are answered first.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "znpex/cli/BulkLoad.h"
#include "znpex/client/px_client.h"

namespace znpex::cli {

// What became of one row: not sent, defined (sent, no error) or refused.
struct BulkOutcome {
    bool sent = false;
    zn::ErrorPtr error;  // the manager's refusal, or why the request failed
};

struct BulkCounts {
    std::atomic<size_t> done{0};
    std::atomic<size_t> refused{0};
};

// A request that fails on the way (rc != PX_OK: the connection or the
// service) counts as refused with its error, and stops the sending: the
// service is in no state to take the rest.
std::vector<BulkOutcome> sendBulk(const std::vector<px_session_t>& sessions,
                                  const std::string& className, const std::vector<BulkEntry>& rows,
                                  BulkCounts& counts, const std::function<bool()>& stop,
                                  const std::function<void()>& tick, int tickMs = 200);

}  // namespace znpex::cli
