// The heartbeat report: a peer message about one node (the node id it goes
// by) and, per interface, whether it answers and its address. A node's
// service sends one to its management server at every beat, and that
// server's service sends one with no interface for a node that fell silent;
// the manager that tuned the heartbeat gets them. The message comes from
// another host, so every count, offset and string is checked against the
// length before use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace znpex::proto {

// The peer message type (and subtype) that carries a heartbeat report.
inline constexpr int kHeartbeatMessageType = 1;
inline constexpr int kHeartbeatMessageSubtype = 0;

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

}  // namespace znpex::proto
