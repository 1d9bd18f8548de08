// Stands in for a resource class whose own control point is not built yet:
// the class exists (so start-up, enumeration of classes and dispatch work) and
// answers every request with the framework's "not supported" error.
#pragma once

#include "tarn_rmf2v/RMRccp.h"

namespace orvrm {

class PlaceholderRccp : public tarn_rmf2v::RMRccp {
public:
    PlaceholderRccp(const char* className, rm_object_type type, tarn_rmf2v::RMRmcp* rmcp);
    void enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) override;
    void enumerateSelectResources(tarn_rmf2v::RMEnumResourcesResponse* rsp,
                                  char* selectString) override;
    void refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) override;
};

}  // namespace orvrm
