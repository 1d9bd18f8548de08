#include "orvrm/ORVRMDaemon.h"

#include "orvrm/ORVRMTrace.h"

ORVRMDaemon::ORVRMDaemon(const char* name, unsigned int size1, unsigned int size2,
                         const char* defaultTraceSpec, const char* fullTraceSpec)
    : RMDaemon(name, size1, size2, defaultTraceSpec, fullTraceSpec, 0) {
    orvrm::traceRecord(2, "ORVRMDaemon::ORVRMDaemon entered");
    orvrm::traceRecord(3, "ORVRMDaemon::ORVRMDaemon leaving");
}
