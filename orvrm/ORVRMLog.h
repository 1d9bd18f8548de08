// How the daemon reports: catalogued errors built, traced and logged in one
// call, the debug trace of component "_OVD", administrator log records under
// "wex.server", and the wall-clock helper for schedule times. None of these
// ever fails its caller when the log or trace is unavailable.
#pragma once

#include <ctime>
#include <string>

#include "platform/clog.h"
#include "platform/cu_error.h"
#include "tarn_base/CTraceManager.h"

namespace orvrm {

inline constexpr char kTraceComponentId[] = "_OVD";
inline constexpr char kLogComponent[] = "wex.server";
inline constexpr unsigned kTraceErrors = 0;
inline constexpr unsigned kTraceInfo = 1;
inline constexpr int kLogSeverity = 4;

// The "_OVD" trace component (registered on first use; main registers it first).
tarn_base::CTraceComponent* traceComponent();

// Opens the process-wide log handle if it is not open. Returns 0 or the
// logging library's code, with its description in `why` when it gave one.
int openLog(std::string* why = nullptr);
// Closes the process-wide handle (clog_fini) if open.
void closeLog();
bool logIsOpen();

}  // namespace orvrm

// Builds error `errorId` from "Kor.ORVRM.cat" set 1 message `msgNum` with the
// arguments, traces it as an error of `functionName`, logs it; caller owns it.
cu_error_t* pkg_error(int errorId, int msgNum, const char* functionName, int ffdcId, ...);
// Builds a framework common error, traces it, logs message 49 with its text.
cu_error_t* pkg_common_error(int commonErrorId, const char* functionName, int ffdcId, ...);
// Logs message 49 with the error's text; nothing for a null error.
void orvrmlog_error(const char* functionName, cu_error_t* err);
// Logs message `msgNum` with the arguments; nothing is traced.
void orvrmlog_info(int msgNum, const char* functionName, ...);
// The ordinary debug trace: one formatted record when "Info" is not 0.
void orvrminfo_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Wall clock, microsecond resolution, as seconds and nanoseconds.
void getCurrentTime(timespec* now);
