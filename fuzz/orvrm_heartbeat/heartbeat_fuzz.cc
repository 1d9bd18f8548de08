// Heartbeat reports arrive from other hosts: any bytes must parse or be
// refused without reading outside the message.
#include <cstddef>
#include <cstdint>
#include <string>

#include "znpex/proto/HeartbeatReport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    znpex::proto::HeartbeatReport r;
    std::string why;
    if (znpex::proto::parseHeartbeatReport(data, size, r, why)) {
        for (const auto& e : r.entries) {
            if (e.address.size() > znpex::proto::kMaxHeartbeatAddress) {
                __builtin_trap();
            }
        }
        auto again = znpex::proto::buildHeartbeatReport(r);
        znpex::proto::HeartbeatReport r2;
        if (!znpex::proto::parseHeartbeatReport(again.data(), again.size(), r2, why) ||
            r2.entries.size() != r.entries.size()) {
            __builtin_trap();
        }
    }
    return 0;
}
