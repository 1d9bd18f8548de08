// The one way this daemon reaches the monitoring service to make it re-read its
// access control list. There is no system resource controller on this
// platform: the request will go over the service's local socket once the
// service exists. Until then this always fails with -1 (errno ENOSYS), so
// refreshpex() reports -1 and its callers log the failure.
// Returns 0 when the service accepted the request, -1 otherwise.
#pragma once

int requestPexAclRefresh();
