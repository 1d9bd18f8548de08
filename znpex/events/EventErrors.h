// Error numbers of error events: a watch that can no longer deliver what it
// promised gets one of these instead of silence. Clients test for them.
#pragma once

namespace znpex::events {

// The resource the watch reported on was undefined; the watch stays
// registered for the class's other resources.
inline constexpr int kErrResourceUndefined = 0x40004;
// The resource's current values could not be read when the watch was set up;
// events still follow from later reports.
inline constexpr int kErrQueryFailed = 0x40005;
// The resource manager serving the class disconnected; the watch stays
// registered and resumes when the manager registers again.
inline constexpr int kErrManagerGone = 0x4000a;
// The manager refused or stopped monitoring an attribute the watch needs.
inline constexpr int kErrMonitoringStopped = 0x4000b;
// The host serving the resource (in a domain session) does not answer.
inline constexpr int kErrHostUnreachable = 0x4000c;
// The service is stopping; the watch ends.
inline constexpr int kErrServiceStopping = 0x40010;

}  // namespace znpex::events
