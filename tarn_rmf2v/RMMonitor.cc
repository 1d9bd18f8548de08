#include "tarn_rmf2v/RMMonitor.h"

#include <algorithm>
#include <iterator>

namespace tarn_rmf2v {

RMMonitor::Key RMMonitor::key(const zn_resource_handle* handle) {
    Key k{};
    if (handle != nullptr) {
        k[0] = 1;
        std::copy(std::begin(handle->bytes), std::end(handle->bytes), k.begin() + 1);
    }
    return k;
}

void RMMonitor::enablePersistent(const zn_resource_handle* handle, int id) {
    std::lock_guard<std::mutex> g(mu_);
    persistent_[key(handle)].insert(id);
}

void RMMonitor::disablePersistent(const zn_resource_handle* handle, int id) {
    std::lock_guard<std::mutex> g(mu_);
    auto it = persistent_.find(key(handle));
    if (it != persistent_.end()) {
        it->second.erase(id);
    }
}

void RMMonitor::startMonitoring(const zn_resource_handle* handle, int id) {
    std::lock_guard<std::mutex> g(mu_);
    dynamic_[key(handle)].insert(id);
}

void RMMonitor::stopMonitoring(const zn_resource_handle* handle, int id) {
    std::lock_guard<std::mutex> g(mu_);
    auto it = dynamic_.find(key(handle));
    if (it != dynamic_.end()) {
        it->second.erase(id);
    }
}

bool RMMonitor::isPersistentEnabled(const zn_resource_handle* handle, int id) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = persistent_.find(key(handle));
    return it != persistent_.end() && it->second.count(id) != 0;
}

bool RMMonitor::isMonitored(const zn_resource_handle* handle, int id) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = dynamic_.find(key(handle));
    return it != dynamic_.end() && it->second.count(id) != 0;
}

std::vector<int> RMMonitor::monitoredIds(const zn_resource_handle* handle) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = dynamic_.find(key(handle));
    if (it == dynamic_.end()) {
        return {};
    }
    return std::vector<int>(it->second.begin(), it->second.end());
}

void RMMonitor::forget(const zn_resource_handle* handle) {
    std::lock_guard<std::mutex> g(mu_);
    persistent_.erase(key(handle));
    dynamic_.erase(key(handle));
}

void RMMonitor::clear() {
    std::lock_guard<std::mutex> g(mu_);
    persistent_.clear();
    dynamic_.clear();
}

}  // namespace tarn_rmf2v
