// Which attributes clients watch: persistent attributes with change
// notification enabled and dynamic attributes being monitored, per class and
// per resource. The default request handlers keep it; notifications consult
// it so that only watched changes leave the daemon. Thread-safe.
#pragma once

#include <array>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "platform/zn_types.h"

namespace tarn_rmf2v {

class RMMonitor {
public:
    // `handle` null means the class itself.
    void enablePersistent(const zn_resource_handle* handle, int id);
    void disablePersistent(const zn_resource_handle* handle, int id);
    void startMonitoring(const zn_resource_handle* handle, int id);
    void stopMonitoring(const zn_resource_handle* handle, int id);
    bool isPersistentEnabled(const zn_resource_handle* handle, int id) const;
    bool isMonitored(const zn_resource_handle* handle, int id) const;
    std::vector<int> monitoredIds(const zn_resource_handle* handle) const;
    // Forgets everything about a resource (it was undefined).
    void forget(const zn_resource_handle* handle);
    // Forgets every watch: the service that asked for them is gone, and the
    // next one asks again for what its clients watch.
    void clear();

private:
    // A leading 0 for the class itself, 1 and the handle's bytes for a resource.
    using Key = std::array<unsigned char, 1 + sizeof(zn_resource_handle::bytes)>;
    static Key key(const zn_resource_handle* handle);

    mutable std::mutex mu_;
    std::map<Key, std::set<int>> persistent_;
    std::map<Key, std::set<int>> dynamic_;
};

}  // namespace tarn_rmf2v
