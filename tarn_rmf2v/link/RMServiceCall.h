// Short exchanges with the monitoring service over its local socket: opening
// a connection to it, and one request with its answer within a deadline
// (what a daemon needs to ask the service something once, such as re-reading
// its access control list). Thread-safe; each call uses its own connection.
#pragma once

#include <chrono>
#include <string>

#include "znpex/proto/Json.h"

namespace tarn_rmf2v {

// A connected, close-on-exec local stream socket to `path`, or -1 with errno
// set and `why` (if given) saying what failed.
int connectServiceSocket(const std::string& path, std::string* why);

// Sends `method` with `params` and waits for the answer, up to `timeout` of
// the process clock. Returns 0 with the result in *result (may be null), or
// -1 with errno set and `why` describing it: ENOENT/ECONNREFUSED (no
// service), ETIMEDOUT (no answer in time),
// EPROTO (an answer that is not one), EACCES (refused for this caller),
// EIO (the service tried and failed; `why` has its message).
int serviceCall(const std::string& socketPath, const std::string& method,
                const znpex::proto::Json& params, znpex::proto::Json* result, std::string* why,
                std::chrono::milliseconds timeout);

}  // namespace tarn_rmf2v
