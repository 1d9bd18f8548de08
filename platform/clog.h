// The administrator log: catalogued records (message number, default text,
// arguments, source file and line) sent to journald, or to syslog when the
// journal is not there. Writing never fails a caller: an unavailable log just
// drops the record. The backend is replaceable so tests can capture records
// or make the log unavailable.
#pragma once

#include <memory>
#include <string>

#include "platform/msgfmt.h"

struct clog_record {
    std::string component;  // logging component, e.g. "wex.server"
    std::string catalog;
    int set = 0;
    int msgNum = 0;
    int severity = 0;
    std::string defaultText;
    std::string text;  // rendered (translated catalogue text when installed)
    std::string file;
    int line = 0;
};

// Where records go. open() may fail; write() is only called after a good open().
class ClogBackend {
public:
    virtual ~ClogBackend() = default;
    // Returns 0, or a non-zero code with a description in `why`.
    virtual int open(const std::string& identifier, std::string& why) = 0;
    virtual void write(const clog_record& rec) = 0;
    virtual void close() = 0;
};

// The journald/syslog backend used unless replaced.
std::unique_ptr<ClogBackend> clog_default_backend();
// Replaces the process's backend (tests); null restores the default. Any open
// handle is closed first.
void clog_set_backend(std::unique_ptr<ClogBackend> backend);

struct clog_handle_s;
using clog_handle_t = clog_handle_s*;

// Opens the log for a component. Returns 0 and a handle, or a non-zero code;
// `why` (if not null) then holds a description when the backend gave one.
int clog_init(clog_handle_t* handle, const char* traceComponent, const char* logComponent,
              const char* catalog, int option, std::string* why = nullptr);
// Closes a handle from clog_init; null is ignored.
void clog_fini(clog_handle_t handle);
// Writes one record ("%I" layout: number, default text, arguments, file, line).
// Severity 1 (critical) .. 6 (debug); the helpers use 4 (notice).
void clog_log(clog_handle_t handle, int severity, int set, int msgNum, const char* defaultText,
              const zn::MsgArgs& args, const char* file, int line);
