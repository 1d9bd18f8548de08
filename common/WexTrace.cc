#include "common/WexTrace.h"

#include <cstdarg>

namespace WEX_COMMON {

std::atomic<bool> TRACE_ENABLED{false};
tarn_base::CTraceComponent* TRACE_COMP_ID = nullptr;

tarn_base::CTraceComponent* traceComponent() {
    if (TRACE_COMP_ID != nullptr) {
        return TRACE_COMP_ID;
    }
    static const tarn_base::tr_category_description kCategories[] = {{"Errors"}, {"Info"}};
    static tarn_base::CTraceComponent* own =
        tarn_base::CTraceManager::newComponent(kTraceComponentId, kCategories, 2);
    return own;
}

void wexTrace(const char* format, ...) {
    if (!TRACE_ENABLED.load(std::memory_order_relaxed)) {
        return;
    }
    tarn_base::CTraceComponent* comp = traceComponent();
    if (comp == nullptr || !comp->enabled(kTraceInfo)) {
        return;
    }
    va_list ap;
    va_start(ap, format);
    comp->vwritef(kTraceInfo, format, ap);
    va_end(ap);
}

}  // namespace WEX_COMMON
