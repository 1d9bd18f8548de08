// Asks the monitoring service to re-read its access control list after the
// list file changed. Returns 0 when the request was taken, -1 otherwise.
// Logs nothing (callers do); may be called from any thread.
#pragma once

int refreshpex();
