// The trace switches of the WEX_COMMON helpers. A helper writes its trace
// lines only while TRACE_ENABLED is set, as records of category "Info" of the
// component TRACE_COMP_ID. When TRACE_COMP_ID is left null the records go to
// this library's own component "_WXC" (so the helpers need nothing of the
// daemon); the daemon points it at its "_OVD" component at start-up, before
// any thread runs, to keep one trace. Set the flag and handle before starting
// threads; reading them is thread-safe.
#pragma once

#include <atomic>

#include "tarn_base/CTraceManager.h"

namespace WEX_COMMON {

inline constexpr char kTraceComponentId[] = "_WXC";
inline constexpr unsigned kTraceErrors = 0;
inline constexpr unsigned kTraceInfo = 1;

extern std::atomic<bool> TRACE_ENABLED;
static_assert(sizeof(std::atomic<bool>) == 1, "the trace flag is one byte");
extern tarn_base::CTraceComponent* TRACE_COMP_ID;

// The component written to: TRACE_COMP_ID, or "_WXC" (registered on first use).
tarn_base::CTraceComponent* traceComponent();

// One formatted record when TRACE_ENABLED is set.
void wexTrace(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace WEX_COMMON
