// Routes a resource manager's distributed-information calls
// (di_refresh_table_1, di_tune_heartbeat) to the monitoring service on this
// host: each call is one request over its own short connection to the
// service's local socket, answered once the service has applied it.
#pragma once

#include <chrono>
#include <string>

namespace tarn_rmf2v {

// Installs the routes for the process (replacing earlier ones). `socketPath`
// empty: the system's service socket. `rmName` is the manager that tunes the
// heartbeat and so gets the hosts' heartbeat reports ("": none). A service
// that cannot be reached or does not answer within `timeout` gives
// DI_ENOSERVICE.
void installDiLink(const std::string& socketPath, const std::string& rmName = "",
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));
// Takes the routes away again: the calls give DI_ENOSERVICE.
void removeDiLink();

}  // namespace tarn_rmf2v
