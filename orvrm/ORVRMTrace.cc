#include "orvrm/ORVRMTrace.h"

#include "orvrm/ORVRMLog.h"

namespace orvrm {

void traceRecord(int id, const char* text) { orvrminfo_trace("[%d] %s", id, text); }

void traceRecordInt(int id, const char* text, long value) {
    orvrminfo_trace("[%d] %s %ld", id, text, value);
}

}  // namespace orvrm
