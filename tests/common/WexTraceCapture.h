// Captures the trace records of the WEX_COMMON helpers for one test: turns
// the flag on, routes records to the "_WXC" component at level Info=1, and
// puts everything back at the end.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "common/WexTrace.h"
#include "tarn_base/CTraceManager.h"

namespace testsupport {

class WexTraceCapture {
public:
    WexTraceCapture() {
        WEX_COMMON::TRACE_COMP_ID = nullptr;
        tarn_base::CTraceManager::setSpec("*:Errors=255,_WXC:Info=1");
        WEX_COMMON::TRACE_ENABLED = true;
        tarn_base::CTraceManager::setHook(
            [this](const std::string& comp, const std::string&, const std::string& text) {
                if (comp == WEX_COMMON::kTraceComponentId) {
                    std::lock_guard<std::mutex> g(mu_);
                    lines_.push_back(text);
                }
            });
    }
    ~WexTraceCapture() {
        tarn_base::CTraceManager::setHook(nullptr);
        WEX_COMMON::TRACE_ENABLED = false;
    }
    WexTraceCapture(const WexTraceCapture&) = delete;
    WexTraceCapture& operator=(const WexTraceCapture&) = delete;

    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> g(mu_);
        return lines_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(mu_);
        lines_.clear();
    }
    bool has(const std::string& line) {
        std::lock_guard<std::mutex> g(mu_);
        return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    }

private:
    std::mutex mu_;
    std::vector<std::string> lines_;
};

}  // namespace testsupport
