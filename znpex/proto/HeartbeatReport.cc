#include "znpex/proto/HeartbeatReport.h"

#include <cstring>

namespace znpex::proto {
namespace {

constexpr size_t kHeader = 16;
constexpr size_t kEntry = 8;

uint32_t read32(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

bool parseHeartbeatReport(const void* data, size_t length, HeartbeatReport& out, std::string& why) {
    if (data == nullptr || length < kHeader) {
        why = "message of " + std::to_string(length) + " bytes is shorter than its header";
        return false;
    }
    const auto* p = static_cast<const unsigned char*>(data);
    HeartbeatReport r;
    std::memcpy(&r.nodeId, p, sizeof r.nodeId);
    uint32_t n = read32(p + 8);
    size_t tableEnd = kHeader;
    if (n > (length - kHeader) / kEntry) {
        why = "entry count " + std::to_string(n) + " does not fit in " + std::to_string(length) +
              " bytes";
        return false;
    }
    tableEnd += static_cast<size_t>(n) * kEntry;
    r.entries.reserve(n);
    for (uint32_t i = 0; i < n; ++i) {
        const unsigned char* e = p + kHeader + kEntry * i;
        uint32_t state = read32(e);
        uint32_t offset = read32(e + 4);
        if (offset < tableEnd || offset >= length) {
            why = "entry " + std::to_string(i) + ": address offset " + std::to_string(offset) +
                  " is outside the string area [" + std::to_string(tableEnd) + ", " +
                  std::to_string(length) + ")";
            return false;
        }
        size_t room = length - offset;
        size_t limit = room < kMaxHeartbeatAddress + 1 ? room : kMaxHeartbeatAddress + 1;
        const void* nul = std::memchr(p + offset, '\0', limit);
        if (nul == nullptr) {
            why = "entry " + std::to_string(i) +
                  (limit == room ? ": address has no terminating NUL"
                                 : ": address is longer than 255 characters");
            return false;
        }
        size_t len = static_cast<size_t>(static_cast<const unsigned char*>(nul) - (p + offset));
        r.entries.push_back(
            HeartbeatEntry{state, std::string(reinterpret_cast<const char*>(p + offset), len)});
    }
    out = std::move(r);
    return true;
}

std::vector<unsigned char> buildHeartbeatReport(const HeartbeatReport& report) {
    size_t n = report.entries.size();
    std::vector<unsigned char> buf(kHeader + kEntry * n, 0);
    std::memcpy(buf.data(), &report.nodeId, sizeof report.nodeId);
    auto count = static_cast<uint32_t>(n);
    std::memcpy(buf.data() + 8, &count, sizeof count);
    for (size_t i = 0; i < n; ++i) {
        auto offset = static_cast<uint32_t>(buf.size());
        const std::string& a = report.entries[i].address;
        buf.insert(buf.end(), a.begin(), a.end());
        buf.push_back('\0');
        std::memcpy(buf.data() + kHeader + kEntry * i, &report.entries[i].state, 4);
        std::memcpy(buf.data() + kHeader + kEntry * i + 4, &offset, 4);
    }
    return buf;
}

}  // namespace znpex::proto
