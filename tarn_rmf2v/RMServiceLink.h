// Where notifications and peer messages leave a resource manager: the
// connection to the monitoring service implements it; tests install a
// recorder. Called from any thread; implementations are thread-safe.
#pragma once

#include <string>
#include <vector>

#include "tarn_rmf2v/RMTypes.h"

namespace tarn_rmf2v {

class RMServiceLink {
public:
    virtual ~RMServiceLink() = default;
    virtual void resourcesUndefined(const std::string& className,
                                    const std::vector<zn_resource_handle>& handles) = 0;
    // handle null: class attributes. persistent false: dynamic attributes.
    virtual void attributesModified(const std::string& className,
                                    const zn_resource_handle* handle, bool persistent,
                                    const rm_attribute_value* values, unsigned int count) = 0;
    virtual void sendPeerMessage(int type, int subtype, const void* data,
                                 unsigned int length) = 0;
};

}  // namespace tarn_rmf2v
