#include "znpex/server/PendingLimit.h"

namespace znpex::server {

bool PendingLimit::admit(uint64_t id, const std::string& address) {
    std::lock_guard<std::mutex> g(mu_);
    size_t& n = byAddress_[address];
    if (perAddress_ != 0 && n >= perAddress_) {
        ++refused_;
        return false;
    }
    if (byId_.emplace(id, address).second) {
        ++n;
    }
    return true;
}

void PendingLimit::release(uint64_t id) {
    std::lock_guard<std::mutex> g(mu_);
    auto it = byId_.find(id);
    if (it == byId_.end()) {
        return;
    }
    auto a = byAddress_.find(it->second);
    if (a != byAddress_.end() && --a->second == 0) {
        byAddress_.erase(a);  // addresses that come and go leave nothing behind
    }
    byId_.erase(it);
}

size_t PendingLimit::pending(const std::string& address) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = byAddress_.find(address);
    return it == byAddress_.end() ? 0 : it->second;
}

uint64_t PendingLimit::refused() const {
    std::lock_guard<std::mutex> g(mu_);
    return refused_;
}

}  // namespace znpex::server
