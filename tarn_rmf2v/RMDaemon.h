// The resource manager daemon base: the controller loop of CDaemon, telling
// the service manager when start-up is complete (READY=1) and when stopping
// begins (STOPPING=1). Run without a service manager, the notices are no-ops.
#pragma once

#include "tarn_base/CDaemon.h"

namespace tarn_rmf2v {

class RMDaemon : public tarn_base::CDaemon {
public:
    RMDaemon(const char* name, unsigned int size1, unsigned int size2, const char* defaultTraceSpec,
             const char* fullTraceSpec, unsigned int flags);
    int handleSRC(int arg) override;

protected:
    void loopStarted() override;
};

}  // namespace tarn_rmf2v
