// The heartbeat report another instance of this resource manager sends
// through the monitoring service: the node it is about and, per interface,
// whether it answers and its address. The message comes from another host, so
// every count, offset and string is checked against the length before use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvrm {

struct HeartbeatEntry {
    uint32_t state;  // 1: the interface answers
    std::string address;
};

struct HeartbeatReport {
    uint64_t nodeId = 0;
    std::vector<HeartbeatEntry> entries;
};

// Longest address accepted: the receiver copies it into a 256-byte buffer.
inline constexpr size_t kMaxHeartbeatAddress = 255;

// Parses a report laid out in host byte order:
//   0  node id (8)   8  entry count n (4)   12  unused (4)
//   16 + 8i  state of entry i (4)   20 + 8i  offset of its NUL-terminated address (4)
// Returns false, with the reason in `why`, for a message that does not hold
// together (short header, count past the end, offset inside the header or the
// entry table or past the end, address without its NUL, address too long).
bool parseHeartbeatReport(const void* data, size_t length, HeartbeatReport& out, std::string& why);

// Builds a report in the same layout (the sender side, and tests).
std::vector<unsigned char> buildHeartbeatReport(const HeartbeatReport& report);

}  // namespace orvrm
