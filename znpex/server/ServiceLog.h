// The service's diagnostic log: one timestamped line per event on standard
// error (the service manager keeps it in the journal). Thread-safe.
#pragma once

namespace znpex::server {

void serviceLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace znpex::server
