// Heartbeat reports arrive from other hosts: any bytes must parse or be
// refused without reading outside the message.
#include <cstddef>
#include <cstdint>
#include <string>

#include "orvrm/HeartbeatReport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvrm::HeartbeatReport r;
    std::string why;
    if (orvrm::parseHeartbeatReport(data, size, r, why)) {
        for (const auto& e : r.entries) {
            if (e.address.size() > orvrm::kMaxHeartbeatAddress) {
                __builtin_trap();
            }
        }
        auto again = orvrm::buildHeartbeatReport(r);
        orvrm::HeartbeatReport r2;
        if (!orvrm::parseHeartbeatReport(again.data(), again.size(), r2, why) ||
            r2.entries.size() != r.entries.size()) {
            __builtin_trap();
        }
    }
    return 0;
}
