// The resource control point of one network interface: its persistent
// attributes live in the class's table; "Status" (127 until a report comes)
// and "ConfigChanged" live here and are reported while clients monitor them.
#pragma once

#include <atomic>

#include "tarn_rmf2v/RMTableRcp.h"

namespace orvrm {

class MNNetworkInterfaceRccp;

class MNNetworkInterfaceRcp : public tarn_rmf2v::RMTableRcp {
public:
    MNNetworkInterfaceRcp(const zn_resource_handle* handle, MNNetworkInterfaceRccp* rccp,
                          unsigned int variety);

    // A reachability report: a changed value is kept and reported; an equal
    // one does nothing.
    void setHeartbeat(unsigned int value);
    unsigned int status() const { return status_.load(); }

protected:
    bool dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) override;

private:
    std::atomic<unsigned int> configChanged_{0};
    std::atomic<unsigned int> status_;
};

}  // namespace orvrm
