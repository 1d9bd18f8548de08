// The one way this daemon reaches the monitoring service to make it re-read its
// access control list: a "service.refreshAcl" request over the service's local
// socket. The service takes it from root only, so a caller that is not root
// fails at once (errno EPERM) without asking.
// Returns 0 when the service re-read the list, -1 otherwise with errno set:
// EPERM (not root), ENOENT or ECONNREFUSED (no service), ETIMEDOUT (no answer
// within `timeout`), EACCES (refused), EIO (the list did not parse; the
// service keeps its previous rules), EPROTO (not an answer).
#pragma once

#include <chrono>

int requestPexAclRefresh(std::chrono::milliseconds timeout = std::chrono::seconds(10));
