// What every command shares: the global options, the session (opened on
// first use, ended on destruction), the class definitions, printing a
// failure with its catalogue text on standard error (and, with -o json, as
// an error object on standard output, so scripts see it too), and the exit
// status. One per process run, single-threaded.
#pragma once

#include <iostream>
#include <string>

#include "tarn_rmf2v/RMClassDef.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/Json.h"

namespace znpex::cli {

struct GlobalOptions {
    std::string host;    // empty: this host's local socket
    std::string asHost;  // the host name TCP sessions prove with this host's key ("": the system's)
    std::string output = "table";
    int timeoutMs = 0;  // 0: the library's defaults
    int connectTimeoutMs = 0;
    bool json() const { return output == "json"; }
};

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

class CliSession {
public:
    // `program` starts every message ("znpex: ...").
    CliSession(const GlobalOptions& opts, std::ostream& out, std::ostream& err,
               std::string program = "znpex")
        : opts_(opts), out_(out), err_(err), program_(std::move(program)) {}
    ~CliSession();
    CliSession(const CliSession&) = delete;
    CliSession& operator=(const CliSession&) = delete;

    // The open session, or null after printing why.
    px_session_t session();
    // Another session to the same service, for a thread of its own; the
    // caller ends it. Null with the thread's error set (nothing printed).
    px_session_t openSession() const;
    // The class's definition; false after printing why.
    bool classDef(const std::string& name, tarn_rmf2v::RMClassDef& out);

    // The command failed as a whole with `e`: prints "znpex: <text>" and,
    // with -o json, {"error": <error object>} as the command's output;
    // returns kExitFailed.
    int fail(const cu_error_t* e);
    // fail() with the thread's error, for a call that returned a failure.
    int failCall();
    // Prints an error object's text on standard error (prefixed with `what`
    // when not empty), for one part of a command's result.
    void printError(const cu_error_t* e, const std::string& what = {});
    // The error as -o json shows it: the protocol's error object, whose
    // "id" scripts test and whose "text" is the catalogue's rendering.
    static proto::Json errorJson(const cu_error_t* e);
    // The command failed for a reason of the client's own (no catalogue
    // error): prints "<program>: <message>" and, with -o json,
    // {"error": {"id": 0, "text": message}}; returns kExitFailed.
    int failMessage(const std::string& message);
    // Prints a usage problem and returns kExitUsage.
    int usage(const std::string& message);

    const GlobalOptions& opts() const { return opts_; }
    std::ostream& out() { return out_; }
    std::ostream& err() { return err_; }
    const std::string& program() const { return program_; }

private:
    GlobalOptions opts_;
    std::ostream& out_;
    std::ostream& err_;
    std::string program_;
    px_session_t session_ = nullptr;
};

}  // namespace znpex::cli
