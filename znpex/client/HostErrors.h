// The per-host failures of a domain-scoped request (session option 4): the
// service's answer lists each host's part under "hosts", and the failed ones
// reach the caller in the response header (pr_host_errors). They are
// gathered per calling thread while one px_ call runs, since one call may
// make several requests. Thread-safe (each thread has its own list).
#pragma once

#include <string>

#include "znpex/client/px_client.h"
#include "znpex/proto/Json.h"

namespace znpex::client {

// Forgets what an earlier call of this thread gathered.
void clearHostErrors();
// Takes the failed hosts of one answer's "hosts" list (ignored when absent
// or malformed: a service that does not span hosts sends none).
void collectHostErrors(const std::string& method, const proto::Json& result);
// Moves what this thread gathered into the response header.
void attachHostErrors(px_rsp_hdr_t& hdr);
// Releases a header's host errors (px_free_response).
void freeHostErrors(px_rsp_hdr_t& hdr);

}  // namespace znpex::client
