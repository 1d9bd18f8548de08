#include "tarn_rmf2v/RMDaemon.h"

#include <systemd/sd-daemon.h>

namespace tarn_rmf2v {

RMDaemon::RMDaemon(const char* name, unsigned int size1, unsigned int size2,
                   const char* defaultTraceSpec, const char* fullTraceSpec, unsigned int flags)
    : CDaemon(name, size1, size2, defaultTraceSpec, fullTraceSpec, flags) {}

int RMDaemon::handleSRC(int arg) {
    int status = CDaemon::handleSRC(arg);
    sd_notify(0, "STOPPING=1");
    return status;
}

void RMDaemon::loopStarted() { sd_notify(0, "READY=1\nSTATUS=serving requests"); }

}  // namespace tarn_rmf2v
