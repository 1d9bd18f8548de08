// Caps the TCP connections from one address that have not authenticated
// yet, so that one source cannot take every connection slot the service has
// with callers that never prove anything. A connection counts from its
// accept until it authenticates (a host proof, a peer greeting) or closes.
// Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

namespace znpex::server {

class PendingLimit {
public:
    // `perAddress` 0: no cap.
    explicit PendingLimit(size_t perAddress) : perAddress_(perAddress) {}

    // Counts connection `id` from `address` as pending; false, and nothing
    // counted, when that address has `perAddress` pending already.
    bool admit(uint64_t id, const std::string& address);
    // The connection authenticated or closed: it no longer counts (nothing
    // happens when it did not).
    void release(uint64_t id);
    size_t pending(const std::string& address) const;
    size_t limit() const { return perAddress_; }
    // How many connections were refused for it.
    uint64_t refused() const;

private:
    const size_t perAddress_;
    mutable std::mutex mu_;  // guards the members below
    std::map<uint64_t, std::string> byId_;
    std::unordered_map<std::string, size_t> byAddress_;
    uint64_t refused_ = 0;
};

}  // namespace znpex::server
