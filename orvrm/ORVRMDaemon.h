// The daemon object: the framework's resource manager daemon with this
// system's name and trace specifications; adds nothing but its constructor.
#pragma once

#include "tarn_rmf2v/RMDaemon.h"

class ORVRMDaemon : public tarn_rmf2v::RMDaemon {
public:
    ORVRMDaemon(const char* name, unsigned int size1, unsigned int size2,
                const char* defaultTraceSpec, const char* fullTraceSpec);
};
