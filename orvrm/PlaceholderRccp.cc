#include "orvrm/PlaceholderRccp.h"

#include "tarn_rmf2v/RMDefaults.h"

namespace orvrm {

PlaceholderRccp::PlaceholderRccp(const char* className, rm_object_type type,
                                 tarn_rmf2v::RMRmcp* rmcp)
    : RMRccp(className, type, rmcp) {}

void PlaceholderRccp::enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) {
    rsp->done(tarn_rmf2v::defaults::notSupported("enumerateResources").get());
}

void PlaceholderRccp::enumerateSelectResources(tarn_rmf2v::RMEnumResourcesResponse* rsp, char*) {
    rsp->done(tarn_rmf2v::defaults::notSupported("enumerateSelectResources").get());
}

void PlaceholderRccp::refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) {
    rsp->done(tarn_rmf2v::defaults::notSupported("refreshConfig").get());
}

}  // namespace orvrm
